// Feeds arbitrary bytes to the inspector as messages from a browser page, one per line: the hub
// parses each one (JSON, requests, search patterns, edits) and the application side then applies
// the edits to a tree holding one attribute of every type, as `plexa serve --http` does. Whatever a
// page sends may get an error reply, never a crash, a hang or a tripped sanitizer, and nothing it
// sends is kept beyond the hub's bounds.

#include "AttributeEdit.hpp"
#include "AttributeJson.hpp"
#include "Inspector.hpp"
#include "InspectorHub.hpp"
#include "MirrorNode.hpp"

#include "plexa/app/Peer.hpp"

#include "bastion/Log.hpp"

#include <QStringList>

#include <cstdint>
#include <memory>

namespace
{
  /// Values tried for each type until one is taken: every type gets one attribute.
  const char* const SampleValues[] = {"1", "1,2", "1,2,3", "1,2,3,4", "true", "x", "", "[[1,2],[3,4]]"};

  /// One attribute of each type under t/, set the way `plexa set` sets them.
  void fill(Plexa::RemoteNode& tree)
  {
    using namespace Plexa::Cli;
    for (const QString& type : AttributeJson::typeNames()) {
      for (const char* value : SampleValues) {
        Assignment assignment;
        QString error;
        if (!ValueText::parseAssignment(QString("t/%1:%1=%2").arg(type, value), QString(), assignment, &error))
          continue;
        AttributeEdit edit;
        if (edit.check(tree, assignment, &error) && edit.apply(tree, &error))
          break;
      }
    }
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  using namespace Plexa::Cli;
  static const bool quiet = [] {
    Bastion::setLogLevel(Bastion::LogLevel::Error);
    return true;
  }();
  (void)quiet;

  MirrorNode tree("fuzz");
  fill(tree);
  Plexa::Peer peer(tree);
  InspectorHub hub(false);
  Inspector inspector(tree, peer, hub, Inspector::Server, "127.0.0.1:0");
  // The page's sender thread is never started: what would go out stays queued, within the bounds.
  const std::shared_ptr<InspectorBrowser> page = hub.addBrowser([](const QByteArray&) { return true; });
  if (!page)
    return 0;

  const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
  for (const QByteArray& message : input.split('\n')) {
    if (!hub.receive(*page, message))
      break;
    inspector.update();
  }
  hub.removeBrowser(page);
  return 0;
}
