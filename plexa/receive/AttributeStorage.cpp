#include "plexa/receive/AttributeStorage.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/StringUtils.hpp"
#include "carafe/Attribute.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <algorithm>
#include <cstdio>
#include <typeinfo>
#include <vector>

namespace Plexa
{
  namespace
  {
    const QByteArray SchemaPrefix("schema/");
  }

  AttributeStorage::AttributeStorage(RemoteNode& node)
      : m_node(node)
  {
  }

  AttributeStorage::~AttributeStorage() = default;

  PlexaSessionAttribute* AttributeStorage::findByReadSymbol(uint32_t readSymbol) const
  {
    Bastion::ReadGuard lock(m_lock);
    PlexaSessionAttribute* const* record = m_byReadSymbol.find(readSymbol);
    return record ? *record : nullptr;
  }

  PlexaSessionAttribute* AttributeStorage::findBySymbol(uint32_t symbol) const
  {
    Bastion::ReadGuard lock(m_lock);
    PlexaSessionAttribute* const* record = m_bySymbol.find(symbol);
    return record ? *record : nullptr;
  }

  PlexaSessionAttribute* AttributeStorage::findByPath(const QByteArray& path) const
  {
    const uint32_t symbol = m_node.symbolRegistry().lookup(path);
    return symbol == 0 ? nullptr : findBySymbol(symbol);
  }

  PlexaSessionAttribute* AttributeStorage::createForPath(const QByteArray& path)
  {
    Bastion::WriteGuard lock(m_lock);
    return createLocked(m_node.symbolRegistry().lookupOrDefine(path));
  }

  PlexaSessionAttribute* AttributeStorage::createForSymbol(uint32_t symbol)
  {
    Bastion::WriteGuard lock(m_lock);
    return createLocked(symbol);
  }

  PlexaSessionAttribute* AttributeStorage::bindForPeer(uint32_t readSymbol, const QByteArray& path)
  {
    Bastion::WriteGuard lock(m_lock);
    if (PlexaSessionAttribute* const* bound = m_byReadSymbol.find(readSymbol))
      return *bound;
    // At the cap the path is only looked up, not defined: a refused path leaves no symbol behind.
    const bool full = m_maxRecords > 0 && int(m_records.size()) >= m_maxRecords;
    Bastion::SymbolRegistry& registry = m_node.symbolRegistry();
    const uint32_t symbol = full ? registry.lookup(path) : registry.lookupOrDefine(path);
    PlexaSessionAttribute* const* known = symbol != 0 ? m_bySymbol.find(symbol) : nullptr;
    PlexaSessionAttribute* record = known ? *known : nullptr;
    if (!record) {
      if (full) {
        if (!m_limitExceeded)
          Bastion::error("AttributeStorage::bindForPeer # Session attribute limit of %d reached; refusing new paths",
                         m_maxRecords);
        m_limitExceeded = true;
        return nullptr;
      }
      record = createLocked(symbol);
    }
    m_byReadSymbol.insert(readSymbol, record);
    return record;
  }

  PlexaSessionAttribute* AttributeStorage::createLocked(uint32_t symbol)
  {
    const auto inserted = m_bySymbol.insert(symbol, nullptr);
    if (!inserted.second)
      return *inserted.first;
    m_records.emplace_back(symbol);
    *inserted.first = &m_records.back();
    return &m_records.back();
  }

  void AttributeStorage::indexByReadSymbol(uint32_t readSymbol, PlexaSessionAttribute* attribute)
  {
    Bastion::WriteGuard lock(m_lock);
    const auto inserted = m_byReadSymbol.insert(readSymbol, attribute);
    if (!inserted.second && *inserted.first != attribute)
      Bastion::error("AttributeStorage::indexByReadSymbol # Symbol already points to some other session attribute");
  }

  void AttributeStorage::markRemovedByPeer(PlexaSessionAttribute& record)
  {
    m_anyRemovedByPeer.store(true, std::memory_order_relaxed);
    record.removedByPeer = true;
  }

  void AttributeStorage::setMaxRecords(int maxRecords)
  {
    Bastion::WriteGuard lock(m_lock);
    m_maxRecords = maxRecords;
  }

  bool AttributeStorage::limitExceeded() const
  {
    Bastion::ReadGuard lock(m_lock);
    return m_limitExceeded;
  }

  int AttributeStorage::recordCount() const
  {
    Bastion::ReadGuard lock(m_lock);
    return int(m_records.size());
  }

  void AttributeStorage::debugDump() const
  {
    Bastion::ReadGuard lock(m_lock);
    AttributeCache& cache = m_node.attributeCache();
    Bastion::SymbolRegistry& registry = m_node.symbolRegistry();
    std::vector<std::pair<QByteArray, const PlexaSessionAttribute*>> sorted;
    sorted.reserve(m_records.size());
    for (const PlexaSessionAttribute& record : m_records) {
      QByteArray path;
      if (registry.lookup(record.symbol, path))
        sorted.emplace_back(path, &record);
    }
    // QByteArray's operator< compares byte-wise.
    std::sort(sorted.begin(), sorted.end());
    for (const auto& entry : sorted) {
      const QByteArray& path = entry.first;
      if (path.startsWith(SchemaPrefix))
        continue;
      QByteArray className = "-";
      QByteArray valueText;
      if (Carafe::Attribute* attribute = cache.find(entry.second->symbol)) {
        const char* raw = typeid(*attribute).name();
        if (*raw == '*')
          ++raw;
        className = Bastion::StringUtils::demangle(raw).toUtf8();
        valueText = " <" + attribute->asText().toUtf8() + ">";
      }
      std::printf("%-70s %s%s\n", path.constData(), className.constData(), valueText.constData());

      // The schema entries of this path: "schema/<path>/<key>" with a key free of '/'. They sort
      // together, right behind the prefix.
      const QByteArray prefix = SchemaPrefix + path + '/';
      auto it = std::lower_bound(sorted.begin(), sorted.end(), prefix,
                                 [](const auto& entry, const QByteArray& key) { return entry.first < key; });
      for (; it != sorted.end() && it->first.startsWith(prefix); ++it) {
        const QByteArray key = it->first.mid(prefix.size());
        if (key.isEmpty() || key.contains('/'))
          continue;
        Carafe::Attribute* described = cache.find(it->second->symbol);
        const QByteArray text = described ? described->asText().toUtf8() : QByteArray("-");
        std::printf("    %-20s: %s\n", key.constData(), text.constData());
      }
    }
    std::fflush(stdout);
  }
}
