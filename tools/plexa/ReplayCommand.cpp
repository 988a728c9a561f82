#include "ReplayCommand.hpp"

#include "AddressArgument.hpp"
#include "Console.hpp"
#include "Interrupt.hpp"
#include "LogSilence.hpp"
#include "MirrorNode.hpp"
#include "RecordingInput.hpp"

#include "plexa/app/Peer.hpp"
#include "plexa/record/RecordingPlayer.hpp"

#include "bastion/BinaryData.hpp"

#include <QElapsedTimer>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr int PollMs = 100;
      /// Events bigger than this go to the peer in slices of this size, as a sender would slice them.
      constexpr unsigned long EventSliceBytes = 64UL * 1024;

      bool parseSeconds(const QString& text, int64_t& ns)
      {
        bool ok = false;
        const double seconds = text.toDouble(&ok);
        if (!ok || !(seconds >= 0) || seconds > 1e9)
          return false;
        ns = int64_t(seconds * 1e9);
        return true;
      }
    }

    QString ReplayCommand::summary() const
    {
      return "serve a recording as a live peer";
    }

    QString ReplayCommand::description() const
    {
      return "Serves the tree of a recording made by plexa record on a TCP port, as its peer served it:\n"
             "once a peer connects, every recorded change and event follows with the recorded timing\n"
             "(scaled by --speed). Afterwards the last tree stays served until Ctrl-C; --loop starts over.\n"
             "The next files of a split recording are played on; --follow goes on with a recording still\n"
             "being written.\n"
             "\n"
             "Example: plexa replay session.plexrec --listen 127.0.0.1:5000 --speed 2";
    }

    void ReplayCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOptions({
          listenOption(),
          {"speed", "Play X times as fast as recorded (default 1).", "X", "1"},
          {"as-fast-as-possible", "Play without waiting between records."},
          {"loop", "Start over at the end (at --from)."},
          {"follow", "Go on serving what is appended to the recording (and to the next files of a split "
                     "recording) until Ctrl-C, like tail -f."},
          {"from", "Start at this time, in seconds since the start of the recording.", "SECONDS"},
          {"to", "End at this time, in seconds since the start of the recording.", "SECONDS"},
      });
      parser.addPositionalArgument("FILE", "The recording to serve.");
    }

    int ReplayCommand::run(const QCommandLineParser& parser)
    {
      const QStringList positional = parser.positionalArguments();
      if (positional.size() != 1)
        return fail(ExitUsage, "takes FILE (see plexa replay --help)");
      const QString& fileName = positional.at(0);
      AddressArgument address;
      QString error;
      if (!AddressArgument::parse(parser.value("listen"), true, address, &error))
        return fail(ExitUsage, error);
      bool ok = false;
      const double speed = parser.value("speed").toDouble(&ok);
      if (!ok || !(speed > 0) || speed > 1e6)
        return fail(ExitUsage, "--speed takes a factor above 0");
      const bool fast = parser.isSet("as-fast-as-possible");
      const bool follow = parser.isSet("follow");
      if (follow && parser.isSet("loop"))
        return fail(ExitUsage, "--follow and --loop exclude each other");
      int64_t fromNs = 0;
      int64_t toNs = std::numeric_limits<int64_t>::max();
      if (parser.isSet("from") && !parseSeconds(parser.value("from"), fromNs))
        return fail(ExitUsage, "--from takes seconds since the start of the recording");
      if (parser.isSet("to") && (!parseSeconds(parser.value("to"), toNs) || toNs < fromNs))
        return fail(ExitUsage, "--to takes seconds since the start of the recording, not before --from");

      Recording recording;
      if (!recording.open(fileName, &error))
        return fail(ExitFailure, error);
      Recording::Record first;
      if (!recording.next(first))
        return fail(ExitFailure, QString("%1: no record to play (%2)").arg(fileName, recording.stopReason()));
      fromNs = std::max(fromNs, first.timeNs);

      Interrupt interrupt;
      MirrorNode tree("tree");
      RecordingPlayer player(tree);
      player.setEventCallback([&tree](const QByteArray& name, Bastion::BinaryData& payload) {
        if (uint64_t(payload.size()) > EventSliceBytes)
          tree.eventProcessSlice(name, payload, EventSliceBytes);
        else
          tree.eventProcess(name, payload);
      });
      player.playUntil(recording, fromNs);

      Peer peer(tree);
      // One update per value of a batch while playing: the peer gets every change, none merged with
      // a later one. Going back to the start of a --loop range needs no such care.
      bool playing = true;
      player.setItemCallback([&peer, &playing] {
        if (playing)
          peer.update();
      });
      if (!peer.listen(address.host(), address.port(), &error))
        return fail(ExitFailure, error);
      reportListening(address, peer);
      // The recorded timing starts once somebody watches.
      while (!Interrupt::requested() && peer.initializedSessionCount() == 0)
        peer.waitAndUpdate(PollMs);

      Recording::Record record;
      uint64_t played = 0;
      RecordingInput input(recording, follow, [&peer](int ms) {
        peer.waitAndUpdate(ms);
        return !Interrupt::requested();
      });
      while (!Interrupt::requested()) {
        QElapsedTimer clock;
        clock.start();
        while (!Interrupt::requested() && input.next(record) && record.timeNs <= toNs) {
          const double dueMs = double(record.timeNs - fromNs) / 1e6 / speed;
          while (!fast && !Interrupt::requested() && clock.elapsed() < dueMs)
            peer.waitAndUpdate(std::max(1, std::min(PollMs, int(std::ceil(dueMs - clock.elapsed())))));
          player.apply(record);
          ++played;
          // One update per record: the peer gets every change, none merged with a later one.
          peer.update();
        }
        if (!input.problem().isEmpty())
          warn(input.problem());
        if (!parser.isSet("loop") || Interrupt::requested())
          break;
        // From the first file again: a split recording may have moved on to a later one.
        if (!recording.open(fileName, &error))
          return fail(ExitFailure, error);
        playing = false;
        player.playUntil(recording, fromNs);
        playing = true;
      }
      if (!Interrupt::requested())
        console.out(QString("replayed %1 records; serving the last tree until Ctrl-C").arg(played));
      while (!Interrupt::requested())
        peer.waitAndUpdate(PollMs);
      console.out("stopping");
      LogSilence quiet;
      peer.stop();
      return ExitOk;
    }
  }
}
