#pragma once

#include <QByteArray>

namespace Plexa
{
  /// The secret both ends of a connection mix into the handshake answer, and the handshake's
  /// challenge and answer computations.
  ///
  /// A built-in key of NetFormat::SharedKeyBytes bytes is assembled at run time from masked data,
  /// so it does not appear in the binary in plain form. A deployment replaces it with `set()` on
  /// both ends. Process-wide; every function may be called from any thread.
  class SharedKey
  {
  public:
    /// The key in use: the one given to `set()`, else the built-in one.
    static QByteArray current();
    /// Replaces the key for every later handshake of this process; an empty key restores the
    /// built-in one.
    static void set(const QByteArray& key);

    /// MD5(challenge bytes 0-31, key, challenge bytes 32-63): the 16-byte answer to a 64-byte
    /// challenge. A challenge of another size is used as it is (the halves then differ in size),
    /// so a short read can never read past the array.
    static QByteArray answer(const QByteArray& challenge, const QByteArray& key);

    /// 64 random bytes, each uniform in 0..255, from a 64-bit Mersenne Twister seeded with the
    /// current time stamp XOR `salt` (the address of the asking object) folded to 32 bits, mixed
    /// with the system's random source.
    static QByteArray makeChallenge(const void* salt);

    /// Compares two byte arrays in time that depends only on their lengths, so the position of
    /// the first differing byte of a handshake answer cannot be learnt by timing.
    static bool equalConstantTime(const QByteArray& a, const QByteArray& b);
  };
}
