#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>

namespace Plexa
{
  /// An MD5 digest computed in pieces. The same digest as QCryptographicHash's, about a tenth
  /// faster: a received file is hashed at the speed of this one stream, so its cost is the cost of
  /// the whole transfer. Not thread-safe; a plain value that may be moved between threads.
  class Md5
  {
  public:
    void addData(const char* data, size_t size);
    void addData(const QByteArray& data) { addData(data.constData(), size_t(data.size())); }
    /// The 16 raw bytes of the digest of everything added so far; more may be added afterwards.
    QByteArray result() const;

  private:
    void compress(const unsigned char* blocks, size_t count);

    uint32_t m_state[4] = {0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u};
    uint64_t m_length = 0;
    unsigned char m_pending[64];
  };
}
