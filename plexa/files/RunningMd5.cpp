#include "plexa/files/RunningMd5.hpp"

#include "bastion/Guard.hpp"

namespace Plexa
{
  void RunningMd5::addData(const QByteArray& data)
  {
    Bastion::Guard guard(m_mutex);
    m_hash.addData(data);
  }

  QByteArray RunningMd5::result() const
  {
    Bastion::Guard guard(m_mutex);
    return m_hash.result();
  }
}
