// The inspector under load: a tree of float values, all changing many times a second, served with
// the inspector page, while a browser watches it (tools/plexa/inspector/page_test.py --load runs
// both). Prints the page's address, then every second the changes made and its resident memory.

#include "AddressArgument.hpp"
#include "InspectorPage.hpp"
#include "Interrupt.hpp"
#include "MirrorNode.hpp"

#include "carafe/AttributeT.hpp"
#include "plexa/app/Peer.hpp"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>

#include <cmath>
#include <cstdio>
#include <vector>

namespace
{
  long residentKb()
  {
    QFile status("/proc/self/status");
    status.open(QIODevice::ReadOnly);
    for (const QByteArray& line : status.readAll().split('\n')) {
      if (line.startsWith("VmRSS:"))
        return line.mid(6).trimmed().split(' ').value(0).toLong();
    }
    return 0;
  }
}

int main(int argc, char** argv)
{
  using namespace Plexa;
  using namespace Plexa::Cli;
  QCoreApplication application(argc, argv);
  QCommandLineParser parser;
  parser.addOptions({{"attributes", "Float values in the tree.", "N", "10000"},
                     {"rate", "Changes of every value per second.", "N", "60"},
                     {"http", "Address of the page.", "HOST:PORT", "127.0.0.1:0"}});
  parser.process(application);
  const int count = parser.value("attributes").toInt();
  const int rate = qMax(1, parser.value("rate").toInt());

  MirrorNode tree("tree");
  std::vector<Carafe::AttributeT<float>*> values;
  for (int i = 0; i < count; ++i) {
    auto* value = new Carafe::AttributeT<float>(0.0f);
    if (!tree.addDeepAttribute(
            QByteArray("group") + QByteArray::number(i / 100) + "/value" + QByteArray::number(i % 100), value))
      return 1;
    values.push_back(value);
  }
  Interrupt interrupt;
  Peer peer(tree);
  QString error;
  if (!peer.listen("127.0.0.1", 0, &error)) {
    std::fprintf(stderr, "%s\n", qPrintable(error));
    return 1;
  }
  AddressArgument address;
  InspectorPage page(false);
  if (!AddressArgument::parse(parser.value("http"), true, address, &error) ||
      !page.start(address, tree, peer, Inspector::Server, "127.0.0.1:" + QString::number(peer.listeningPort()),
                  &error)) {
    std::fprintf(stderr, "%s\n", qPrintable(error));
    return 1;
  }
  std::printf("inspector page at %s\n", qPrintable(page.url()));
  std::fflush(stdout);

  QElapsedTimer clock, second;
  clock.start();
  second.start();
  qint64 changes = 0;
  for (long frame = 0; !Interrupt::requested(); ++frame) {
    const double t = double(clock.elapsed()) / 1000.0;
    for (int i = 0; i < count; ++i)
      values[size_t(i)]->setValue(float(std::sin(t + i * 0.01)));
    changes += count;
    peer.update();
    page.update();
    const qint64 next = (frame + 1) * 1000 / rate - clock.elapsed();
    peer.waitAndUpdate(int(qMax<qint64>(0, next)));
    if (second.elapsed() >= 1000) {
      std::printf("%lld changes/s\nrss %ld kB\n", (long long)(changes * 1000 / second.restart()), residentKb());
      std::fflush(stdout);
      changes = 0;
    }
  }
  return 0;
}
