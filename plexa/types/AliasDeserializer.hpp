#pragma once

#include "plexa/types/TypeFunctions.hpp"

#include <QByteArray>

#include <cstdint>
#include <memory>

namespace Carafe
{
  class Attribute;
  class AttributeAlias;
}

namespace Plexa
{
  class BundleReaderCore;

  /// Stands in for the deserializer of an alias whose chain has no target yet.
  ///
  /// While waiting, every value that arrives is consumed from the bundle and kept in wire form
  /// (only the last one). When the alias notifies a change (role 2) and its chain now ends in an
  /// attribute, the deserializer for that attribute is created once, the listener is removed and
  /// the cached value, if any, is replayed into it. From then on values go straight through.
  ///
  /// Held by `std::shared_ptr` (see FunctorWrap). The alias is not owned: when it is deleted
  /// (role 1) the pointer is forgotten, and nothing touches it afterwards. The alias and this object
  /// belong to one thread (the one that changes the alias); there is no lock.
  class AliasDeserializer : public std::enable_shared_from_this<AliasDeserializer>
  {
  public:
    /// `factory` is the deserializer factory of the announced type id; `size` its fixed wire size,
    /// 0 for types whose values carry a 32-bit byte count in front. Registers the listeners on `alias`.
    AliasDeserializer(DeserializerFactory factory, Carafe::AttributeAlias* alias, uint32_t size);
    ~AliasDeserializer();
    AliasDeserializer(const AliasDeserializer&) = delete;
    AliasDeserializer& operator=(const AliasDeserializer&) = delete;

    /// Passes one value to the target's deserializer, or consumes and caches it while there is
    /// none. Throws what the reader throws for a truncated value.
    void deserialize(BundleReaderCore& reader);

    /// The alias handed to the constructor; null once it was deleted.
    Carafe::AttributeAlias* alias() const { return m_alias; }
    uint32_t size() const { return m_size; }
    /// True once a target was found and the factory gave a deserializer for it.
    bool hasDeserializer() const { return bool(m_deserializer); }
    /// The id of the change listener on the alias; -1 once removed.
    long listenerId() const { return m_listenerId; }
    /// The last value received without a target, in wire form; empty when nothing is cached.
    const QByteArray& cached() const { return m_cached; }

  private:
    void onAliasChanged();
    void onAliasDeleted();
    const char* aliasName() const;

    DeserializerFactory m_factory;
    Carafe::AttributeAlias* m_alias;
    // The name as last seen, for log lines once the alias itself is gone.
    QByteArray m_aliasName;
    uint32_t m_size;
    Deserializer m_deserializer;
    long m_listenerId = -1;
    long m_deletedListenerId = -1;
    QByteArray m_cached;
  };
}
