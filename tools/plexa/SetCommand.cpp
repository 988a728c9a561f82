#include "SetCommand.hpp"

#include "AttributeEdit.hpp"
#include "AttributeJson.hpp"
#include "Console.hpp"
#include "Interrupt.hpp"
#include "MirrorNode.hpp"
#include "SyncEvents.hpp"
#include "TreePath.hpp"
#include "ValueText.hpp"
#include "WatchFormat.hpp"

#include "plexa/app/Peer.hpp"

#include <QElapsedTimer>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr int PollMs = 50;
    }

    QString SetCommand::summary() const
    {
      return "change values in a peer's tree";
    }

    QString SetCommand::arguments() const
    {
      return "HOST:PORT PATH[:TYPE]=VALUE...";
    }

    QString SetCommand::description() const
    {
      return "Mirrors the tree of the peer at HOST:PORT, sets the values, and exits once the peer has them.\n"
             "An existing attribute keeps its type; a new one takes the TYPE given, or one inferred from the\n"
             "value (true/false: bool, integer: int, other number: double, anything else: string).\n"
             "VALUE is JSON; lists may leave out their brackets. Types:\n  " +
             AttributeJson::typeNames().mid(0, 18).join(", ") + ",\n  " +
             AttributeJson::typeNames().mid(18).join(", ") +
             ".\n"
             "\n"
             "Example: plexa set 127.0.0.1:5000 light/intensity=0.8 light/colour:color=1,0.5,0 name=Key";
    }

    void SetCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOption({"type", "Type of every value that does not give its own.", "TYPE"});
      parser.addPositionalArgument("HOST:PORT", "Address of the peer.");
      parser.addPositionalArgument("PATH[:TYPE]=VALUE", "Values to set.", "PATH[:TYPE]=VALUE...");
    }

    int SetCommand::prepare(const QCommandLineParser& parser, const QStringList& arguments)
    {
      const QString defaultType = parser.value("type");
      if (!defaultType.isEmpty() && !AttributeJson::isTypeName(defaultType))
        return fail(
            ExitUsage,
            QString("unknown type '%1' (known types: %2)").arg(defaultType, AttributeJson::typeNames().join(", ")));
      m_assignments.clear();
      for (const QString& argument : arguments) {
        Assignment a;
        QString error;
        if (!ValueText::parseAssignment(argument, defaultType, a, &error))
          return fail(ExitUsage, error);
        m_assignments.push_back(a);
      }
      return ExitOk;
    }

    int SetCommand::connected(MirrorNode& mirror, Peer& peer)
    {
      // Every value is checked against the mirrored tree before any is set: all or nothing.
      QString error;
      std::vector<AttributeEdit> changes(m_assignments.size());
      for (size_t i = 0; i < m_assignments.size(); ++i) {
        if (!changes[i].check(mirror, m_assignments[i], &error))
          return fail(ExitFailure, error);
      }
      for (const AttributeEdit& change : changes) {
        if (!change.apply(mirror, &error))
          return fail(ExitFailure, error);
      }

      const bool confirmed = waitUntilApplied(mirror, peer, error);
      if (!error.isEmpty())
        return fail(Interrupt::requested() ? ExitInterrupted : ExitFailure, error);
      for (const AttributeEdit& change : changes) {
        const Carafe::Attribute* applied = TreePath::find(mirror, change.path());
        const QJsonValue value = applied ? AttributeJson::value(*applied) : change.value();
        console.out(
            QString("%1 (%2) = %3").arg(QString::fromUtf8(change.path()), change.type(), WatchFormat::compact(value)));
      }
      if (!confirmed)
        warn(QString("%1 did not confirm the values within %2 s (not a plexa serve?); they were sent")
                 .arg(address().toString())
                 .arg(timeoutSeconds()));
      return ExitOk;
    }

    bool SetCommand::waitUntilApplied(MirrorNode& mirror, Peer& peer, QString& error)
    {
      // The values go out at the next update, then a sync request, which plexa serve answers: the
      // answer acknowledges the values. Another peer may never send anything back.
      Bastion::BinaryData request;
      mirror.eventProcess(SyncEvents::Request, request);

      QElapsedTimer clock;
      clock.start();
      bool written = false;
      while (!written || !peer.allSentAcknowledged()) {
        if (Interrupt::requested()) {
          error = "interrupted; the values may or may not have reached the peer";
          return false;
        }
        if (peer.sessionCount() == 0) {
          error = QString("the connection to %1 ended before the values were confirmed").arg(address().toString());
          return false;
        }
        if (clock.elapsed() >= timeoutMs()) {
          if (!written)
            error = QString("the values could not be sent to %1 within %2 s")
                        .arg(address().toString())
                        .arg(timeoutSeconds());
          return false;
        }
        if (written)
          peer.waitAndUpdate(PollMs);
        else
          written = peer.flush(PollMs);
      }
      return true;
    }
  }
}
