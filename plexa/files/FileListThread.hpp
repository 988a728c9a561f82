#pragma once

#include "bastion/Thread.hpp"

namespace Plexa
{
  class AssetBase;

  /// Rebuilds the file list of one store once, in the background (AssetBase::buildFileList without
  /// progress). The store owns it, starts it on construction, and stops and joins it before it goes.
  class FileListThread : public Bastion::Thread
  {
  public:
    /// `store` must outlive the thread's run.
    explicit FileListThread(AssetBase* store);
    /// Joins a running rebuild; the store makes it end quickly by clearing its running flag first.
    ~FileListThread() override;

  protected:
    void childLoop() override;

  private:
    AssetBase* const m_store;
  };
}
