#include "WatchCommand.hpp"

#include "Console.hpp"
#include "Interrupt.hpp"
#include "MirrorNode.hpp"
#include "RecordingInput.hpp"
#include "SyncEvents.hpp"

#include "plexa/app/Peer.hpp"
#include "plexa/record/RecordingPlayer.hpp"

#include <QThread>

#include <cmath>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr int PollMs = 100;

      WatchEvent::Kind kindOf(NodeWatcher::EventType type)
      {
        switch (type) {
        case NodeWatcher::AttributeAdded:
          return WatchEvent::Added;
        case NodeWatcher::AttributeRemoved:
          return WatchEvent::Removed;
        case NodeWatcher::AttributeChanged:
          return WatchEvent::Changed;
        case NodeWatcher::NodeAdded:
          return WatchEvent::NodeAdded;
        case NodeWatcher::NodeRemoved:
          return WatchEvent::NodeRemoved;
        }
        return WatchEvent::Changed;
      }
    }

    QString WatchCommand::summary() const
    {
      return "mirror a peer's tree and print every change as it arrives";
    }

    QString WatchCommand::arguments() const
    {
      return "HOST:PORT";
    }

    QString WatchCommand::description() const
    {
      return "Mirrors the tree of the peer at HOST:PORT and prints every addition, change, removal and event\n"
             "as it arrives: the present tree first, as additions. Reconnects when the connection drops;\n"
             "Ctrl-C stops. With --json, one JSON object per line, for scripts.\n"
             "\n"
             "A recording made by plexa record in place of HOST:PORT prints the recorded changes, the next\n"
             "files of a split recording included; --follow goes on with a recording still being written.\n"
             "\n"
             "Example: plexa watch 127.0.0.1:5000 --json | jq .path";
    }

    void WatchCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOption({"json", "One JSON object per line: time, kind, path, type, value (events: name, items)."});
      parser.addOption({"follow", "With a recording: go on printing what is appended to it (and to the next files of "
                                  "a split recording) until Ctrl-C, like tail -f; after the recorder closed it, go on "
                                  "with a new recording written into the same file."});
      parser.addPositionalArgument("HOST:PORT", "Address of the peer, or a recording made by plexa record.");
    }

    int WatchCommand::prepare(const QCommandLineParser& parser, const QStringList&)
    {
      m_json = parser.isSet("json");
      if (parser.isSet("follow"))
        return fail(ExitUsage, "--follow reads a recording only");
      return ExitOk;
    }

    void WatchCommand::print(const WatchEvent& event)
    {
      const QDateTime now = m_recordedTime.isValid() ? m_recordedTime : QDateTime::currentDateTime();
      if (m_json)
        console.outBytes(WatchFormat::jsonLine(event, now));
      else
        console.out(WatchFormat::readable(event, now));
    }

    void WatchCommand::printRemoteEvent(const QByteArray& name, const Bastion::BinaryData& data)
    {
      // The answers plexa serve gives plexa set reach every session; they are no news here.
      if (name != SyncEvents::Reply && name != SyncEvents::Request)
        print(WatchFormat::remoteEvent(name, data));
    }

    void WatchCommand::listen(MirrorNode& mirror)
    {
      m_listener = mirror.addAttributeChangeListener([this, &mirror](const NodeWatcher::Event& e) {
        QByteArray path;
        mirror.symbolRegistry().lookup(e.symbol, path);
        print(WatchFormat::attributeEvent(kindOf(e.type), QString::fromUtf8(path),
                                          mirror.attributeCache().find(e.symbol)));
      });
      mirror.setRemoteEventCallback(
          [this](const QByteArray& name, const Bastion::BinaryData& data) { printRemoteEvent(name, data); });
    }

    int WatchCommand::beforeConnecting(MirrorNode& mirror, Peer& peer)
    {
      listen(mirror);
      peer.setConnectionCallback([this](const QString&, bool connected) {
        WatchEvent event;
        event.kind = connected ? WatchEvent::Connected : WatchEvent::Disconnected;
        event.name = address().toString();
        print(event);
      });
      return ExitOk;
    }

    int WatchCommand::connected(MirrorNode&, Peer& peer)
    {
      peer.setRetryCallback([this](double secondsLeft) {
        console.status(QString("connection to %1 lost; next attempt in %2 s")
                           .arg(address().toString())
                           .arg(int(std::ceil(secondsLeft))));
      });
      // Until Ctrl-C, or until nobody reads the output any more.
      while (!Interrupt::requested() && !console.outputBroken())
        peer.waitAndUpdate(PollMs);
      return ExitOk;
    }

    int WatchCommand::runOnRecording(const QCommandLineParser& parser, const QString& fileName)
    {
      m_json = parser.isSet("json");
      Recording recording;
      QString error;
      if (!recording.open(fileName, &error))
        return fail(ExitFailure, error);
      Interrupt interrupt;
      MirrorNode mirror("tree");
      listen(mirror);
      RecordingPlayer player(mirror);
      player.setEventCallback(
          [this](const QByteArray& name, Bastion::BinaryData& data) { printRemoteEvent(name, data); });
      auto stillReading = [this] { return !Interrupt::requested() && !console.outputBroken(); };
      RecordingInput input(recording, parser.isSet("follow"), [&](int ms) {
        if (stillReading())
          QThread::msleep(ulong(ms));
        return stillReading();
      });
      Recording::Record record;
      while (stillReading() && input.next(record)) {
        m_recordedTime = QDateTime::fromMSecsSinceEpoch((recording.startWallNs() + record.timeNs) / 1000000);
        player.apply(record);
      }
      m_recordedTime = QDateTime();
      done(mirror);
      if (!input.problem().isEmpty() && !Interrupt::requested())
        warn(input.problem());
      return ExitOk;
    }

    int WatchCommand::interruptedWhileConnecting()
    {
      return ExitOk;
    }

    void WatchCommand::done(MirrorNode& mirror)
    {
      // The mirror reports its contents as removed when it goes: that is no news from the peer.
      mirror.removeAttributeChangeListener(m_listener);
      mirror.setRemoteEventCallback(MirrorNode::RemoteEventCallback());
    }
  }
}
