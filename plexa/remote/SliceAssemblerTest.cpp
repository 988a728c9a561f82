#include "plexa/remote/SliceAssembler.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

using Bastion::BinaryData;
using Plexa::SliceAssembler;

namespace
{
  BinaryData beginPayload(int32_t sliceId, const QByteArray& name, int32_t sliceSize, int64_t total)
  {
    BinaryData d;
    d.writeInt32(sliceId);
    d.writeString(name);
    d.writeInt32(sliceSize);
    d.writeInt64(total);
    return d;
  }

  BinaryData slicePayload(int32_t sliceId, int32_t index, const QByteArray& bytes)
  {
    BinaryData d;
    d.writeInt32(sliceId);
    d.writeInt32(index);
    d.writeBlob(bytes);
    return d;
  }

  struct Result
  {
    bool done = false;
    QByteArray name, bytes;
  };

  Result feed(SliceAssembler& a, long sender, int32_t sliceId, int32_t index, const QByteArray& bytes)
  {
    Result r;
    BinaryData d = slicePayload(sliceId, index, bytes);
    r.done = a.slice(sender, d, r.name, r.bytes);
    return r;
  }

  void begin(SliceAssembler& a, long sender, int32_t sliceId, const QByteArray& name, int32_t sliceSize, int64_t total)
  {
    BinaryData d = beginPayload(sliceId, name, sliceSize, total);
    a.begin(sender, d);
  }
}

TEST(SliceAssemblerTest, ReassemblesSlicesInAnyOrderPerSender)
{
  Bastion::LogCapture log;
  SliceAssembler a;
  begin(a, 1, 7, "pic", 4, 10);
  begin(a, 2, 7, "other", 4, 5); // same slice id, other sender
  EXPECT_FALSE(feed(a, 1, 7, 2, "89").done);
  EXPECT_FALSE(feed(a, 1, 7, 0, "0123").done);
  EXPECT_FALSE(feed(a, 1, 7, 2, "89").done); // duplicate: harmless
  EXPECT_FALSE(feed(a, 2, 7, 1, "x").done);
  Result r = feed(a, 1, 7, 1, "4567");
  ASSERT_TRUE(r.done);
  EXPECT_EQ(r.name, "pic");
  EXPECT_EQ(r.bytes, "0123456789");
  r = feed(a, 2, 7, 0, "abcd");
  ASSERT_TRUE(r.done);
  EXPECT_EQ(r.name, "other");
  EXPECT_EQ(r.bytes, "abcdx");
  EXPECT_EQ(a.pendingCount(), 0);
  EXPECT_EQ(a.heldBytes(), 0);
  EXPECT_TRUE(log.texts().empty());

  // Finished: further slices are unknown.
  EXPECT_FALSE(feed(a, 1, 7, 0, "0123").done);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "RemoteNode::handleSlicedEvent # Unknown event-slice 7"));
}

TEST(SliceAssemblerTest, RejectsBadSlicesAndKeepsTheEvent)
{
  Bastion::LogCapture log;
  SliceAssembler a;
  begin(a, 0, 3, "e", 4, 10);
  EXPECT_FALSE(feed(a, 0, 3, 3, "zz").done);
  EXPECT_FALSE(feed(a, 0, 3, -1, "zzzz").done);
  EXPECT_EQ(log.texts(), (std::vector<QByteArray>{"RemoteNode::handleSlicedEvent # Bad slice (idx 3)",
                                                  "RemoteNode::handleSlicedEvent # Bad slice (idx -1)"}));
  // A blob of the wrong length fails silently and the event stays.
  log.clear();
  EXPECT_FALSE(feed(a, 0, 3, 0, "012").done);
  BinaryData truncated;
  truncated.writeInt32(3);
  QByteArray name, bytes;
  EXPECT_FALSE(a.slice(0, truncated, name, bytes));
  EXPECT_TRUE(log.texts().empty());
  EXPECT_EQ(a.pendingCount(), 1);
  EXPECT_FALSE(feed(a, 0, 3, 0, "0123").done);
  EXPECT_FALSE(feed(a, 0, 3, 1, "4567").done);
  EXPECT_TRUE(feed(a, 0, 3, 2, "89").done);

  // A second begin under a live key leaves the first one as it was.
  begin(a, 0, 4, "first", 2, 4);
  begin(a, 0, 4, "second", 1, 1);
  EXPECT_FALSE(feed(a, 0, 4, 0, "ab").done);
  Result r = feed(a, 0, 4, 1, "cd");
  EXPECT_TRUE(r.done);
  EXPECT_EQ(r.name, "first");
}

TEST(SliceAssemblerTest, DropsImpossibleBeginRecords)
{
  Bastion::LogCapture log;
  SliceAssembler a;
  begin(a, 0, 1, "zero", 0, 10);
  begin(a, 0, 2, "negative", -4, 10);
  begin(a, 0, 3, "negtotal", 4, -10);
  begin(a, 0, 4, "huge", 1, int64_t(SliceAssembler::MaxSlices) + 1);
  BinaryData unreadable;
  unreadable.writeInt32(5);
  unreadable.writeInt32(6); // not a string
  a.begin(0, unreadable);
  // The 64-bit total is read as 32 bits: 2^32 + 8 reads as 8 and is accepted.
  begin(a, 0, 6, "wrapped", 4, (int64_t(1) << 32) + 8);
  EXPECT_EQ(a.pendingCount(), 1);
  const auto texts = log.texts();
  ASSERT_EQ(texts.size(), 5u);
  EXPECT_EQ(texts[0], "RemoteNode::handleSlicedEvent # Dropping event-slice-begin 1: slice size 0, total size 10");
  EXPECT_EQ(texts[1], "RemoteNode::handleSlicedEvent # Dropping event-slice-begin 2: slice size -4, total size 10");
  EXPECT_EQ(texts[2], "RemoteNode::handleSlicedEvent # Dropping event-slice-begin 3: slice size 4, total size -10");
  EXPECT_EQ(texts[3], "RemoteNode::handleSlicedEvent # Dropping event-slice-begin 4: 4194305 slices, limit 4194304");
  EXPECT_EQ(texts[4], "RemoteNode::handleSlicedEvent # Dropping an event-slice-begin that cannot be read");
  // Nothing but bookkeeping is held until a slice arrives.
  EXPECT_LT(a.heldBytes(), 1024);
  EXPECT_FALSE(feed(a, 0, 6, 0, "abcd").done);
  EXPECT_GE(a.heldBytes(), 8);
}

TEST(SliceAssemblerTest, CapsTheBytesHeldByUnfinishedEvents)
{
  Bastion::LogCapture log;
  SliceAssembler a;
  EXPECT_EQ(a.maxBytes(), int64_t(256) << 20);
  a.setMaxBytes(3000);

  begin(a, 0, 1, "too-big", 100, 5000);
  EXPECT_EQ(a.pendingCount(), 0);
  EXPECT_EQ(log.texts().back(), "RemoteNode::handleSlicedEvent # Dropping event-slice-begin 1: 5000 bytes is above "
                                "the limit of 3000 bytes held by sliced events");

  begin(a, 0, 2, "old", 100, 1000);
  begin(a, 9, 3, "mid", 100, 1000);
  begin(a, 0, 4, "new", 100, 1000);
  feed(a, 0, 2, 0, QByteArray(100, 'o'));
  feed(a, 9, 3, 0, QByteArray(100, 'm'));
  EXPECT_EQ(a.pendingCount(), 3);
  log.clear();
  // The third buffer does not fit: the oldest unfinished event goes.
  feed(a, 0, 4, 0, QByteArray(100, 'n'));
  EXPECT_EQ(a.pendingCount(), 2);
  EXPECT_LE(a.heldBytes(), 3000);
  EXPECT_EQ(log.texts(), std::vector<QByteArray>{"RemoteNode::handleSlicedEvent # Dropping unfinished sliced event 2 "
                                                 "of sender 0 ('old') to stay below the limit of 3000 bytes held by "
                                                 "sliced events"});
  EXPECT_FALSE(feed(a, 0, 2, 1, QByteArray(100, 'o')).done);
  for (int i = 1; i < 9; ++i)
    EXPECT_FALSE(feed(a, 0, 4, i, QByteArray(100, 'n')).done);
  Result r = feed(a, 0, 4, 9, QByteArray(100, 'n'));
  EXPECT_TRUE(r.done);
  EXPECT_EQ(r.bytes, QByteArray(1000, 'n'));
  EXPECT_EQ(a.pendingCount(), 1);
}
