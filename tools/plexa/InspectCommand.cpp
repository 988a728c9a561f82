#include "InspectCommand.hpp"

#include "Console.hpp"
#include "InspectorPage.hpp"
#include "Interrupt.hpp"

#include "plexa/app/Peer.hpp"

#include <cmath>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// Longest wait between two looks at the pages' edits and the interrupt flag; edits and
      /// the peer's bundles end the wait at once.
      constexpr int PollMs = 50;
      constexpr const char* DefaultHttp = "127.0.0.1:8080";
    }

    InspectCommand::InspectCommand(Console& console)
        : ClientCommand(console)
    {
    }

    InspectCommand::~InspectCommand() = default;

    QString InspectCommand::summary() const
    {
      return "mirror a peer's tree and show it live in a browser";
    }

    QString InspectCommand::description() const
    {
      return QString("Mirrors the tree of the peer at HOST:PORT and serves a page that shows it live: every\n"
                     "attribute's type and value, a plot of numeric values, the peer's events, and a field to\n"
                     "change a value in (the syntax of plexa set). Open the printed address in a browser;\n"
                     "Ctrl-C stops. The page listens on 127.0.0.1 unless --http says otherwise.\n"
                     "\n"
                     "Example: plexa inspect 127.0.0.1:5000 --http 127.0.0.1:%1")
          .arg(8080);
    }

    void InspectCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOptions(pageOptions(DefaultHttp));
      parser.addPositionalArgument("HOST:PORT", "Address of the peer.");
    }

    int InspectCommand::prepare(const QCommandLineParser& parser, const QStringList&)
    {
      m_parser = &parser;
      m_page = std::make_unique<InspectorPage>(parser.isSet("read-only"));
      return ExitOk;
    }

    int InspectCommand::beforeConnecting(MirrorNode& mirror, Peer& peer)
    {
      return startPage(*m_page, *m_parser, mirror, peer, Inspector::Mirror, address().toString());
    }

    int InspectCommand::connected(MirrorNode&, Peer& peer)
    {
      peer.setRetryCallback([this](double secondsLeft) {
        console.status(QString("connection to %1 lost; next attempt in %2 s")
                           .arg(address().toString())
                           .arg(int(std::ceil(secondsLeft))));
      });
      while (!Interrupt::requested()) {
        peer.waitAndUpdate(PollMs);
        m_page->update();
      }
      return ExitOk;
    }

    int InspectCommand::interruptedWhileConnecting()
    {
      return ExitOk;
    }

    void InspectCommand::beforeStopping()
    {
      m_page.reset();
    }
  }
}
