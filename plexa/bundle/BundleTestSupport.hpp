#pragma once

// Test helpers (not installed) for everything that reads or writes bundles: the one builder of
// hand-made bundles, the one byte source a bundle block is read from, the one scheduler that
// receives the lists a connection read and the one connection that records what a session sends,
// used by the unit tests from here up to the session and by the fuzz targets.

#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/TestGate.hpp"
#include "plexa/bundle/Bundle.hpp"
#include "plexa/bundle/BundleStream.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/bundle/Connection.hpp"

#include <QByteArray>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
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

  /// A byte stream that ends (fails) where its bytes end, like a closed connection, and counts
  /// what was asked of it.
  class ByteSource : public Plexa::BundleByteSource
  {
  public:
    explicit ByteSource(const QByteArray& bytes = QByteArray())
        : stream(bytes)
    {
    }

    bool readData(unsigned char* buffer, int size) override
    {
      ++reads;
      largestRead = std::max(largestRead, size);
      if (failed || size < 0 || size > stream.size() - position) {
        position = stream.size();
        failed = true;
        return false;
      }
      std::memcpy(buffer, stream.constData() + position, size_t(size));
      position += size;
      return true;
    }
    void abort() override { aborted = true; }

    QByteArray stream;
    int position = 0;
    int reads = 0;
    int largestRead = 0;
    bool failed = false;
    bool aborted = false;
  };

  /// The outgoing side of a test session: records every send pass and hands it to `onSend`, if
  /// set (a test that links two sessions passes it to the other one there).
  class RecordingLink : public Plexa::Connection
  {
  public:
    void send(const std::vector<Plexa::Bundle>& bundles) override
    {
      passes.push_back(bundles);
      if (onSend)
        onSend(bundles);
    }
    /// The passes recorded since the last call.
    std::vector<std::vector<Plexa::Bundle>> take()
    {
      std::vector<std::vector<Plexa::Bundle>> taken;
      taken.swap(passes);
      return taken;
    }

    std::vector<std::vector<Plexa::Bundle>> passes;
    std::function<void(const std::vector<Plexa::Bundle>&)> onSend;
  };

  /// Records every bundle list a connection schedules (on the connection's thread); tests wait for
  /// them with a deadline.
  class RecordingScheduler : public Plexa::BundleListScheduler
  {
  public:
    void scheduleProcess(const std::vector<Plexa::Bundle>& bundles) override
    {
      {
        Bastion::Guard g(m_mutex);
        m_lists.push_back(bundles);
      }
      m_scheduled.raise();
    }
    bool waitForLists(int count) { return m_scheduled.wait(count, 5000); }
    std::vector<std::vector<Plexa::Bundle>> lists()
    {
      Bastion::Guard g(m_mutex);
      return m_lists;
    }

  private:
    Bastion::Mutex m_mutex;
    std::vector<std::vector<Plexa::Bundle>> m_lists BASTION_GUARDED_BY(m_mutex);
    Bastion::TestGate m_scheduled;
  };
}
