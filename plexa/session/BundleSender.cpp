#include "plexa/session/BundleSender.hpp"

namespace Plexa
{
  BundleSender::BundleSender(const QByteArray& moduleName)
      : m_moduleName(moduleName)
  {
  }

  BundleSender::~BundleSender() = default;

  void BundleSender::prepareUpdates() {}

  void BundleSender::initialize(BundleDispatcher&) {}
}
