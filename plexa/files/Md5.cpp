#include "plexa/files/Md5.hpp"

#include <QtEndian>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace Plexa
{
  namespace
  {
    template <int Shift>
    inline uint32_t rotate(uint32_t v)
    {
      return (v << Shift) | (v >> (32 - Shift));
    }

    // Each step adds the word and the constant (`input`) and one of the four round functions. The
    // forms below are equal to the textbook ones but shorten the chain of dependent instructions,
    // which is what limits MD5 on any processor: F selects without a negation; G's two halves
    // never overlap, so they are added separately and the one not depending on `b` runs ahead.
    template <int Shift>
    inline void stepF(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t input)
    {
      a = rotate<Shift>(a + input + (d ^ (b & (c ^ d)))) + b;
    }
    template <int Shift>
    inline void stepG(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t input)
    {
      a = rotate<Shift>(a + input + (c & ~d) + (b & d)) + b;
    }
    template <int Shift>
    inline void stepH(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t input)
    {
      a = rotate<Shift>(a + input + (b ^ c ^ d)) + b;
    }
    template <int Shift>
    inline void stepI(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t input)
    {
      a = rotate<Shift>(a + input + (c ^ (b | ~d))) + b;
    }
  }

  void Md5::compress(const unsigned char* blocks, size_t count)
  {
    uint32_t a = m_state[0], b = m_state[1], c = m_state[2], d = m_state[3];
    for (; count > 0; --count, blocks += 64) {
      uint32_t x[16];
      for (int i = 0; i < 16; ++i)
        x[i] = qFromLittleEndian<uint32_t>(blocks + 4 * ptrdiff_t(i));
      const uint32_t a0 = a, b0 = b, c0 = c, d0 = d;
      stepF<7>(a, b, c, d, x[0] + 0xd76aa478u);
      stepF<12>(d, a, b, c, x[1] + 0xe8c7b756u);
      stepF<17>(c, d, a, b, x[2] + 0x242070dbu);
      stepF<22>(b, c, d, a, x[3] + 0xc1bdceeeu);
      stepF<7>(a, b, c, d, x[4] + 0xf57c0fafu);
      stepF<12>(d, a, b, c, x[5] + 0x4787c62au);
      stepF<17>(c, d, a, b, x[6] + 0xa8304613u);
      stepF<22>(b, c, d, a, x[7] + 0xfd469501u);
      stepF<7>(a, b, c, d, x[8] + 0x698098d8u);
      stepF<12>(d, a, b, c, x[9] + 0x8b44f7afu);
      stepF<17>(c, d, a, b, x[10] + 0xffff5bb1u);
      stepF<22>(b, c, d, a, x[11] + 0x895cd7beu);
      stepF<7>(a, b, c, d, x[12] + 0x6b901122u);
      stepF<12>(d, a, b, c, x[13] + 0xfd987193u);
      stepF<17>(c, d, a, b, x[14] + 0xa679438eu);
      stepF<22>(b, c, d, a, x[15] + 0x49b40821u);
      stepG<5>(a, b, c, d, x[1] + 0xf61e2562u);
      stepG<9>(d, a, b, c, x[6] + 0xc040b340u);
      stepG<14>(c, d, a, b, x[11] + 0x265e5a51u);
      stepG<20>(b, c, d, a, x[0] + 0xe9b6c7aau);
      stepG<5>(a, b, c, d, x[5] + 0xd62f105du);
      stepG<9>(d, a, b, c, x[10] + 0x02441453u);
      stepG<14>(c, d, a, b, x[15] + 0xd8a1e681u);
      stepG<20>(b, c, d, a, x[4] + 0xe7d3fbc8u);
      stepG<5>(a, b, c, d, x[9] + 0x21e1cde6u);
      stepG<9>(d, a, b, c, x[14] + 0xc33707d6u);
      stepG<14>(c, d, a, b, x[3] + 0xf4d50d87u);
      stepG<20>(b, c, d, a, x[8] + 0x455a14edu);
      stepG<5>(a, b, c, d, x[13] + 0xa9e3e905u);
      stepG<9>(d, a, b, c, x[2] + 0xfcefa3f8u);
      stepG<14>(c, d, a, b, x[7] + 0x676f02d9u);
      stepG<20>(b, c, d, a, x[12] + 0x8d2a4c8au);
      stepH<4>(a, b, c, d, x[5] + 0xfffa3942u);
      stepH<11>(d, a, b, c, x[8] + 0x8771f681u);
      stepH<16>(c, d, a, b, x[11] + 0x6d9d6122u);
      stepH<23>(b, c, d, a, x[14] + 0xfde5380cu);
      stepH<4>(a, b, c, d, x[1] + 0xa4beea44u);
      stepH<11>(d, a, b, c, x[4] + 0x4bdecfa9u);
      stepH<16>(c, d, a, b, x[7] + 0xf6bb4b60u);
      stepH<23>(b, c, d, a, x[10] + 0xbebfbc70u);
      stepH<4>(a, b, c, d, x[13] + 0x289b7ec6u);
      stepH<11>(d, a, b, c, x[0] + 0xeaa127fau);
      stepH<16>(c, d, a, b, x[3] + 0xd4ef3085u);
      stepH<23>(b, c, d, a, x[6] + 0x04881d05u);
      stepH<4>(a, b, c, d, x[9] + 0xd9d4d039u);
      stepH<11>(d, a, b, c, x[12] + 0xe6db99e5u);
      stepH<16>(c, d, a, b, x[15] + 0x1fa27cf8u);
      stepH<23>(b, c, d, a, x[2] + 0xc4ac5665u);
      stepI<6>(a, b, c, d, x[0] + 0xf4292244u);
      stepI<10>(d, a, b, c, x[7] + 0x432aff97u);
      stepI<15>(c, d, a, b, x[14] + 0xab9423a7u);
      stepI<21>(b, c, d, a, x[5] + 0xfc93a039u);
      stepI<6>(a, b, c, d, x[12] + 0x655b59c3u);
      stepI<10>(d, a, b, c, x[3] + 0x8f0ccc92u);
      stepI<15>(c, d, a, b, x[10] + 0xffeff47du);
      stepI<21>(b, c, d, a, x[1] + 0x85845dd1u);
      stepI<6>(a, b, c, d, x[8] + 0x6fa87e4fu);
      stepI<10>(d, a, b, c, x[15] + 0xfe2ce6e0u);
      stepI<15>(c, d, a, b, x[6] + 0xa3014314u);
      stepI<21>(b, c, d, a, x[13] + 0x4e0811a1u);
      stepI<6>(a, b, c, d, x[4] + 0xf7537e82u);
      stepI<10>(d, a, b, c, x[11] + 0xbd3af235u);
      stepI<15>(c, d, a, b, x[2] + 0x2ad7d2bbu);
      stepI<21>(b, c, d, a, x[9] + 0xeb86d391u);
      a += a0;
      b += b0;
      c += c0;
      d += d0;
    }
    m_state[0] = a;
    m_state[1] = b;
    m_state[2] = c;
    m_state[3] = d;
  }

  void Md5::addData(const char* data, size_t size)
  {
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    size_t used = size_t(m_length % 64);
    m_length += size;
    if (used > 0) {
      const size_t take = std::min(size, 64 - used);
      std::memcpy(m_pending + used, bytes, take);
      bytes += take;
      size -= take;
      used += take;
      if (used < 64)
        return;
      compress(m_pending, 1);
    }
    compress(bytes, size / 64);
    std::memcpy(m_pending, bytes + size / 64 * 64, size % 64);
  }

  QByteArray Md5::result() const
  {
    Md5 last = *this;
    const uint64_t bits = m_length * 8;
    static const unsigned char padding[64] = {0x80};
    last.addData(reinterpret_cast<const char*>(padding), size_t((55 - m_length % 64) % 64 + 1));
    unsigned char tail[8];
    qToLittleEndian(bits, tail);
    last.addData(reinterpret_cast<const char*>(tail), 8);
    QByteArray digest(16, Qt::Uninitialized);
    for (int i = 0; i < 4; ++i)
      qToLittleEndian(last.m_state[i], digest.data() + 4 * ptrdiff_t(i));
    return digest;
  }
}
