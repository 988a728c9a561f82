#include "plexa/types/AliasDeserializer.hpp"

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include "bastion/Log.hpp"
#include "plexa/types/CarafeAttributes.hpp"

#include <stdexcept>

namespace Plexa
{
  AliasDeserializer::AliasDeserializer(DeserializerFactory factory, Carafe::AttributeAlias* alias, uint32_t size)
      : m_factory(std::move(factory))
      , m_alias(alias)
      , m_aliasName(alias ? alias->name() : QByteArray())
      , m_size(size)
  {
    if (!m_alias)
      return;
    m_listenerId = m_alias->addListener([this] { onAliasChanged(); }, Carafe::Attribute::RoleChanged);
    m_deletedListenerId = m_alias->addListener([this] { onAliasDeleted(); }, Carafe::Attribute::RoleDeleted);
  }

  AliasDeserializer::~AliasDeserializer()
  {
    if (!m_alias)
      return;
    if (m_listenerId >= 0)
      m_alias->removeListener(m_listenerId);
    if (m_deletedListenerId >= 0)
      m_alias->removeListener(m_deletedListenerId);
  }

  const char* AliasDeserializer::aliasName() const
  {
    return m_alias ? m_alias->name().constData() : m_aliasName.constData();
  }

  void AliasDeserializer::deserialize(BundleReaderCore& reader)
  {
    if (m_deserializer) {
      m_deserializer(reader);
      return;
    }
    Bastion::info("AliasDeserializer for '%s' called but alias does not have a target. Will cache the value",
                  aliasName());
    m_cached.clear();
    BundleWriterCore writer(m_cached);
    if (m_size != 0) {
      writer.write(reader.read(m_size), m_size);
      return;
    }
    // Everything is read before anything is written, so a value that fails leaves nothing cached.
    const uint32_t count = reader.readValue<uint32_t>();
    if (count == ZeroTerminatedStringCount) {
      // Decoders take such a text up to the first zero byte and read on right behind the count:
      // keep that text (bounded by the buffer) and leave the position where a decoder leaves it.
      const char* text = reader.data->constData() + reader.position;
      writer.writeValue(count);
      writer.write(text, uint32_t(::strnlen(text, size_t(reader.remaining()))));
      return;
    }
    const void* bytes = count ? reader.readBounded(count) : nullptr;
    writer.writeValue(count);
    if (count != 0)
      writer.write(bytes, count);
  }

  void AliasDeserializer::onAliasChanged()
  {
    // Replaying may run listeners that drop the last FunctorWrap holding us: stay alive until done.
    const std::shared_ptr<AliasDeserializer> keepAlive = weak_from_this().lock();
    if (!m_alias || m_listenerId < 0)
      return;
    Carafe::Attribute* target = TypeRegistry::followAliasChain(m_alias);
    if (!target)
      return;
    if (m_factory)
      m_deserializer = m_factory(target);
    m_alias->removeListener(m_listenerId);
    m_listenerId = -1;
    Bastion::info("AliasDeserializer for '%s' found a target. Switching to normal deserializer. Have cached value: %s",
                  aliasName(), m_cached.isEmpty() ? "no" : "yes");
    if (m_cached.isEmpty())
      return;
    const QByteArray cached = m_cached;
    m_cached.clear();
    BundleReaderCore reader(cached, 0);
    try {
      m_deserializer(reader);
    } catch (const std::out_of_range& e) {
      // A malformed value that was cached whole: the bundle it came from is long gone, so there is
      // nobody to hand the failure to but the log.
      Bastion::error("AliasDeserializer for '%s' could not apply the cached value: %s", aliasName(), e.what());
    } catch (const std::invalid_argument& e) {
      Bastion::error("AliasDeserializer for '%s' could not apply the cached value: %s", aliasName(), e.what());
    }
  }

  void AliasDeserializer::onAliasDeleted()
  {
    // The alias drops its own listener tables; all that is left is to never touch it again.
    m_aliasName = m_alias->name();
    m_alias = nullptr;
    m_listenerId = -1;
    m_deletedListenerId = -1;
  }
}
