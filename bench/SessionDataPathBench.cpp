// The session data path in one process: two remote node trees, each with its own session core, the
// send pass of one handed to the other as its received list (what the connection threads do,
// without the sockets). Side A holds 10,000 float attributes that B mirrors (created on B by the
// new attribute receiver); then every attribute of A changes, round after round, and each round
// goes through A's watcher and change sender, the bundles, and B's receivers into B's tree. The
// baseline is the same values set directly on B's attributes, in the same run.
//
// A second pass over the same rounds times the parts of the path one by one (A's sets, A's node
// update, A's send pass, B's own outgoing work, B's dispatch), to show where the time goes.
//
// The program fails (exit 1) when B does not end up with A's values or sends values back.
//
// Usage: SessionDataPathBench [rounds]   (default 200 rounds of 10,000 values)

#include "bastion/Log.hpp"
#include "plexa/bundle/Connection.hpp"
#include "plexa/bundle/Plexa1Connection.hpp"
#include "plexa/controller/Core.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/session/SessionFormat.hpp"
#include "plexa/types/CarafeAttributes.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

namespace
{
  using Float = Carafe::AttributeT<float>;

  constexpr int Groups = 100;   // nodes under the root
  constexpr int PerGroup = 100; // float attributes in each of them
  constexpr int Count = Groups * PerGroup;

  // CPU time of this thread: the machine is shared, and other processes should not count. The
  // whole path runs on this one thread.
  double cpuSeconds()
  {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  }

  /// The value attribute `index` gets in `round`: exact in a float, and different from the
  /// previous round's, so that every set is a change.
  float valueFor(int round, int index)
  {
    return float(round * 10007 + index);
  }

  /// A session's outgoing side that keeps each send pass for the benchmark to hand over.
  class Capture : public Plexa::Connection
  {
  public:
    void send(const std::vector<Plexa::Bundle>& bundles) override
    {
      pending.insert(pending.end(), bundles.begin(), bundles.end());
    }
    std::vector<Plexa::Bundle> take()
    {
      std::vector<Plexa::Bundle> bundles;
      bundles.swap(pending);
      return bundles;
    }
    std::vector<Plexa::Bundle> pending;
  };

  /// One end: the tree, where its passes go, and its session core (declared last, so destroyed
  /// before the tree it listens to).
  struct Side
  {
    explicit Side(const char* name)
        : node(nullptr, name)
        , out(std::make_shared<Capture>())
    {
      Plexa::BundleControllerParams params;
      params.connection = out;
      params.createMissingAttributes = true;
      core = std::make_unique<Plexa::Core>(node, params);
      core->ensureIsInitialized();
    }
    Plexa::RemoteNode node;
    std::shared_ptr<Capture> out;
    std::unique_ptr<Plexa::Core> core;
  };

  /// Bytes of the block a connection would write for `bundles` (count line and bundles).
  long long wireBytes(const std::vector<Plexa::Bundle>& bundles)
  {
    long long bytes = 0;
    for (const QByteArray& part : Plexa::Plexa1Connection::blockParts(bundles))
      bytes += part.size();
    return bytes;
  }

  /// B's update bundles with at least one record: values going back to A.
  int echoedUpdates(const Side& b, const std::vector<Plexa::Bundle>& bundles)
  {
    const auto type = b.core->outgoingTypes().find(Plexa::ModuleNames::AttributeUpdate);
    if (type == b.core->outgoingTypes().end())
      return 0;
    int echoed = 0;
    for (const Plexa::Bundle& bundle : bundles)
      echoed += bundle.header().messageType == type->second && bundle.header().payloadSize > 0 ? 1 : 0;
    return echoed;
  }

  /// Puts `Groups` nodes "g<n>" of `PerGroup` floats "v<n>" under `root`; the attributes in order.
  std::vector<Float*> fillTree(Carafe::Node& root)
  {
    std::vector<Float*> attributes;
    for (int g = 0; g < Groups; ++g) {
      auto* group = new Carafe::Node(&root, "g" + QByteArray::number(g));
      for (int i = 0; i < PerGroup; ++i) {
        auto* attribute = new Float;
        group->addAttribute("v" + QByteArray::number(i), attribute);
        attributes.push_back(attribute);
      }
    }
    return attributes;
  }

  /// The attribute `index` of a tree that `fillTree` made ("g<group>/v<n>"), or null.
  Float* floatAt(Plexa::RemoteNode& node, int index)
  {
    auto* group = dynamic_cast<Carafe::Node*>(node.attribute("g" + QByteArray::number(index / PerGroup)));
    return group ? dynamic_cast<Float*>(group->attribute("v" + QByteArray::number(index % PerGroup))) : nullptr;
  }

  /// Index of the first attribute of B that does not hold A's value for `round`, or -1.
  int firstMismatch(const std::vector<Float*>& b, int round)
  {
    for (int i = 0; i < Count; ++i) {
      if (b[i]->value() != valueFor(round, i))
        return i;
    }
    return -1;
  }

  struct PathTimes
  {
    double set = 0, send = 0, receive = 0;
    long long bytes = 0;
    long long bundles = 0;
    int echoed = 0;
    double total() const { return set + send + receive; }
  };

  struct PartTimes
  {
    double set = 0, nodeUpdate = 0, sendPass = 0, peerOutgoing = 0, dispatch = 0;
    double total() const { return set + nodeUpdate + sendPass + peerOutgoing + dispatch; }
  };

  void setAll(const std::vector<Float*>& attributes, int round, int layer)
  {
    for (int i = 0; i < Count; ++i)
      attributes[i]->setValue(valueFor(round, i), layer);
  }

  /// Rounds [first, first + rounds) through the session entry points: A's sets, A's outgoing work
  /// (`sendUpdates`: node update, send pass, connection), B's handling of the list (`process`:
  /// B's own outgoing work, then the dispatch). What B sends goes to A untimed.
  PathTimes runPath(Side& a, Side& b, const std::vector<Float*>& attributes, int first, int rounds)
  {
    PathTimes t;
    for (int r = first; r < first + rounds; ++r) {
      double t0 = cpuSeconds();
      setAll(attributes, r, Carafe::Attribute::LayerApplication);
      double t1 = cpuSeconds();
      a.core->sendUpdates();
      const std::vector<Plexa::Bundle> bundles = a.out->take();
      double t2 = cpuSeconds();
      b.core->process(bundles);
      double t3 = cpuSeconds();
      t.set += t1 - t0;
      t.send += t2 - t1;
      t.receive += t3 - t2;
      t.bytes += wireBytes(bundles);
      t.bundles += static_cast<long long>(bundles.size());
      const std::vector<Plexa::Bundle> back = b.out->take();
      t.echoed += echoedUpdates(b, back);
      a.core->process(back);
    }
    // B's node update for the last round's values, which the next list would have started with.
    const double t0 = cpuSeconds();
    b.core->sendUpdates();
    t.receive += cpuSeconds() - t0;
    t.echoed += echoedUpdates(b, b.out->take());
    return t;
  }

  /// The same rounds with every part timed on its own, through the calls the entry points make.
  PartTimes runParts(Side& a, Side& b, const std::vector<Float*>& attributes, int first, int rounds, int& echoed)
  {
    PartTimes t;
    for (int r = first; r < first + rounds; ++r) {
      double t0 = cpuSeconds();
      setAll(attributes, r, Carafe::Attribute::LayerApplication);
      double t1 = cpuSeconds();
      a.node.update();
      double t2 = cpuSeconds();
      const std::vector<Plexa::Bundle> bundles = a.core->collect();
      double t3 = cpuSeconds();
      b.core->sendUpdates();
      double t4 = cpuSeconds();
      for (const Plexa::Bundle& bundle : bundles)
        b.core->dispatchBundle(bundle);
      double t5 = cpuSeconds();
      t.set += t1 - t0;
      t.nodeUpdate += t2 - t1;
      t.sendPass += t3 - t2;
      t.peerOutgoing += t4 - t3;
      t.dispatch += t5 - t4;
      echoed += echoedUpdates(b, b.out->take());
    }
    const double t0 = cpuSeconds();
    b.core->sendUpdates();
    t.peerOutgoing += cpuSeconds() - t0;
    echoed += echoedUpdates(b, b.out->take());
    return t;
  }

  int fail(const char* what)
  {
    std::printf("  ERROR: %s\n", what);
    return 1;
  }
}

int main(int argc, char** argv)
{
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;

  Side a("a");
  Side b("b");
  const std::vector<Float*> onA = fillTree(a.node);

  // The session starts: A announces its tree, B creates it; both hear the other's "initialized".
  // A few exchanges settle the handshake; the first carries the whole tree.
  const double syncStart = cpuSeconds();
  long long syncBytes = 0;
  for (int i = 0; i < 10; ++i) {
    a.core->sendUpdates();
    const std::vector<Plexa::Bundle> toB = a.out->take();
    syncBytes += wireBytes(toB);
    b.core->process(toB);
    b.core->sendUpdates();
    a.core->process(b.out->take());
    if (a.out->pending.empty() && a.core->peerInitializedCount() > 0 && b.core->peerInitializedCount() > 0)
      break;
  }
  const double syncSeconds = cpuSeconds() - syncStart;

  std::vector<Float*> onB;
  for (int i = 0; i < Count; ++i) {
    Float* attribute = floatAt(b.node, i);
    if (!attribute)
      return fail("B did not create A's attributes");
    onB.push_back(attribute);
  }
  if (a.core->peerInitializedCount() == 0 || b.core->peerInitializedCount() == 0)
    return fail("the sessions did not both start");

  // Warm-up round, then the measured path; B must then hold A's last values.
  runPath(a, b, onA, 0, 1);
  const PathTimes path = runPath(a, b, onA, 1, rounds);
  const int lastRound = rounds;
  if (const int bad = firstMismatch(onB, lastRound); bad >= 0) {
    std::printf("  ERROR: attribute %d on B holds %g, A sent %g\n", bad, double(onB[bad]->value()),
                double(valueFor(lastRound, bad)));
    return 1;
  }

  // The parts, over as many rounds again.
  int partEchoes = 0;
  const PartTimes parts = runParts(a, b, onA, lastRound + 1, rounds, partEchoes);
  if (const int bad = firstMismatch(onB, 2 * rounds); bad >= 0) {
    std::printf("  ERROR: attribute %d on B holds %g after the timed parts, A sent %g\n", bad,
                double(onB[bad]->value()), double(valueFor(2 * rounds, bad)));
    return 1;
  }

  // The baseline: the same values set directly on B's attributes, on the layer the receiver
  // writes. B's tree is watched and published like A's, so each set is also heard by B's watcher
  // and change sender: what a local set on a mirrored tree costs.
  double direct = 0;
  for (int r = 1; r <= rounds; ++r) {
    const double t0 = cpuSeconds();
    setAll(onB, r, Carafe::Attribute::LayerReceived);
    direct += cpuSeconds() - t0;
  }
  if (firstMismatch(onB, rounds) >= 0)
    return fail("the direct sets did not reach B's attributes");

  // A plain tree of the same shape nobody watches: the cost of the set itself.
  Carafe::Node plain;
  const std::vector<Float*> onPlain = fillTree(plain);
  double bare = 0;
  for (int r = 1; r <= rounds; ++r) {
    const double t0 = cpuSeconds();
    setAll(onPlain, r, Carafe::Attribute::LayerReceived);
    bare += cpuSeconds() - t0;
  }

  const double values = double(rounds) * Count;
  const auto perSecond = [&](double seconds) { return values / seconds; };
  const auto ns = [&](double seconds) { return seconds * 1e9 / values; };
  std::printf("Session data path, %d float attributes, %d rounds (%.0f values), thread CPU time\n", Count, rounds,
              values);
  std::printf("  session start (10,000 attributes announced and created on B): %.1f ms, %lld bytes\n",
              syncSeconds * 1e3, syncBytes);
  std::printf("  %-44s %14s %10s\n", "", "values/s", "ns/value");
  std::printf("  %-44s %14.0f %10.1f\n", "A -> bundles -> B (whole path)", perSecond(path.total()), ns(path.total()));
  std::printf("  %-44s %14s %10.1f\n", "  A: attribute sets", "", ns(path.set));
  std::printf("  %-44s %14s %10.1f\n", "  A: sendUpdates (node update, send pass)", "", ns(path.send));
  std::printf("  %-44s %14s %10.1f\n", "  B: process (own update, dispatch, apply)", "", ns(path.receive));
  std::printf("  %-44s %14.0f %10.1f\n", "direct sets on B (watched, published)", perSecond(direct), ns(direct));
  std::printf("  %-44s %14.0f %10.1f\n", "direct sets on an unwatched tree", perSecond(bare), ns(bare));
  std::printf("  ratio path / direct set on B:     %8.2f\n", path.total() / direct);
  std::printf("  ratio path / unwatched set:       %8.2f\n", path.total() / bare);
  std::printf("  wire: %.2f bytes per value (%lld bytes in %lld bundles, block lines included)\n",
              double(path.bytes) / values, path.bytes, path.bundles);
  std::printf("  parts, timed one by one over %d more rounds (ns per value):\n", rounds);
  std::printf("    A: attribute sets (watcher, change sender queue) %8.1f\n", ns(parts.set));
  std::printf("    A: node update                                    %8.1f\n", ns(parts.nodeUpdate));
  std::printf("    A: send pass (compress, symbols, records)         %8.1f\n", ns(parts.sendPass));
  std::printf("    B: own outgoing work (node update, empty pass)    %8.1f\n", ns(parts.peerOutgoing));
  std::printf("    B: dispatch and apply                             %8.1f\n", ns(parts.dispatch));
  std::printf("    total                                             %8.1f\n", ns(parts.total()));
  if (path.echoed + partEchoes > 0) {
    std::printf("  ERROR: B sent %d update bundles back to A\n", path.echoed + partEchoes);
    return 1;
  }
  return 0;
}
