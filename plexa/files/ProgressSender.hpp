#pragma once

#include <QString>

namespace Plexa
{
  /// Receives progress texts while a file list is being built (AssetBase::buildFileList). Called on
  /// the thread that builds the list, with the file list lock held: an implementation must not call
  /// back into the AssetBase that reports to it.
  class ProgressSender
  {
  public:
    virtual ~ProgressSender();
    /// One progress text ("Scanning directory tree...", "Generated checksums: /a/b", ...). Does
    /// nothing by default.
    virtual void transferInfo(const QString& text);
  };
}
