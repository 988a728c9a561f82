#include "plexa/net/SharedKey.hpp"

#include "bastion/Guard.hpp"
#include "bastion/TimeStamp.hpp"
#include "plexa/net/NetFormat.hpp"

#include <QCryptographicHash>

#include <cstdint>
#include <random>

namespace Plexa
{
  namespace
  {
    // The built-in key XOR a mask that is computed, not stored: neither array alone is the key.
    const unsigned char MaskedKey[NetFormat::SharedKeyBytes] = {0x25, 0x1f, 0xa7, 0x89, 0xb0,
                                                                0x18, 0x18, 0xab, 0xe0, 0xaa};

    unsigned char maskByte(int i)
    {
      return static_cast<unsigned char>(((0x9d * (i + 7)) ^ 0x35) & 0xff);
    }

    QByteArray builtInKey()
    {
      QByteArray key(NetFormat::SharedKeyBytes, '\0');
      for (int i = 0; i < NetFormat::SharedKeyBytes; ++i)
        key[i] = static_cast<char>(MaskedKey[i] ^ maskByte(i));
      return key;
    }

    /// The key set with `set`; empty while the built-in key is in use.
    struct CustomKey
    {
      Bastion::Mutex mutex;
      QByteArray key BASTION_GUARDED_BY(mutex);
    };

    CustomKey& customKey()
    {
      static CustomKey custom;
      return custom;
    }
  }

  QByteArray SharedKey::current()
  {
    {
      CustomKey& custom = customKey();
      Bastion::Guard lock(custom.mutex);
      if (!custom.key.isEmpty())
        return custom.key;
    }
    return builtInKey();
  }

  void SharedKey::set(const QByteArray& key)
  {
    CustomKey& custom = customKey();
    Bastion::Guard lock(custom.mutex);
    custom.key = key;
    // Detach from the caller's buffer so a later change of theirs cannot reach ours.
    custom.key.detach();
  }

  QByteArray SharedKey::answer(const QByteArray& challenge, const QByteArray& key)
  {
    const int half = qMin(int(NetFormat::ChallengeHalfBytes), challenge.size());
    QCryptographicHash md5(QCryptographicHash::Md5);
    md5.addData(challenge.constData(), half);
    md5.addData(key);
    md5.addData(challenge.constData() + half, challenge.size() - half);
    return md5.result();
  }

  QByteArray SharedKey::makeChallenge(const void* salt)
  {
    const uint64_t seed64 =
        uint64_t(Bastion::TimeStamp::getTime().value()) ^ uint64_t(reinterpret_cast<uintptr_t>(salt));
    uint32_t seed = uint32_t(seed64 >> 32) ^ uint32_t(seed64);
    // Time and address are guessable; the system's random source makes the challenge unpredictable,
    // which is what keeps a recorded answer from being replayed.
    std::random_device entropy;
    seed ^= entropy();
    std::mt19937_64 generator(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    QByteArray challenge(NetFormat::ChallengeBytes, '\0');
    for (int i = 0; i < challenge.size(); ++i)
      challenge[i] = static_cast<char>(byte(generator));
    return challenge;
  }

  bool SharedKey::equalConstantTime(const QByteArray& a, const QByteArray& b)
  {
    if (a.size() != b.size())
      return false;
    unsigned char difference = 0;
    for (int i = 0; i < a.size(); ++i)
      difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
  }
}
