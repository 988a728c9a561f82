#include "DemoRun.hpp"

#include "Command.hpp"
#include "Console.hpp"
#include "DemoReport.hpp"
#include "DemoScene.hpp"
#include "Interrupt.hpp"
#include "LogSilence.hpp"
#include "MirrorNode.hpp"
#include "ProgressBar.hpp"
#include "TreeJson.hpp"
#include "TreePath.hpp"

#include "plexa/app/Peer.hpp"
#include "plexa/record/Recorder.hpp"
#include "plexa/record/RecordingPlayer.hpp"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cmath>
#include <map>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr double FramesPerSecond = 60.0;
      /// The sliced event: its payload size and slice size.
      constexpr int SnapshotBytes = 300000;
      constexpr int SliceBytes = 64 * 1024;
      constexpr const char* SnapshotEvent = "snapshot";
      /// How long the trees may take to agree once the animation stopped.
      constexpr int SettleMs = 3000;

      QByteArray md5(const QByteArray& bytes)
      {
        return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
      }

      QByteArray randomBytes(int size, quint32 seed)
      {
        QByteArray bytes(size, '\0');
        QRandomGenerator generator(seed);
        for (int i = 0; i < size; ++i)
          bytes[i] = char(generator.generate() & 0xff);
        return bytes;
      }
    }

    class DemoRun::D
    {
    public:
      /// A file of the server's shared folder and its checksum.
      struct SharedFile
      {
        QString path;
        QByteArray md5;
        int size;
      };

      D(Console& console, double animationSeconds, double timeoutSeconds)
          : console(console)
          , animationSeconds(animationSeconds)
          , timeoutMs(int(timeoutSeconds * 1000))
      {
        clock.start();
      }

      void say(const QString& who, const QString& text)
      {
        console.out(
            QString("%1s  %2  %3").arg(double(clock.elapsed()) / 1000.0, 5, 'f', 2).arg(who.leftJustified(6), text));
      }

      /// Drives both peers until `done` holds. False on Ctrl-C (`interrupted` is set) or after
      /// `limitMs`.
      bool pump(const std::function<bool()>& done, int limitMs)
      {
        QElapsedTimer waited;
        waited.start();
        while (!done()) {
          if (Interrupt::requested()) {
            interrupted = true;
            return false;
          }
          if (waited.elapsed() > limitMs)
            return false;
          step();
        }
        return true;
      }

      /// One turn of both update loops: the client waits briefly for work, the server does not,
      /// so that neither side's messages wait long for the other's turn.
      void step()
      {
        server->waitAndUpdate(0);
        client->waitAndUpdate(1);
      }

      bool writeSharedFiles(QString& error)
      {
        const std::vector<std::pair<QString, QByteArray>> files = {
            {"/notes/readme.txt", QByteArray("This folder is shared by the demo's server.\n").repeated(20)},
            {"/textures/checker.raw", QByteArray("\xff\xff\xff\xff\x20\x20\x20\xff", 8).repeated(32 * 1024)},
            {"/meshes/terrain.bin", randomBytes(3 << 20, 4711)},
        };
        for (const auto& [path, bytes] : files) {
          const QString name = shareDir + path;
          QDir().mkpath(QFileInfo(name).absolutePath());
          QFile file(name);
          if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) {
            error = QString("cannot write %1: %2").arg(name, file.errorString());
            return false;
          }
          sharedFiles.push_back({path, md5(bytes), int(bytes.size())});
        }
        return true;
      }

      bool start(QString& error)
      {
        if (!work.isValid()) {
          error = "cannot create a temporary folder: " + work.errorString();
          return false;
        }
        shareDir = work.path() + "/share";
        inboxDir = work.path() + "/inbox";
        QDir().mkpath(inboxDir);
        if (!writeSharedFiles(error))
          return false;

        scene.reset(new DemoScene(serverTree));
        PeerOptions serverOptions;
        serverOptions.fileRoot = shareDir;
        server.reset(new Peer(serverTree, serverOptions));
        PeerOptions clientOptions;
        clientOptions.fileRoot = inboxDir;
        client.reset(new Peer(clientTree, clientOptions));
        if (!server->waitForFileList(timeoutMs) || !client->waitForFileList(timeoutMs)) {
          error = "the shared folder could not be listed in time";
          return false;
        }
        if (!server->listen("127.0.0.1", 0, &error))
          return false;
        say("server", QString("publishes a scene of %1 attributes on 127.0.0.1:%2 and shares %3 files")
                          .arg(scene->attributeCount())
                          .arg(server->listeningPort())
                          .arg(sharedFiles.size()));

        QElapsedTimer connecting;
        connecting.start();
        client->connectTo("127.0.0.1", server->listeningPort());
        if (!pump([&] { return client->initializedSessionCount() > 0 && server->initializedSessionCount() > 0; },
                  timeoutMs)) {
          error = "the client did not connect in time";
          return false;
        }
        say("client", QString("connected and mirrored %1 attributes in %2 ms")
                          .arg(TreePath::countAttributes(clientTree))
                          .arg(connecting.elapsed()));
        return true;
      }

      /// Counts the values the client's tree takes from the server; the client's own changes
      /// are left out.
      void countAppliedValues(Carafe::Node& node)
      {
        for (Carafe::Attribute* child : node.attributes()) {
          if (auto* childNode = dynamic_cast<Carafe::Node*>(child))
            countAppliedValues(*childNode);
          else
            child->addListener([this] { applied += localChange ? 0 : 1; }, Carafe::Attribute::RoleChanged);
        }
      }

      /// Sets a value on the client's side, as its own change.
      template <typename A, typename V>
      void setOnClient(const QByteArray& path, const V& value)
      {
        if (auto* attribute = dynamic_cast<A*>(TreePath::find(clientTree, path))) {
          localChange = true;
          attribute->setValue(value);
          localChange = false;
        }
      }

      void listen()
      {
        countAppliedValues(clientTree);

        // The client records its tree and the events it receives, and plays the file back at the end.
        recorder.reset(new Recorder(clientTree));
        QString error;
        if (recorder->open(work.path() + "/client.plexrec", &error)) {
          clientTree.setRemoteEventCallback(
              [this](const QByteArray& name, const Bastion::BinaryData& data) { recorder->recordEvent(name, data); });
          say("client", "records its tree and the events it receives into client.plexrec");
        } else {
          say("client", "cannot record: " + error);
        }

        // Round trips: the client answers every frame number it sees with the same number, and
        // the server times the answer.
        clientTree.onChangeImpl(RemoteNode::makeRegExp(DemoScene::FramePath), [this](Carafe::Attribute* a) {
          if (auto* frame = dynamic_cast<Carafe::AttributeT<int>*>(a))
            setOnClient<Carafe::AttributeT<int>>(DemoScene::EchoPath, frame->value());
        });
        serverTree.onChangeImpl(RemoteNode::makeRegExp(DemoScene::EchoPath), [this](Carafe::Attribute* a) {
          auto* echo = dynamic_cast<Carafe::AttributeT<int>*>(a);
          const auto sent = echo ? frameSent.find(echo->value()) : frameSent.end();
          if (sent == frameSent.end())
            return;
          report.roundTripsMs.push_back(double(clock.nsecsElapsed() - sent->second) / 1e6);
          frameSent.erase(frameSent.begin(), std::next(sent));
        });

        // What the client changes shows up on the server.
        for (const char* path :
             {DemoScene::FillIntensityPath, DemoScene::CubeNamePath, DemoScene::CubeTagsPath, "notes/*"}) {
          serverTree.onChangeImpl(RemoteNode::makeRegExp(path), [this](Carafe::Attribute* a) {
            if (clientChanged && a)
              say("server", QString("sees the client's change: %1 = %2").arg(pathOf(serverTree, a), a->asText()));
          });
        }

        clientTree.eventAddListener(SnapshotEvent, [this](Bastion::BinaryData& data) {
          QByteArray blob;
          snapshotIntact = data.readBlob(blob) && md5(blob) == md5(snapshot);
          say("client", QString("received the event \"%1\" whole: %2 bytes, %3")
                            .arg(SnapshotEvent)
                            .arg(data.size())
                            .arg(snapshotIntact ? "checksum matches" : "CHECKSUM DIFFERS"));
        });
      }

      /// The path of `attribute` below `root`, for telling.
      static QString pathOf(Carafe::Node& root, Carafe::Attribute* attribute)
      {
        QStringList parts;
        for (Carafe::Attribute* a = attribute; a && a != &root; a = a->host())
          parts.prepend(QString::fromUtf8(a->name()));
        return parts.join('/');
      }

      void clientChanges()
      {
        clientChanged = true;
        say("client", "changes lights/fill/intensity, renames the cube and adds a tag");
        setOnClient<Carafe::AttributeT<float>>(DemoScene::FillIntensityPath, 0.25f);
        setOnClient<Carafe::AttributeT<QString>>(DemoScene::CubeNamePath, QString("cube (renamed by the client)"));
        setOnClient<Carafe::AttributeT<QStringList>>(DemoScene::CubeTagsPath, QStringList{"solid", "red", "touched"});
      }

      void clientAdds()
      {
        say("client", "adds notes/from-client");
        localChange = true;
        clientTree.addDeepAttribute("notes/from-client",
                                    new Carafe::AttributeT<QString>(QString("hello from the client")));
        localChange = false;
      }

      void sendSlicedEvent()
      {
        snapshot = randomBytes(SnapshotBytes, 42);
        Bastion::BinaryData payload;
        payload.writeBlob(snapshot);
        report.slicedEventBytes = payload.size();
        report.slices = (payload.size() + SliceBytes - 1) / SliceBytes;
        say("server", QString("sends the event \"%1\": %2 bytes in %3 slices of %4")
                          .arg(SnapshotEvent)
                          .arg(payload.size())
                          .arg(report.slices)
                          .arg(ProgressBar::formatBytes(SliceBytes)));
        serverTree.eventProcessSlice(SnapshotEvent, payload, SliceBytes);
      }

      bool animate()
      {
        say("server",
            QString("animates the scene for %1 s at %2 frames per second").arg(animationSeconds).arg(FramesPerSecond));
        const int64_t appliedBefore = applied;
        const qint64 start = clock.nsecsElapsed();
        int frame = 0;
        int64_t valuesSet = 0;
        double nextReport = 1.0;
        for (;;) {
          const double t = double(clock.nsecsElapsed() - start) / 1e9;
          if (t >= animationSeconds)
            break;
          valuesSet += scene->animate(t) + 1;
          scene->frame().setValue(++frame);
          frameSent[frame] = clock.nsecsElapsed();
          if (!clientChanged && t >= animationSeconds / 3)
            clientChanges();
          if (!clientAdded && t >= animationSeconds / 2) {
            clientAdded = true;
            clientAdds();
          }
          if (!snapshotSent && t >= animationSeconds * 2 / 3) {
            snapshotSent = true;
            sendSlicedEvent();
          }
          if (t >= nextReport) {
            nextReport += 1.0;
            say("server", QString("frame %1: %2 values set so far, %3 applied by the client, median round trip %4 ms")
                              .arg(frame)
                              .arg(valuesSet)
                              .arg(applied - appliedBefore)
                              .arg(DemoReport::median(report.roundTripsMs), 0, 'f', 2));
          }
          const qint64 frameEnd = start + qint64(double(frame) / FramesPerSecond * 1e9);
          if (!pump([&] { return clock.nsecsElapsed() >= frameEnd; }, timeoutMs))
            return false;
        }
        report.animationSeconds = double(clock.nsecsElapsed() - start) / 1e9;
        // The last frames are still on their way: let them arrive before counting.
        pump([&] { return frameSent.empty(); }, 1000);
        report.valuesApplied = applied - appliedBefore;
        say("server", QString("stops after %1 frames (%2 values); the client applied %3")
                          .arg(frame)
                          .arg(valuesSet)
                          .arg(report.valuesApplied));
        return !interrupted;
      }

      bool fetchFiles()
      {
        say("client", QString("fetches %1 files from the server's shared folder").arg(sharedFiles.size()));
        report.files = int(sharedFiles.size());
        pendingFetches = report.files;
        for (const SharedFile& file : sharedFiles) {
          client->fetch(file.path, timeoutMs, [this, file](const QString& path, FetchResult result) {
            --pendingFetches;
            QFile got(inboxDir + path);
            const bool read = result == FetchResult::Verified && got.open(QIODevice::ReadOnly);
            const bool same = read && md5(got.readAll()) == file.md5;
            report.filesVerified += same ? 1 : 0;
            say("client", same ? QString("fetched %1 (%2), md5 %3 matches the original")
                                     .arg(path, ProgressBar::formatBytes(file.size), QString::fromLatin1(file.md5))
                               : QString("could not fetch %1 intact").arg(path));
          });
        }
        pump([&] { return pendingFetches == 0; }, timeoutMs * 2);
        return !interrupted;
      }

      bool settle()
      {
        // Values still in flight arrive within a few updates; the trees must then agree.
        report.treesIdentical =
            pump([&] { return TreeJson::save(serverTree) == TreeJson::save(clientTree); }, SettleMs);
        report.attributesMirrored = TreePath::countAttributes(clientTree);
        report.serverToClientBytes = client->rxBytes();
        report.clientToServerBytes = client->txBytes();
        report.slicedEventIntact = snapshotIntact;
        checkRecording();
        return !interrupted;
      }

      /// Closes the client's recording and plays it into a tree of its own, which must end as the
      /// client's tree did.
      void checkRecording()
      {
        clientTree.setRemoteEventCallback(MirrorNode::RemoteEventCallback());
        recorder->close();
        Recording recording;
        if (!recording.open(work.path() + "/client.plexrec"))
          return;
        MirrorNode played("scene");
        RecordingPlayer player(played);
        int events = 0;
        player.setEventCallback([&](const QByteArray&, Bastion::BinaryData&) { ++events; });
        Recording::Record record;
        while (recording.next(record))
          player.apply(record);
        recordingMatches = recording.endedCleanly() && TreeJson::save(played) == TreeJson::save(clientTree) &&
                           events == int(recorder->eventCount());
        say("client", QString("recorded %1 values and %2 events (%3 bytes); played back, the recording %4")
                          .arg(recorder->valueCount())
                          .arg(recorder->eventCount())
                          .arg(recorder->fileBytes())
                          .arg(recordingMatches ? "ends with the client's tree" : "DIFFERS from the client's tree"));
      }

      Console& console;
      const double animationSeconds;
      const int timeoutMs;
      QElapsedTimer clock;
      QTemporaryDir work;
      QString shareDir;
      QString inboxDir;
      std::vector<SharedFile> sharedFiles;

      // Both trees outlive their peers (declared first, destroyed last).
      MirrorNode serverTree{"scene"};
      MirrorNode clientTree{"scene"};
      std::unique_ptr<DemoScene> scene;
      std::unique_ptr<Peer> server;
      std::unique_ptr<Peer> client;
      std::unique_ptr<Recorder> recorder;
      bool recordingMatches = false;

      DemoReport report;
      /// Frame number -> when the server set it (clock nanoseconds), until its echo came back.
      std::map<int, qint64> frameSent;
      int64_t applied = 0;
      bool localChange = false;
      bool clientChanged = false;
      bool clientAdded = false;
      bool snapshotSent = false;
      bool snapshotIntact = false;
      /// Fetches not ended yet (a member: a fetch may end after `fetchFiles` gave up on it).
      int pendingFetches = 0;
      QByteArray snapshot;
      bool interrupted = false;
    };

    DemoRun::DemoRun(Console& console, double animationSeconds, double timeoutSeconds)
        : d(new D(console, animationSeconds, timeoutSeconds))
    {
    }

    DemoRun::~DemoRun()
    {
      // The peers go before the trees and the folder they use.
      LogSilence quiet;
      d->client.reset();
      d->server.reset();
    }

    int DemoRun::run()
    {
      QString error;
      if (!d->start(error)) {
        if (d->interrupted)
          return ExitInterrupted;
        d->console.err("plexa demo: " + error);
        return ExitFailure;
      }
      d->listen();
      if (!d->animate() || !d->fetchFiles() || !d->settle()) {
        d->console.err("plexa demo: interrupted; temporary files removed");
        return ExitInterrupted;
      }
      d->console.out("\nSummary\n" + d->report.table());
      if (d->report.succeeded() && d->recordingMatches) {
        d->console.out("\nThe demo passed: both trees ended identical and every file was verified.");
        return ExitOk;
      }
      d->console.err(QString("plexa demo: FAILED: %1")
                         .arg(!d->report.treesIdentical ? "the trees differ"
                              : !d->report.succeeded()  ? "not every file was verified"
                                                        : "the recording does not play back to the client's tree"));
      return ExitFailure;
    }
  }
}
