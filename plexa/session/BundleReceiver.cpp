#include "plexa/session/BundleReceiver.hpp"

#include "bastion/Log.hpp"
#include "plexa/session/SessionFormat.hpp"

namespace Plexa
{
  BundleReceiver::~BundleReceiver() = default;

  bool BundleReceiver::mayLogRecord(const char* who)
  {
    if (m_recordLines > MaxRecordLogLines)
      return false;
    if (m_recordLines++ < MaxRecordLogLines)
      return true;
    Bastion::error("%s # %d bad records logged in this session (MaxRecordLogLines); further ones are not logged", who,
                   MaxRecordLogLines);
    return false;
  }
}
