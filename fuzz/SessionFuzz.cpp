// Arbitrary bytes as the bundle lists a peer sends into one whole session: a remote node with a
// small tree of several types (an alias to a node among them) and its BundleController with every
// receiver registered. What the session sends goes on to a second session, as it would over the
// connection. The input defines everything the peer decides: the handshake bundles
// in it load modules under message types of its choosing, symbol bundles define the paths, and
// AttributeNew records name the type ids.
//
// Input: byte 0 chooses the session's options (bit 0 create missing attributes, bit 1 drop stale
// values, bit 2 small flooding caps, bit 3 the session starts disabled) and, in its high nibble,
// how many bundles make one list (0: all in one). The rest is cut into bundles: a 16-byte header,
// then as much of its payload size as there are bytes left. Every list goes through
// `scheduleProcess` and one `BundleController::update()`, which is also when the session sends.
// Before each list the session's own tree changes too, as an application's would while the peer
// talks: "a" gets a new value, and every third list "n/b" is removed and added again. So the
// session's sends, stale values and re-added attributes meet whatever the peer said about them.
// Nothing may crash, leak, hang or throw out of the controller. SessionFuzz.dict gives the fuzzer
// the event names the remote node keeps for itself, which a peer's events may not use.

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeContainer.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/bundle/Bundle.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"
#include "plexa/bundle/Connection.hpp"
#include "plexa/controller/BundleController.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace
{
  struct Options
  {
    bool createMissing = false;
    bool dropStale = false;
    bool caps = false;
    bool disabled = false;
    /// Bundles per list; 0 puts all of them in one list.
    int perList = 0;
  };

  Options optionsFrom(uint8_t byte)
  {
    Options o;
    o.createMissing = byte & 1;
    o.dropStale = byte & 2;
    o.caps = byte & 4;
    o.disabled = byte & 8;
    o.perList = byte >> 4;
    return o;
  }

  /// One side: a remote node over a few attributes of different types, nodes and an alias that
  /// leads to a node, and its session.
  struct Side
  {
    Plexa::RemoteNode root;
    std::shared_ptr<PlexaTest::RecordingLink> out = std::make_shared<PlexaTest::RecordingLink>();
    std::shared_ptr<Plexa::BundleController> controller;
    int events = 0;

    explicit Side(const Options& o)
        : root(nullptr, "fuzz")
    {
      root.addDeepAttribute("a", new Carafe::AttributeT<float>(1.5f));
      root.addDeepAttribute("n/b", new Carafe::AttributeT<int>(7));
      root.addDeepAttribute("n/s", new Carafe::AttributeT<QString>(QString("text")));
      root.addDeepAttribute("n/m/v", new Carafe::AttributeT<Quiver::Vector3T<float>>(Quiver::Vector3T<float>()));
      auto* list = new Carafe::AttributeContainer<std::vector<float>>();
      list->setValue({1.0f, 2.0f});
      root.addDeepAttribute("list", list);
      auto* alias = new Carafe::AttributeAlias();
      alias->setAttribute(root.attribute("n"));
      root.addDeepAttribute("al", alias);
      root.eventAddListener("ev", [this](Bastion::BinaryData&) { ++events; });

      Plexa::BundleControllerParams params;
      params.connection = out;
      params.createMissingAttributes = o.createMissing;
      params.dropStaleValues = o.dropStale;
      params.enabled = !o.disabled;
      if (o.caps) {
        params.maxSymbols = 8;
        params.maxSessionAttributes = 8;
        params.maxCreatedNodes = 8;
      }
      controller = Plexa::BundleController::create(root, params);
    }

    /// The application's own changes before list `index`. "n/b" may be the peer's by then (it
    /// can be created by the receiver after a local removal): it goes all the same. The node
    /// may refuse the new attribute, which is then dropped here.
    void changeLocally(size_t index)
    {
      if (auto* a = dynamic_cast<Carafe::AttributeT<float>*>(root.attribute("a")))
        a->setValue(float(index) + 0.5f);
      if (index % 3 != 2)
        return;
      auto* n = dynamic_cast<Carafe::Node*>(root.attribute("n"));
      if (!n)
        return;
      n->removeAttribute("b");
      auto* b = new Carafe::AttributeT<int>(int(index));
      if (!n->addAttribute("b", b))
        delete b;
    }
  };

  std::vector<Plexa::Bundle> cut(const uint8_t* data, size_t size)
  {
    std::vector<Plexa::Bundle> bundles;
    size_t at = 0;
    while (size - at >= Plexa::BundleHeaderSize) {
      Plexa::BundleHeader header;
      std::memcpy(&header, data + at, sizeof(header));
      at += sizeof(header);
      const size_t payload = std::min<size_t>(header.payloadSize, size - at);
      header.payloadSize = uint32_t(payload);
      Plexa::Bundle bundle;
      bundle.setHeader(header);
      bundle.data().append(reinterpret_cast<const char*>(data + at), int(payload));
      at += payload;
      bundles.push_back(bundle);
    }
    return bundles;
  }

  /// Hands `lists` to `to` and runs one update for each.
  void deliver(Side& to, const std::vector<std::vector<Plexa::Bundle>>& lists)
  {
    for (const auto& list : lists) {
      to.controller->scheduleProcess(list);
      Plexa::BundleController::update();
    }
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  // SESSION_FUZZ_LOG=1 keeps the log, to see what an input does.
  static const bool quiet = [] {
    if (!std::getenv("SESSION_FUZZ_LOG"))
      Bastion::setLogHandler([](Bastion::LogLevel, const QByteArray&) {});
    return true;
  }();
  (void)quiet;
  if (size == 0)
    return 0;

  const Options options = optionsFrom(data[0]);
  const std::vector<Plexa::Bundle> bundles = cut(data + 1, size - 1);
  std::vector<std::vector<Plexa::Bundle>> lists;
  const size_t perList = options.perList ? size_t(options.perList) : std::max<size_t>(bundles.size(), 1);
  for (size_t at = 0; at < bundles.size(); at += perList)
    lists.emplace_back(bundles.begin() + long(at), bundles.begin() + long(std::min(bundles.size(), at + perList)));

  {
    Side session(options);
    // The peer keeps the usual options of a mirror: it creates what it is told about, so whatever
    // the session sends (its own announcements, the values it applied) meets a whole session too.
    Options peerOptions;
    peerOptions.createMissing = true;
    Side peer(peerOptions);

    for (size_t i = 0; i < lists.size(); ++i) {
      session.changeLocally(i);
      deliver(session, {lists[i]});
    }
    // One more pass sends what the last list caused.
    Plexa::BundleController::update();
    deliver(peer, session.out->take());
    peer.out->take();
    session.controller.reset();
    peer.controller.reset();
  }
  // The controllers leave the process-wide list at the after-update servicing.
  Carafe::Node::processAfterUpdate();
  return 0;
}
