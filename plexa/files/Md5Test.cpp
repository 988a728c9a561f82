#include "plexa/files/Md5.hpp"

#include <QCryptographicHash>

#include <gtest/gtest.h>

#include <cstring>
#include <utility>

using namespace Plexa;

// The published test vectors, and every length around the 64-byte block and the 56-byte limit of
// the last block's padding, added whole and in two pieces split at every point, give the digest
// QCryptographicHash gives; result() leaves the hash open for more data.
TEST(Md5Test, DigestsMatchReferenceForAllSplits)
{
  const std::pair<const char*, const char*> vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& v : vectors) {
    Md5 hash;
    hash.addData(v.first, std::strlen(v.first));
    EXPECT_EQ(hash.result().toHex(), QByteArray(v.second)) << v.first;
  }

  QByteArray data(200, Qt::Uninitialized);
  for (int i = 0; i < data.size(); ++i)
    data[i] = char(i * 37 + 11);
  for (int length = 0; length <= 200; ++length) {
    const QByteArray whole = data.left(length);
    const QByteArray expected = QCryptographicHash::hash(whole, QCryptographicHash::Md5);
    for (int split = 0; split <= length; split += (length > 130 ? 7 : 1)) {
      Md5 hash;
      hash.addData(whole.left(split));
      ASSERT_EQ(hash.result(), QCryptographicHash::hash(whole.left(split), QCryptographicHash::Md5));
      hash.addData(whole.mid(split));
      ASSERT_EQ(hash.result(), expected) << "length " << length << " split " << split;
    }
  }
}
