#include "plexa/files/ProgressSender.hpp"

namespace Plexa
{
  ProgressSender::~ProgressSender() = default;

  void ProgressSender::transferInfo(const QString&) {}
}
