// The plexa program itself, run as a child process on 127.0.0.1: serve, set, dump, watch and
// fetch together, every error a person can make, Ctrl-C, and the demo.

#include "CliTestSupport.hpp"

#include "plexa/app/PeerTestSupport.hpp"
#include "plexa/files/FileTestSupport.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/LogCapture.hpp"
#include "bastion/TCPServerSocket.hpp"
#include "bastion/TCPSocket.hpp"
#include "carafe/AttributeT.hpp"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

namespace
{
  using namespace PlexaTest;

  /// A port nothing listens on (bound, read back and closed again).
  int closedPort()
  {
    Bastion::TCPServerSocket socket;
    if (socket.open("127.0.0.1", 0, 1) != 0)
      return 0;
    const int port = socket.localPort();
    socket.close();
    return port;
  }

  /// Passes bytes between one client and the server at `serverPort` on 127.0.0.1, and meddles:
  /// - StallFileParts: once the server begins to send a file part, drops all the server sends and
  ///   keeps both connections open: a server that stops sending parts.
  /// - HoldSyncRequest: holds what the client sends from its sync request on for HoldMs, then
  ///   passes it on: a slow link, whose server acknowledges late.
  class StallingProxy
  {
  public:
    enum Mode
    {
      StallFileParts,
      HoldSyncRequest
    };
    static constexpr int HoldMs = 2500;

    explicit StallingProxy(int serverPort, Mode mode = StallFileParts)
        : m_mode(mode)
    {
      m_listener.open("127.0.0.1", 0, 1);
      m_thread = std::thread([this, serverPort] { run(serverPort); });
    }
    ~StallingProxy()
    {
      m_stop = true;
      m_thread.join();
    }
    QString address() const { return QString("127.0.0.1:%1").arg(m_listener.localPort()); }

  private:
    void run(int serverPort)
    {
      while (!m_stop && !m_listener.isPendingConnection(100000)) {
      }
      std::unique_ptr<Bastion::TCPSocket> client(m_stop ? nullptr : m_listener.accept());
      Bastion::TCPSocket server;
      if (!client || server.open("127.0.0.1", serverPort) != 0)
        return;
      // Short reads: each returns what came within its time.
      client->setReadTimeout(5);
      server.setReadTimeout(5);
      const QByteArray cut("filepart");
      QByteArray fromServer, fromClient;
      std::vector<char> buffer(65536);
      bool dropping = false;
      QElapsedTimer held;
      while (!m_stop) {
        const int up = client->read(buffer.data(), int(buffer.size()));
        fromClient.append(buffer.data(), qMax(0, up));
        if (m_mode == HoldSyncRequest && !held.isValid() && fromClient.contains("plexa.sync"))
          held.start();
        if (!held.isValid() || held.elapsed() >= HoldMs) {
          server.write(fromClient.constData(), fromClient.size());
          fromClient.clear();
        }
        const int down = server.read(buffer.data(), int(buffer.size()));
        if (down <= 0 || dropping)
          continue;
        if (m_mode == HoldSyncRequest) {
          client->write(buffer.data(), down);
          continue;
        }
        fromServer.append(buffer.data(), down);
        const int at = fromServer.indexOf(cut);
        dropping = at >= 0;
        // An end that may begin the cut is held back until the next bytes tell.
        int pass = dropping ? at : fromServer.size();
        for (int held = cut.size() - 1; !dropping && held > 0; --held)
          if (fromServer.endsWith(cut.left(held))) {
            pass = fromServer.size() - held;
            break;
          }
        client->write(fromServer.constData(), pass);
        fromServer.remove(0, pass);
      }
    }

    const Mode m_mode;
    Bastion::TCPServerSocket m_listener;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
  };

  class CliEndToEnd : public ::testing::Test
  {
  protected:
    /// Starts `plexa serve` on a free port with `arguments`; its address.
    QString serve(std::unique_ptr<Program>& server, QStringList arguments,
                  const QMap<QString, QString>& environment = {})
    {
      arguments.prepend("serve");
      arguments << "--listen"
                << "127.0.0.1:0";
      server.reset(new Program(home, arguments, environment));
      const QString port = server->waitForLine("^listening on 127\\.0\\.0\\.1:(\\d+)$");
      return port.isEmpty() ? QString() : "127.0.0.1:" + port;
    }

    /// Runs the program to its end.
    std::unique_ptr<Program> run(const QStringList& arguments)
    {
      std::unique_ptr<Program> p(new Program(home, arguments));
      status = p->finish();
      return p;
    }

    QTemporaryDir home;
    QTemporaryDir work;
    int status = -1;
  };
}

TEST_F(CliEndToEnd, ServeSetAndDumpAgreeAndWatchSeesTheChanges)
{
  const QString tree = work.filePath("scene.json");
  ASSERT_TRUE(
      writeFile(tree, R"({"light": {"intensity": {"$type": "float", "value": 0.75}, "name": "key"}, "count": 3})"));
  std::unique_ptr<Program> server;
  const QString address = serve(server, {"--tree", tree});
  ASSERT_FALSE(address.isEmpty()) << server->out().toStdString();

  Program watcher(home, {"watch", address, "--json"});
  ASSERT_FALSE(watcher.waitForLine("\"path\":\"light/name\"").isEmpty());

  // A float shows as typed (0.9), not as the double nearest to it.
  auto set = run({"set", address, "light/intensity=0.9", "light/colour:color=1,0.5,0", "note=hello world"});
  EXPECT_EQ(status, 0) << set->err().toStdString();
  EXPECT_EQ(set->out().toStdString(),
            "light/intensity (float) = 0.9\nlight/colour (color) = [1,0.5,0,1]\nnote (string) = \"hello world\"\n");
  EXPECT_EQ(set->err().toStdString(), "");

  auto dump = run({"dump", address, "--json"});
  EXPECT_EQ(status, 0) << dump->err().toStdString();
  EXPECT_EQ(QJsonDocument::fromJson(dump->out().toUtf8()).object(),
            QJsonDocument::fromJson(R"({"light": {"intensity": {"$type": "float", "value": 0.9}, "name": "key",
                                        "colour": {"$type": "color", "value": [1, 0.5, 0, 1]}},
                                        "count": 3, "note": "hello world"})")
                .object());
  dump = run({"dump", address});
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(dump->out().contains("light/intensity (float) = 0.9\n")) << dump->out().toStdString();

  // The watcher saw the change and the additions arrive, one JSON object per line.
  const QString changed = watcher.waitForLine("\"path\":\"note\"");
  ASSERT_FALSE(changed.isEmpty()) << watcher.out().toStdString();
  const QJsonObject note = QJsonDocument::fromJson(changed.toUtf8()).object();
  EXPECT_EQ(note.value("kind"), "added");
  EXPECT_EQ(note.value("value"), "hello world");
  EXPECT_TRUE(watcher.out().contains(R"("kind":"changed","path":"light/intensity")")) << watcher.out().toStdString();
  EXPECT_TRUE(watcher.out().contains(R"("type":"float","value":0.9})")) << watcher.out().toStdString();

  // A value the existing attribute cannot take changes nothing.
  auto wrong = run({"set", address, "light/intensity=bright"});
  EXPECT_EQ(status, 1);
  EXPECT_EQ(wrong->err().toStdString(), "plexa set: light/intensity: 'bright' is not a float value (illegal number)\n");
  wrong = run({"set", address, "light/intensity:int=1"});
  EXPECT_EQ(status, 1);
  EXPECT_EQ(wrong->err().toStdString(), "plexa set: light/intensity is a float on the peer, not a int\n");

  // Ctrl-C ends watch and serve cleanly.
  watcher.interrupt();
  EXPECT_EQ(watcher.finish(), 0);
  server->interrupt();
  EXPECT_EQ(server->finish(), 0);
  EXPECT_TRUE(server->out().endsWith("stopping\n")) << server->out().toStdString();
}

TEST_F(CliEndToEnd, FetchedFilesHaveTheChecksumsOfTheOriginals)
{
  const QString share = work.filePath("share");
  const QString into = work.filePath("into");
  ASSERT_TRUE(writeFile(share + "/big.bin", randomBytes(1500000, 17)));
  ASSERT_TRUE(writeFile(share + "/deep/er/small.txt", "hello\n"));
  ASSERT_TRUE(writeFile(share + "/empty", QByteArray()));
  std::unique_ptr<Program> server;
  const QString address = serve(server, {"--share", share});
  ASSERT_FALSE(address.isEmpty()) << server->err().toStdString();

  auto fetch = run({"fetch", address, "/big.bin", "deep/er/small.txt", "/empty", "--into", into});
  EXPECT_EQ(status, 0) << fetch->err().toStdString();
  for (const QString path : {"/big.bin", "/deep/er/small.txt", "/empty"}) {
    const QString original = md5Hex(readFile(share + path));
    ASSERT_EQ(original.size(), 32);
    EXPECT_EQ(md5Hex(readFile(into + path)), original) << path.toStdString();
    EXPECT_TRUE(fetch->out().contains(QString("%1: ").arg(path))) << fetch->out().toStdString();
    EXPECT_TRUE(fetch->out().contains(QString("verified, md5 %1, saved as %2").arg(original, into + path)));
  }
  // Nothing of the staging folder is left.
  EXPECT_EQ(QDir(into).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
            (QStringList{"big.bin", "deep", "empty"}));
}

TEST_F(CliEndToEnd, VersionNamesTheProgramTheLibraryAndTheProtocol)
{
  for (const char* option : {"--version", "-V"}) {
    auto p = run({option});
    EXPECT_EQ(status, 0) << option;
    EXPECT_EQ(p->out().toStdString(),
              "plexa " PLEXA_PROJECT_VERSION "\nlibrary " PLEXA_PROJECT_VERSION "\nprotocol Orrery 2.7.2\n");
  }
}

TEST_F(CliEndToEnd, MistakesGetOneClearLineAndAnExitStatus)
{
  auto p = run({"dump", "localhost"});
  EXPECT_EQ(status, 2);
  EXPECT_EQ(p->err().toStdString(),
            "plexa dump: malformed address 'localhost': missing ':PORT' (expected HOST:PORT, e.g. 127.0.0.1:5000)\n");
  p = run({"watch", "127.0.0.1:99999"});
  EXPECT_EQ(status, 2);
  EXPECT_TRUE(p->err().startsWith("plexa watch: malformed address '127.0.0.1:99999': port '99999'"))
      << p->err().toStdString();
  p = run({"frobnicate"});
  EXPECT_EQ(status, 2);
  EXPECT_EQ(p->err().toStdString(), "plexa: unknown command 'frobnicate' (commands: demo, serve, watch, inspect, set, "
                                    "dump, fetch, record, replay; see plexa --help)\n");
  p = run({"inspect", "127.0.0.1:1", "--http", "nowhere"});
  EXPECT_EQ(status, 2);
  EXPECT_EQ(p->err().toStdString(), "plexa inspect: --http: malformed address 'nowhere': missing ':PORT' (expected "
                                    "HOST:PORT, e.g. 127.0.0.1:5000)\n");
  p = run({"set", "127.0.0.1:1", "x:flaot=1"});
  EXPECT_EQ(status, 2);
  EXPECT_TRUE(p->err().startsWith("plexa set: unknown type 'flaot' in 'x:flaot=1'")) << p->err().toStdString();
  p = run({"dump", "127.0.0.1:1", "--timeout", "soon"});
  EXPECT_EQ(status, 2);
  EXPECT_EQ(p->err().toStdString(), "plexa dump: --timeout takes a number of seconds above 0, not 'soon'\n");

  // A bad tree: where in the file, and nothing is served.
  const QString bad = work.filePath("bad.json");
  ASSERT_TRUE(writeFile(bad, "{\n  \"a\": 1,\n  \"b\": ?\n}\n"));
  p = run({"serve", "--tree", bad, "--listen", "127.0.0.1:0"});
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(p->err().startsWith("plexa serve: " + bad + ":3:8: ")) << p->err().toStdString();
  EXPECT_EQ(p->err().count('\n'), 1);
  EXPECT_EQ(p->out().toStdString(), "");

  // A port in use: said at once, no retrying unless asked.
  std::unique_ptr<Program> server;
  const QString address = serve(server, {"--share", work.path()});
  ASSERT_FALSE(address.isEmpty());
  p = run({"serve", "--listen", address});
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(p->err().startsWith(QString("plexa serve: cannot listen on %1: Address already in use").arg(address)))
      << p->err().toStdString();
  EXPECT_EQ(p->err().count('\n'), 1);

  // A file the peer does not have: it never answers, so the fetch gives up after the timeout.
  p = run({"fetch", address, "/missing.txt", "--timeout", "1", "--into", work.filePath("into")});
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(p->err().endsWith("plexa fetch: /missing.txt: the peer did not answer within 1 s; it does not have this "
                                "file (or shares no folder)\n"))
      << p->err().toStdString();

  // An unreachable peer: the countdown to the next attempt, then the end after the timeout.
  const int port = closedPort();
  ASSERT_NE(port, 0);
  QElapsedTimer clock;
  clock.start();
  p = run({"dump", QString("127.0.0.1:%1").arg(port), "--timeout", "2.5"});
  EXPECT_EQ(status, 1);
  EXPECT_GE(clock.elapsed(), 2400);
  EXPECT_TRUE(p->err().contains(QString("cannot reach 127.0.0.1:%1 yet; next attempt in ").arg(port)))
      << p->err().toStdString();
  EXPECT_TRUE(p->err().endsWith(QString("plexa dump: could not connect to 127.0.0.1:%1 within 2.5 s (is plexa serve "
                                        "running there, with the same shared key and room for another connection?)\n")
                                    .arg(port)))
      << p->err().toStdString();
}

TEST_F(CliEndToEnd, WithRetryServeWaitsForATakenPort)
{
  std::unique_ptr<Program> first;
  const QString address = serve(first, {});
  ASSERT_FALSE(address.isEmpty());
  Program second(home, {"serve", "--listen", address, "--retry"});
  ASSERT_FALSE(
      second.waitForLine("Address already in use; trying again in 3 s", WaitMs, QProcess::StandardError).isEmpty());
  first->interrupt();
  EXPECT_EQ(first->finish(), 0);
  EXPECT_EQ(second.waitForLine("^listening on (.*)$"), address) << second.err().toStdString();
  second.interrupt();
  EXPECT_EQ(second.finish(), 0);
}

TEST_F(CliEndToEnd, ConnectionsBeyondTheCapAreTurnedAway)
{
  std::unique_ptr<Program> server;
  const QString address = serve(server, {"--max-connections", "1"});
  ASSERT_FALSE(address.isEmpty());
  Program watcher(home, {"watch", address});
  ASSERT_FALSE(watcher.waitForLine("connected").isEmpty());
  auto dump = run({"dump", address, "--timeout", "1.5"});
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(dump->err().endsWith("room for another connection?)\n")) << dump->err().toStdString();
  EXPECT_FALSE(server
                   ->waitForLine("^warning: PeerServer::createConnection # 1 connections already", WaitMs,
                                 QProcess::StandardError)
                   .isEmpty());
  watcher.interrupt();
  EXPECT_EQ(watcher.finish(), 0);
  EXPECT_TRUE(server->waitForLine("^disconnected .* \\(0 connected\\)$").size()) << server->out().toStdString();
}

TEST_F(CliEndToEnd, ADeploymentKeyMustBeTheSameOnBothEnds)
{
  std::unique_ptr<Program> server;
  const QString address = serve(server, {}, {{"PLEXA_SHARED_KEY", "deployment key"}});
  ASSERT_FALSE(address.isEmpty());
  auto dump = run({"dump", address, "--timeout", "1.5"});
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(dump->err().endsWith(QString("plexa dump: could not connect to %1 within 1.5 s (is plexa serve running "
                                           "there, with the same shared key and room for another connection?)\n")
                                       .arg(address)))
      << dump->err().toStdString();
  dump = run({"dump", address, "--key", "deployment key"});
  EXPECT_EQ(status, 0) << dump->err().toStdString();
}

TEST_F(CliEndToEnd, CtrlCEndsCommandsAndRemovesTemporaryFiles)
{
  std::unique_ptr<Program> server;
  const QString address = serve(server, {"--share", work.path()});
  ASSERT_FALSE(address.isEmpty());

  // A fetch waiting for an answer that does not come: its staging folder is there until Ctrl-C.
  const QString into = work.filePath("into");
  Program fetch(home, {"fetch", address, "/missing.bin", "--timeout", "60", "--into", into});
  QElapsedTimer clock;
  clock.start();
  // The folder appears once the fetch runs; polled with a deadline, as it prints nothing.
  while (QDir(into).entryList(QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot).isEmpty() && clock.elapsed() < WaitMs)
    fetch.waitForLine("^$", 20);
  ASSERT_EQ(QDir(into).entryList(QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot).size(), 1);
  fetch.interrupt();
  EXPECT_EQ(fetch.finish(), 130);
  EXPECT_EQ(fetch.err().toStdString(), "plexa fetch: interrupted; temporary files removed\n");
  EXPECT_TRUE(QDir(into).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).isEmpty());

  // A client still trying to connect, once it shows its countdown.
  Program dump(home, {"dump", QString("127.0.0.1:%1").arg(closedPort()), "--timeout", "60"});
  ASSERT_FALSE(dump.waitForLine("^cannot reach", WaitMs, QProcess::StandardError).isEmpty());
  dump.interrupt();
  EXPECT_EQ(dump.finish(5000), 130);

  server->interrupt();
  EXPECT_EQ(server->finish(), 0);
}

TEST_F(CliEndToEnd, CtrlCEndsTheDemoAndRemovesItsFolder)
{
  const QString temporary = work.filePath("tmp");
  ASSERT_TRUE(QDir().mkpath(temporary));
  Program demo(home, {"demo", "--seconds", "30"}, {{"TMPDIR", temporary}});
  ASSERT_FALSE(demo.waitForLine("animates the scene").isEmpty()) << demo.err().toStdString();
  EXPECT_EQ(QDir(temporary).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(), 1);
  demo.interrupt();
  EXPECT_EQ(demo.finish(), 130);
  EXPECT_EQ(demo.err().toStdString(), "plexa demo: interrupted; temporary files removed\n");
  EXPECT_TRUE(QDir(temporary).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).isEmpty());
}

TEST_F(CliEndToEnd, TheDemoPasses)
{
  auto demo = run({"demo", "--seconds", "1"});
  EXPECT_EQ(status, 0) << demo->out().toStdString() << demo->err().toStdString();
  EXPECT_TRUE(demo->out().contains(QRegularExpression("trees identical +yes"))) << demo->out().toStdString();
  EXPECT_TRUE(demo->out().contains(QRegularExpression("files verified +3 of 3")));
  EXPECT_TRUE(demo->out().contains(QRegularExpression("sliced event +\\d+ bytes in \\d+ slices, intact")));
  EXPECT_TRUE(demo->out().contains(QRegularExpression("median round trip +\\d+\\.\\d+ ms")));
}

TEST_F(CliEndToEnd, FetchGivesUpOnAServerThatIsSilentOrStopsSendingParts)
{
  // Connections are accepted (by the kernel) and never answered.
  Bastion::TCPServerSocket silent;
  ASSERT_EQ(silent.open("127.0.0.1", 0, 4), 0);
  QElapsedTimer clock;
  clock.start();
  auto p = run({"fetch", QString("127.0.0.1:%1").arg(silent.localPort()), "/a", "--timeout", "1", "--into",
                work.filePath("into")});
  EXPECT_EQ(status, 1);
  EXPECT_LT(clock.elapsed(), 10000);

  const QString share = work.filePath("share");
  ASSERT_TRUE(writeFile(share + "/big.bin", randomBytes(3000000, 17)));
  std::unique_ptr<Program> server;
  const QString address = serve(server, {"--share", share});
  ASSERT_FALSE(address.isEmpty()) << server->err().toStdString();
  StallingProxy proxy(address.section(':', 1).toInt());
  clock.restart();
  // The time limit also bounds the wait for the file's announcement: long enough for a loaded machine.
  p = run({"fetch", proxy.address(), "/big.bin", "--timeout", "4", "--into", work.filePath("into")});
  EXPECT_EQ(status, 1);
  EXPECT_LT(clock.elapsed(), 15000);
  EXPECT_TRUE(p->err().endsWith("plexa fetch: /big.bin: the peer stopped sending it: no part arrived for 4 s\n"))
      << p->err().toStdString();
}

TEST_F(CliEndToEnd, SetWaitsUntilALateServerHasAcknowledgedTheValues)
{
  std::unique_ptr<Program> server;
  const QString address = serve(server, {});
  ASSERT_FALSE(address.isEmpty()) << server->err().toStdString();
  StallingProxy proxy(address.section(':', 1).toInt(), StallingProxy::HoldSyncRequest);
  QElapsedTimer clock;
  clock.start();
  auto set = run({"set", proxy.address(), "late=41"});
  EXPECT_EQ(status, 0) << set->err().toStdString();
  EXPECT_EQ(set->err().toStdString(), "");
  EXPECT_EQ(set->out().toStdString(), "late (int) = 41\n");
  EXPECT_GE(clock.elapsed(), StallingProxy::HoldMs);
  auto dump = run({"dump", address});
  EXPECT_TRUE(dump->out().contains("late (int) = 41\n")) << dump->out().toStdString();
}

TEST_F(CliEndToEnd, AStoppedWatcherIsDroppedWithinThePingTimeoutAndCatchesUpWhenItResumes)
{
  Bastion::LogCapture log;
  using Int = Carafe::AttributeT<int>;
  Plexa::PeerOptions options;
  options.maxConnections = 1;
  options.pingTimeoutSecs = 2;
  Plexa::RemoteNode tree(nullptr, "scene");
  auto* v = new Int(1);
  tree.addAttribute("v", v);
  Plexa::Peer server(tree, options);
  ASSERT_TRUE(server.listen("127.0.0.1", 0));
  Program watcher(home, {"watch", QString("127.0.0.1:%1").arg(server.listeningPort()), "--json"});
  // The server runs on this thread: it turns between short reads of the watcher's output.
  auto serveUntilLine = [&](const QString& pattern) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      server.waitAndUpdate(5);
      if (!watcher.waitForLine(pattern, 5).isEmpty())
        return true;
    }
    return false;
  };
  ASSERT_TRUE(serveUntilLine(R"("path":"v",.*"value":1\})")) << watcher.out().toStdString();

  // The stopped process's kernel keeps the connection open; nothing comes back.
  watcher.signal(SIGSTOP);
  const auto stopped = std::chrono::steady_clock::now();
  ASSERT_TRUE(pumpUntil(
      {&server}, [&] { return server.sessionCount() == 0; }, 15000));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - stopped).count();
  EXPECT_LE(seconds, options.pingTimeoutSecs + 3.0);
  const std::vector<QByteArray> lines = log.texts();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const QByteArray& text) { return text.endsWith(": Ping timeout, disconnecting"); }),
            1);

  // Its place is free: with room for one connection, another client gets in and gets the tree.
  {
    Plexa::RemoteNode mirror(nullptr, "scene");
    Plexa::Peer other(mirror);
    other.connectTo("127.0.0.1", server.listeningPort());
    EXPECT_TRUE(pumpUntil({&server, &other}, [&] { return attributeAt<Int>(mirror, "v") != nullptr; }));
  }
  ASSERT_TRUE(pumpUntil({&server}, [&] { return server.sessionCount() == 0; }));

  // Resumed, the watcher finds its connection gone, connects again and gets what changed meanwhile.
  v->setValue(2);
  watcher.signal(SIGCONT);
  EXPECT_TRUE(serveUntilLine(R"("path":"v",.*"value":2\})")) << watcher.out().toStdString();
  EXPECT_EQ(server.sessionCount(), 1);
}
