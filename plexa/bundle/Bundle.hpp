#pragma once

#include "plexa/bundle/BundleFormat.hpp"

#include <QByteArray>

#include <cstdint>

namespace Plexa
{
  /// The fixed header in front of every bundle: four unsigned 32-bit fields in host (little-endian)
  /// byte order, copied to and from the wire as their in-memory bytes.
  struct BundleHeader
  {
    /// Payload bytes after the header; the whole bundle is `payloadSize` + 16 bytes long.
    uint32_t payloadSize = 0;
    /// Selects the receiver on the other side; 0 is the module handshake.
    uint32_t messageType = 0;
    /// The sender's running bundle number, counted from 1 per session.
    uint32_t sequence = 0;
    /// `sequence` of the last peer bundle this side had dispatched when the bundle was written.
    uint32_t acknowledged = 0;
  };
  static_assert(sizeof(BundleHeader) == BundleHeaderSize, "the bundle header is exactly 16 bytes on the wire");

  /// One message: the 16-byte header followed by the payload, held in a single byte array.
  /// Copying a bundle shares the bytes (implicitly shared QByteArray), so lists of bundles are cheap
  /// to pass between threads by value; a bundle is not modified once it has been emitted.
  class Bundle
  {
  public:
    static constexpr int HeaderSize = int(BundleHeaderSize);

    /// A bundle of 16 zero bytes: header only, payload size 0.
    Bundle();
    /// Takes `bytes` as they are (shared, not copied). Bytes shorter than a header are kept too:
    /// `header()` then reports zeros for what is missing and `isComplete()` is false.
    explicit Bundle(const QByteArray& bytes);

    const QByteArray& data() const { return m_data; }
    /// Mutable access for code that fills a bundle (the stream reader, the writers).
    QByteArray& data() { return m_data; }
    int size() const { return m_data.size(); }

    /// The header as stored in the first 16 bytes (missing bytes read as 0).
    BundleHeader header() const;
    /// Overwrites the first 16 bytes; a shorter array is first grown to 16 zero bytes.
    void setHeader(const BundleHeader& header);

    /// True when the array holds a whole header and exactly `payloadSize` bytes behind it.
    bool isComplete() const;

    bool operator==(const Bundle& other) const { return m_data == other.m_data; }
    bool operator!=(const Bundle& other) const { return m_data != other.m_data; }

  private:
    QByteArray m_data;
  };
}
