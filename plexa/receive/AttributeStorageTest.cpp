#include "plexa/receive/AttributeStorage.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/bundle/WireBytesTest.hpp"
#include "plexa/receive/SessionTestSupport.hpp"

#include <gtest/gtest.h>

#include <QTemporaryFile>

#include <cstdio>
#include <unistd.h>

using namespace Plexa;

namespace
{
  /// What `f` prints to standard output.
  template <typename F>
  QByteArray stdoutOf(F&& f)
  {
    QTemporaryFile file;
    EXPECT_TRUE(file.open());
    std::fflush(stdout);
    const int saved = dup(1);
    dup2(file.handle(), 1);
    f();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    file.seek(0);
    return file.readAll();
  }
}

TEST(AttributeStorageTest, RecordsKeepTheirSymbolsAndTheFirstReadSymbolBinding)
{
  RemoteNode node(nullptr, "root");
  const uint32_t known = node.symbolRegistry().lookupOrDefine("a/b");
  AttributeStorage storage(node);
  PlexaSessionAttribute* ab = storage.createForPath("a/b");
  EXPECT_EQ(ab->symbol, known);
  EXPECT_EQ(storage.findBySymbol(known), ab);
  EXPECT_EQ(storage.findByPath("a/b"), ab);
  PlexaSessionAttribute* c = storage.createForPath("c");
  EXPECT_EQ(c->symbol, node.symbolRegistry().lookup("c"));
  // Asking again for a path with a record hands out that record: the indexes still point to it.
  EXPECT_EQ(storage.createForPath("a/b"), ab);
  EXPECT_EQ(storage.recordCount(), 2);

  Bastion::LogCapture log;
  storage.indexByReadSymbol(7, ab);
  storage.indexByReadSymbol(7, ab);
  EXPECT_TRUE(log.texts().empty());
  storage.indexByReadSymbol(7, c);
  EXPECT_TRUE(
      log.contains(Bastion::LogLevel::Error,
                   "AttributeStorage::indexByReadSymbol # Symbol already points to some other session attribute"));
  EXPECT_EQ(storage.findByReadSymbol(7), ab);
  EXPECT_EQ(storage.findByReadSymbol(8), nullptr);

  // The peer's symbols: the bound record first, then the path's, then a new one.
  EXPECT_EQ(storage.bindForPeer(7, "c"), ab);
  EXPECT_EQ(storage.bindForPeer(9, "c"), c);
  EXPECT_EQ(storage.findByReadSymbol(9), c);
  // The cap applies to paths the peer introduces.
  storage.setMaxRecords(3);
  PlexaSessionAttribute* d = storage.bindForPeer(10, "d");
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d, storage.findByPath("d"));
  EXPECT_EQ(storage.bindForPeer(11, "e"), nullptr);
  EXPECT_EQ(storage.findByReadSymbol(11), nullptr);
  EXPECT_EQ(node.symbolRegistry().lookup("e"), 0u);
  EXPECT_EQ(storage.bindForPeer(12, "d"), d);
  EXPECT_TRUE(storage.limitExceeded());
}

TEST(AttributeStorageTest, DummyDeserializersReadExactlyOneValue)
{
  QByteArray bytes = PlexaTest::BundleBytes(0).words({1, 2, 5, 0x61616161, 0x61, 9});
  BundleReaderCore reader(bytes);
  PlexaSessionAttribute::createDummyDeserializer(6)(reader);
  EXPECT_EQ(reader.position, 16u + 8u);
  PlexaSessionAttribute::createDummyDeserializer(0)(reader);
  EXPECT_EQ(reader.position, 16u + 8u + 12u);
  EXPECT_EQ(reader.readValue<uint32_t>(), 9u);

  // Cut short: the reader's text, the position where the value began.
  QByteArray cut = PlexaTest::BundleBytes(0).words({100, 1, 2});
  BundleReaderCore r2(cut);
  EXPECT_EQ(PlexaTest::thrownText([&] { PlexaSessionAttribute::createDummyDeserializer(0)(r2); }),
            PlexaTest::outOfRange("BundleReader::read # tried to read past the end"));
  EXPECT_EQ(r2.position, 16u);
  EXPECT_EQ(PlexaTest::thrownText([&] { PlexaSessionAttribute::createDummyDeserializer(16)(r2); }),
            PlexaTest::outOfRange("BundleReader::read # tried to read past the end"));
  EXPECT_EQ(r2.position, 16u);
}

TEST(AttributeStorageTest, DebugDumpListsRecordsWithClassesValuesAndTheirSchemaEntries)
{
  RemoteNode node(nullptr, "root");
  auto* speed = new Carafe::AttributeT<float>();
  speed->setValue(1.5f);
  node.addAttribute("speed", speed);
  node.update();
  AttributeStorage storage(node);
  storage.createForPath("speed");
  storage.createForPath("peerOnly");
  storage.createForPath("schema/speed/unit");
  storage.createForPath("schema/speed/deep/er");
  const QByteArray out = stdoutOf([&] { storage.debugDump(); });
  const QList<QByteArray> lines = out.split('\n');
  ASSERT_GE(lines.size(), 3);
  EXPECT_EQ(lines[0], QByteArray("peerOnly").leftJustified(70, ' ') + " -");
  EXPECT_TRUE(lines[1].startsWith(QByteArray("speed").leftJustified(70, ' ') + " Carafe::AttributeT<float"))
      << lines[1].constData();
  EXPECT_TRUE(lines[1].endsWith("> <1.5>")) << lines[1].constData();
  EXPECT_EQ(lines[2], "    " + QByteArray("unit").leftJustified(20, ' ') + ": -");
  EXPECT_FALSE(out.contains("deep")) << out.constData();
  EXPECT_FALSE(out.contains("schema/")) << out.constData();
}
