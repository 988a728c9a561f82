#pragma once

#include "plexa/files/Md5.hpp"

#include "bastion/Mutex.hpp"

#include <QByteArray>

namespace Plexa
{
  /// The MD5 of a download's bytes so far. Its own lock lets parts be hashed on any thread without
  /// holding the download list's lock for the time a part takes to hash.
  class RunningMd5
  {
  public:
    RunningMd5() = default;
    RunningMd5(const RunningMd5&) = delete;
    RunningMd5& operator=(const RunningMd5&) = delete;

    void addData(const QByteArray& data);
    /// The 16 raw bytes of the MD5 of everything added so far.
    QByteArray result() const;

  private:
    mutable Bastion::Mutex m_mutex;
    Md5 m_hash BASTION_GUARDED_BY(m_mutex);
  };
}
