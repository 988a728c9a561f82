// Arbitrary bytes as a received bundle list: cut into bundles behind 16-byte headers and dispatched
// in order through a session core whose handshake is registered and whose modules can be loaded,
// then the core's answers go through a second core. The same bytes also go through the block
// reader. Nothing may crash, hang or throw anything but the reader's standard exceptions.

#include "bastion/Log.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleStream.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"
#include "plexa/controller/Core.hpp"
#include "plexa/session/BundleReceiver.hpp"
#include "plexa/session/SessionFormat.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

namespace
{
  /// Reads counted strings until the bundle ends, as a receiver of a loaded module would.
  class StringReceiver : public Plexa::BundleReceiver
  {
  public:
    void handleBundle(Plexa::BundleReaderCore& reader, const Plexa::BundleHeader&, Plexa::BundleDispatcher&) override
    {
      while (!reader.atEnd()) {
        QByteArray text;
        reader.readBinary(text, 1 << 20);
      }
    }
  };

  std::vector<Plexa::Bundle> cut(const uint8_t* data, size_t size)
  {
    std::vector<Plexa::Bundle> bundles;
    size_t at = 0;
    while (size - at >= Plexa::BundleHeaderSize) {
      Plexa::BundleHeader header;
      std::memcpy(&header, data + at, sizeof(header));
      at += sizeof(header);
      const size_t payload = std::min<size_t>(header.payloadSize, size - at);
      header.payloadSize = uint32_t(payload);
      Plexa::Bundle bundle;
      bundle.setHeader(header);
      bundle.data().append(reinterpret_cast<const char*>(data + at), int(payload));
      at += payload;
      bundles.push_back(bundle);
    }
    return bundles;
  }

  void dispatchAll(Plexa::Core& core, const std::vector<Plexa::Bundle>& bundles)
  {
    for (const Plexa::Bundle& bundle : bundles) {
      try {
        core.dispatchBundle(bundle);
      } catch (const std::exception&) {
        // The controller logs these per bundle and goes on with the next one.
      }
    }
  }

  void addModules(Plexa::Core& core)
  {
    using namespace Plexa::ModuleNames;
    for (const char* name : {SymbolRegistry, AttributeNew, AttributeUpdate})
      core.addReceiver(name, std::make_shared<StringReceiver>());
    for (const char* name : {AttributeRemove, OneWayEvent})
      core.addModuleFactory(name, [](const QMap<QString, QString>&) { return std::make_shared<StringReceiver>(); });
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static const bool quiet = [] {
    Bastion::setLogHandler([](Bastion::LogLevel, const QByteArray&) {});
    return true;
  }();
  (void)quiet;

  Plexa::Core core;
  addModules(core);
  dispatchAll(core, cut(data, size));

  // The answers the core wrote go to a peer core as they would over the connection.
  Plexa::Core peer;
  addModules(peer);
  dispatchAll(peer, core.collect());
  dispatchAll(core, peer.collect());

  // The same bytes as the body of a bundle block whose count is the first byte.
  if (size > 0) {
    PlexaTest::ByteSource source(QByteArray::fromRawData(reinterpret_cast<const char*>(data + 1), int(size - 1)));
    std::vector<Plexa::Bundle> bundles;
    Plexa::readBundleBlock(QString("plexa2 %1").arg(int(data[0])), source, bundles);
    dispatchAll(core, bundles);
  }
  return 0;
}
