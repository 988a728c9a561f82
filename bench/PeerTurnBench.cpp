// The cost of one turn of a Peer's update loop against the number of other Peers, all idle, in the
// same process: a server and n clients over 127.0.0.1, each client mirroring a small tree, and the
// time of one client's `update()` while nothing changes anywhere. A turn should cost what that
// Peer's own sessions need, whatever the others in the process hold.

#include "BenchReport.hpp"

#include "carafe/AttributeT.hpp"
#include "plexa/app/Peer.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QCoreApplication>

#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

namespace
{
  using Clock = std::chrono::steady_clock;
  using Int = Carafe::AttributeT<int>;

  constexpr int Attributes = 10;
  constexpr int TurnsPerRun = 2000;

  struct Member
  {
    explicit Member(const Plexa::PeerOptions& options = Plexa::PeerOptions())
        : peer(node, options)
    {
    }
    Plexa::RemoteNode node{nullptr, "bench"};
    Plexa::Peer peer;
  };

  /// Pumps the server and every client until each client mirrors the tree; false after 60 s.
  bool mirrorAll(Member& server, std::vector<std::unique_ptr<Member>>& clients)
  {
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    auto mirrored = [&] {
      for (auto& c : clients)
        if (c->peer.initializedSessionCount() != 1 || !c->node.attribute("v" + QByteArray::number(Attributes - 1)))
          return false;
      return server.peer.initializedSessionCount() == int(clients.size());
    };
    while (!mirrored()) {
      if (Clock::now() > deadline)
        return false;
      server.peer.waitAndUpdate(2);
      for (auto& c : clients)
        c->peer.waitAndUpdate(0);
    }
    return true;
  }

  /// Microseconds per `update()` of the first client, over `TurnsPerRun` turns.
  double turnMicroseconds(Member& client)
  {
    const auto start = Clock::now();
    for (int i = 0; i < TurnsPerRun; ++i)
      client.peer.update();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / TurnsPerRun;
  }
}

int main(int argc, char** argv)
{
  QCoreApplication app(argc, argv);
  Plexa::PeerOptions options;
  options.maxConnections = 128;
  Member server(options);
  for (int i = 0; i < Attributes; ++i)
    server.node.addAttribute("v" + QByteArray::number(i), new Int(i));
  if (!server.peer.listen("127.0.0.1", 0)) {
    std::fprintf(stderr, "PeerTurnBench: cannot listen\n");
    return 1;
  }
  std::vector<std::unique_ptr<Member>> clients;
  std::vector<std::pair<int, BenchReport::Stats>> figures;
  std::printf("PeerTurnBench: one client's update() while the server and the other clients idle, all in this "
              "process; load average %s\n%-10s %14s   %s\n",
              BenchReport::loadAverage().c_str(), "clients", "us per turn", "spread");
  for (const int count : {1, 16, 64}) {
    while (int(clients.size()) < count) {
      clients.push_back(std::make_unique<Member>());
      clients.back()->peer.connectTo("127.0.0.1", server.peer.listeningPort());
    }
    if (!mirrorAll(server, clients)) {
      std::fprintf(stderr, "PeerTurnBench: %d clients did not mirror the tree within 60 s\n", count);
      return 1;
    }
    std::vector<double> runs;
    for (int r = 0; r < BenchReport::runs(); ++r)
      runs.push_back(turnMicroseconds(*clients.front()));
    const BenchReport::Stats stats = BenchReport::stats(runs);
    std::printf("%-10d %14.2f   %s\n", count, stats.median, BenchReport::spread(stats, "%.2f").c_str());
    figures.emplace_back(count, stats);
  }

  const BenchReport::Stats& one = figures.front().second;
  const BenchReport::Stats& many = figures.back().second;
  const double ratio = many.median / one.median;
  BenchReport::Row row;
  row.what = "Peer turn, 63 idle Peers beside it (us)";
  row.figure = BenchReport::number(many.median, "%.2f");
  row.baselineName = "alone";
  row.baseline = BenchReport::number(one.median, "%.2f");
  row.ratio = BenchReport::number(ratio, "%.2fx");
  row.target = "<= 4x alone";
  row.met = ratio <= 4.0;
  row.spread = BenchReport::spread(many, "%.2f");
  BenchReport::add(row);
  std::printf("64 clients against 1: %.2fx (target <= 4x)\n", ratio);
  return 0;
}
