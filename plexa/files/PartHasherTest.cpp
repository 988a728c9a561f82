#include "plexa/files/PartHasher.hpp"
#include "plexa/files/RunningMd5.hpp"

#include <QCryptographicHash>

#include <gtest/gtest.h>


using namespace Plexa;

namespace
{
  QByteArray piece(int size, char seed)
  {
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
      bytes[i] = char(seed + i * 7);
    return bytes;
  }
}

// Pieces of several downloads, interleaved, end up in their own hashes in the order given, and
// waitIdle() returns only once the last queued piece is in.
TEST(PartHasherTest, InterleavedDownloadsHashInOrder)
{
  PartHasher hasher(256 * 1024);
  auto first = std::make_shared<RunningMd5>();
  auto second = std::make_shared<RunningMd5>();
  QCryptographicHash expectFirst(QCryptographicHash::Md5), expectSecond(QCryptographicHash::Md5);
  for (int i = 0; i < 200; ++i) {
    const QByteArray a = piece(65536 - i, char(i)), b = piece(1 + i * 13, char(3 * i));
    expectFirst.addData(a);
    expectSecond.addData(b);
    hasher.add(first, a);
    hasher.add(second, b);
  }
  hasher.add(nullptr, piece(10, 'x'));
  hasher.waitIdle();
  EXPECT_EQ(first->result(), expectFirst.result());
  EXPECT_EQ(second->result(), expectSecond.result());

  // The hasher goes on working after an idle wait.
  const QByteArray tail = piece(4096, 'z');
  expectFirst.addData(tail);
  hasher.add(first, tail);
  hasher.waitIdle();
  EXPECT_EQ(first->result(), expectFirst.result());
}

// add() holds the caller back while the limit is reached, so a slow hash bounds the memory a fast
// connection can pile up; a piece larger than the limit still goes through on its own.
TEST(PartHasherTest, QueueIsBoundedAndOversizedPieceStillPasses)
{
  const qint64 limit = 64 * 1024;
  PartHasher hasher(limit);
  auto hash = std::make_shared<RunningMd5>();
  QCryptographicHash expect(QCryptographicHash::Md5);
  // Queuing shares the bytes, so the producer is far faster than MD5 and keeps the queue full.
  const QByteArray part = piece(16 * 1024, 'p');
  for (int i = 0; i < 2000; ++i) {
    expect.addData(part);
    hasher.add(hash, part);
  }
  EXPECT_LE(hasher.peakQueuedBytes(), limit);
  EXPECT_GE(hasher.peakQueuedBytes(), 2 * part.size());

  const QByteArray oversized = piece(int(limit * 3), 'o');
  expect.addData(oversized);
  hasher.add(hash, oversized);
  hasher.waitIdle();
  EXPECT_EQ(hasher.peakQueuedBytes(), oversized.size());
  EXPECT_EQ(hash->result(), expect.result());
}

// Destroying the hasher hashes what is still queued before the thread ends.
TEST(PartHasherTest, DestructorFinishesQueuedPieces)
{
  auto hash = std::make_shared<RunningMd5>();
  QCryptographicHash expect(QCryptographicHash::Md5);
  {
    PartHasher hasher;
    for (int i = 0; i < 50; ++i) {
      const QByteArray bytes = piece(65536, char(i));
      expect.addData(bytes);
      hasher.add(hash, bytes);
    }
  }
  EXPECT_EQ(hash->result(), expect.result());
}
