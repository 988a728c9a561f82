#include "plexa/session/HandshakeReceiver.hpp"
#include "plexa/session/HandshakeSender.hpp"

#include "bastion/LogCapture.hpp"
#include "plexa/bundle/BundleOutput.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/controller/Core.hpp"

#include <gtest/gtest.h>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// Little-endian words and padded strings, spelled out by hand so a wrong byte or order shows.
  struct Bytes
  {
    QByteArray data;
    Bytes& word(uint32_t v)
    {
      for (int i = 0; i < 4; ++i)
        data.append(char((v >> (8 * i)) & 0xff));
      return *this;
    }
    Bytes& str(const QByteArray& s)
    {
      word(uint32_t(s.size()));
      data.append(s);
      while (data.size() % 4)
        data.append('\0');
      return *this;
    }
    /// A record: its length word in front of `body`.
    Bytes& record(const Bytes& body)
    {
      word(uint32_t(body.data.size()));
      data.append(body.data);
      return *this;
    }
  };

  std::vector<Bundle> flush(HandshakeSender& sender, uint32_t& counter, uint32_t acknowledged = 0)
  {
    std::vector<Bundle> bundles;
    BundleOutput output(&bundles, &counter, acknowledged);
    sender.writeUpdates(output);
    return bundles;
  }

  const Bytes InfoRecord =
      Bytes().record(Bytes().str("info").word(2).str("application").str("Plexa").str("version").str("2.7.2"));
}

TEST(HandshakeTest, FirstBundleHoldsExactlyTheInfoRecord)
{
  HandshakeSender sender;
  uint32_t counter = 1;
  const std::vector<Bundle> bundles = flush(sender, counter, 0);
  ASSERT_EQ(bundles.size(), 1u);
  const QByteArray expected =
      Bytes().word(uint32_t(InfoRecord.data.size())).word(0).word(1).word(0).data + InfoRecord.data;
  EXPECT_EQ(bundles[0].data(), expected);
  // Nothing new: the next pass emits nothing.
  EXPECT_TRUE(flush(sender, counter).empty());
  EXPECT_EQ(counter, 2u);
}

TEST(HandshakeTest, LoadModuleAllocatesTypesInRequestOrder)
{
  HandshakeSender sender;
  uint32_t counter = 1;
  flush(sender, counter);
  EXPECT_EQ(sender.loadModule("Corvanta.Plexa.SymbolRegistry"), 1u);
  EXPECT_EQ(sender.loadModule("Corvanta.Plexa.AttributeNew"), 2u);
  const std::vector<Bundle> bundles = flush(sender, counter, 7);
  ASSERT_EQ(bundles.size(), 1u);
  const Bytes payload = Bytes()
                            .record(Bytes().str("load-module").word(1).str("Corvanta.Plexa.SymbolRegistry").word(0))
                            .record(Bytes().str("load-module").word(2).str("Corvanta.Plexa.AttributeNew").word(0));
  EXPECT_EQ(bundles[0].data(), Bytes().word(uint32_t(payload.data.size())).word(0).word(2).word(7).data + payload.data);
  EXPECT_EQ(sender.nextMessageType(), 3u);
}

TEST(HandshakeTest, RepliesCarryCommandModuleAndDescription)
{
  HandshakeSender sender;
  uint32_t counter = 1;
  flush(sender, counter);
  sender.replyOk("load-module", "M", "Module loaded successfully");
  sender.replyError("load-module", "N", "Module not found");
  const std::vector<Bundle> bundles = flush(sender, counter);
  ASSERT_EQ(bundles.size(), 1u);
  const Bytes payload =
      Bytes()
          .record(Bytes()
                      .str("ok")
                      .str("load-module")
                      .str("M")
                      .word(1)
                      .str("description")
                      .str("Module loaded successfully"))
          .record(Bytes().str("error").str("load-module").str("N").word(1).str("description").str("Module not found"));
  EXPECT_EQ(bundles[0].data().mid(16), payload.data);
}

TEST(HandshakeTest, ReceiverReadsInfoAndLogsErrorsWithTheirMap)
{
  Core core;
  Bastion::LogCapture log;
  const Bytes payload =
      Bytes(InfoRecord)
          .record(Bytes()
                      .str("error")
                      .str("load-module")
                      .str("Corvanta.Plexa.OneWayEvent")
                      .word(2)
                      .str("a")
                      .str("1")
                      .str("description")
                      .str("Module not found"))
          .record(Bytes().str("ok").str("load-module").str("X").word(1).str("description").str("fine"));
  core.dispatchBundle(BundleBytes(0).bytes(payload.data));
  EXPECT_EQ(core.handshakeReceiver().peerInfo().value("application"), "Plexa");
  EXPECT_EQ(core.handshakeReceiver().peerInfo().value("version"), "2.7.2");
  ASSERT_EQ(log.texts().size(), 1u);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error,
                           "HandshakeReceiver::handleBundle # error, command: load-module, module: "
                           "Corvanta.Plexa.OneWayEvent, additional info: a: 1, description: Module not found"));
}

TEST(HandshakeTest, UnknownCommandIsSkippedByItsLength)
{
  Core core;
  Bastion::LogCapture log;
  const Bytes payload = Bytes()
                            .record(Bytes().str("frobnicate").word(1).word(2).word(3))
                            // Fields shorter than the record: the rest of the record is skipped too.
                            .record(Bytes().str("ok").str("load-module").str("X").word(0).word(0xdeadbeef))
                            .record(Bytes().str("error").str("c").str("m").word(0));
  core.dispatchBundle(BundleBytes(0).bytes(payload.data));
  EXPECT_EQ(log.texts(), (std::vector<QByteArray>{
                             "HandshakeReceiver::handleBundle # Unknown command 'frobnicate'",
                             "HandshakeReceiver::handleBundle # error, command: c, module: m, additional info: "}));
}

TEST(HandshakeTest, UnreadableRecordEndsTheBundleWithOneWarning)
{
  const std::vector<Bytes> corrupt{
      // Length word that would put the 32-bit position back at the record start.
      Bytes().word(0xfffffffc).str("info").word(0),
      Bytes().word(0xffffffff).str("info").word(0),
      // Length running past the bundle.
      Bytes().word(64).str("info").word(0),
      // A map count far beyond the bytes.
      Bytes().record(Bytes().str("info").word(0x7fffffff).str("k")),
      // A string count far beyond the bytes, and one above the string limit.
      Bytes().record(Bytes().word(0x40000000).word(0)),
      Bytes().record(Bytes().word(0xffffffff).word(0)),
      // Text with a zero byte.
      Bytes().record(Bytes().word(3).word(0x00620061)),
      // A lone length word short of four bytes.
      Bytes{QByteArray(2, '\0')},
  };
  for (size_t i = 0; i < corrupt.size(); ++i) {
    Core core;
    Bastion::LogCapture log;
    EXPECT_NO_THROW(core.dispatchBundle(BundleBytes(0).bytes(corrupt[i].data)));
    EXPECT_EQ(log.texts(), std::vector<QByteArray>{"HandshakeReceiver::handleBundle # Corrupted message"}) << i;
  }
}

TEST(HandshakeTest, ZeroLengthRecordsStillMoveForward)
{
  // A length of 0 ends the record right behind its length word; the next "record" then starts at
  // the command's count. Whatever that reads as, the loop ends.
  Core core;
  Bastion::LogCapture log;
  core.dispatchBundle(BundleBytes(0).bytes(Bytes().word(0).word(0).word(0).word(0).data));
  const QByteArray unknown = "HandshakeReceiver::handleBundle # Unknown command ''";
  EXPECT_EQ(log.texts(), (std::vector<QByteArray>{unknown, unknown, unknown,
                                                  "HandshakeReceiver::handleBundle # Corrupted message"}));
}

TEST(HandshakeTest, BitFlipsNeverHangOrThrow)
{
  HandshakeSender sender;
  sender.loadModule("Corvanta.Plexa.AttributeNew");
  sender.replyError("load-module", "X", "Module not found");
  uint32_t counter = 1;
  const Bundle original = flush(sender, counter).at(0);
  Bastion::LogCapture log;
  for (int bit = 16 * 8; bit < original.size() * 8; ++bit) {
    Bundle flipped(original.data());
    flipped.data()[bit / 8] = char(flipped.data()[bit / 8] ^ (1 << (bit % 8)));
    Core core;
    core.addModuleFactory("Corvanta.Plexa.AttributeNew",
                          [](const QMap<QString, QString>&) { return std::make_shared<HandshakeReceiver>(); });
    EXPECT_NO_THROW(core.dispatchBundle(flipped)) << bit;
  }
}
