// Feeds arbitrary bytes to every value decoder of the type registry: the attribute deserializer of
// each registered id (into a fresh attribute), its variant deserializer, and the caching path of an
// alias without target. A decoder may throw std::out_of_range or std::invalid_argument (the session
// core catches those per bundle); anything else, a crash or a sanitizer report is a bug.

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/types/CarafeAttributes.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include "bastion/Log.hpp"
#include "carafe/Node.hpp"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace
{
  template <typename F>
  void expectOnlyDecoderErrors(F&& decode)
  {
    try {
      decode();
    } catch (const std::out_of_range&) {
    } catch (const std::invalid_argument&) {
    }
  }

  struct Fixture
  {
    Fixture()
    {
      // Caching through an alias logs every value at info level.
      Bastion::setLogLevel(Bastion::LogLevel::Error);
      alias = new Carafe::AttributeAlias();
      node.addAttribute("alias", alias);
    }
    Plexa::TypeRegistry registry;
    Carafe::Node node;
    Carafe::AttributeAlias* alias;
  };
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static Fixture fixture;
  // Copied into an array of our own, so that the bytes end exactly where the input ends.
  const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
  for (uint32_t id : fixture.registry.registeredTypeIds()) {
    std::unique_ptr<Carafe::Attribute> attribute(fixture.registry.createAttribute(id));
    const Plexa::Deserializer deserializer = fixture.registry.createDeserializer(id, attribute.get());
    if (!deserializer)
      std::abort();
    Plexa::BundleReaderCore reader(bytes, 0);
    // A bundle holds many values in a row: keep decoding while the reader moves forward.
    expectOnlyDecoderErrors([&] {
      for (int i = 0; i < 64 && !reader.atEnd(); ++i) {
        const uint32_t before = reader.position;
        deserializer(reader);
        if (reader.position == before)
          break;
      }
    });

    Plexa::BundleReaderCore variantReader(bytes, 0);
    expectOnlyDecoderErrors([&] { fixture.registry.createVariantDeserializer(id)(variantReader); });

    const Plexa::Deserializer deferred = fixture.registry.createDeserializer(id, fixture.alias);
    Plexa::BundleReaderCore aliasReader(bytes, 0);
    expectOnlyDecoderErrors([&] { deferred(aliasReader); });
  }
  return 0;
}
