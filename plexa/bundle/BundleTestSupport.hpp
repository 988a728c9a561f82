#pragma once

// Test helpers (not installed) for everything that reads or writes bundles: the one builder of
// hand-made bundles, used by the unit tests from here up to the session and by the fuzz targets.

#include "plexa/bundle/Bundle.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"

#include <QByteArray>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

namespace PlexaTest
{
  /// Builds one bundle: the header, then whatever is appended; `bundle()` fills in the size.
  class BundleBytes
  {
  public:
    BundleBytes(uint32_t messageType, uint32_t sequence = 1, uint32_t acknowledged = 0)
        : m_writer(m_data)
    {
      m_data.resize(16);
      Plexa::BundleHeader header;
      header.messageType = messageType;
      header.sequence = sequence;
      header.acknowledged = acknowledged;
      std::memcpy(m_data.data(), &header, sizeof(header));
    }
    BundleBytes& words(std::initializer_list<uint32_t> values)
    {
      for (uint32_t v : values)
        m_writer.writeValue(v);
      return *this;
    }
    template <typename T>
    BundleBytes& value(const T& v)
    {
      m_writer.writeValue(v);
      return *this;
    }
    /// The bytes as they are, without a count or padding.
    BundleBytes& bytes(const QByteArray& raw)
    {
      m_data.append(raw);
      return *this;
    }
    /// A 32-bit count, the bytes, zero padding.
    BundleBytes& blob(const QByteArray& bytes)
    {
      m_writer.writeBinary(bytes);
      return *this;
    }
    Plexa::Bundle bundle() const
    {
      QByteArray data = m_data;
      const uint32_t payload = uint32_t(data.size() - 16);
      std::memcpy(data.data(), &payload, 4);
      return Plexa::Bundle(data);
    }
    operator Plexa::Bundle() const { return bundle(); }
    /// The bundle's bytes.
    operator QByteArray() const { return bundle().data(); }

  private:
    QByteArray m_data;
    Plexa::BundleWriterCore m_writer;
  };

  /// The bytes of `bundles` one after the other, as they go on the wire.
  inline QByteArray concat(const std::vector<Plexa::Bundle>& bundles)
  {
    QByteArray out;
    for (const Plexa::Bundle& b : bundles)
      out.append(b.data());
    return out;
  }
}
