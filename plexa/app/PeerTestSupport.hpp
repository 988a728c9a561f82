#pragma once

// Helpers for the tests of Peer (unit tests here, two-process and randomized tests in tests/).
// Header only; nothing of it goes into the library.

#include "plexa/app/Peer.hpp"

#include <QString>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <vector>

namespace PlexaTest
{
  /// Drives `peers` from this thread (each waits at most `sliceMs` per turn, returning early when
  /// it has work) until `done` holds or `timeoutMs` passed. True when `done` held.
  inline bool pumpUntil(std::initializer_list<Plexa::Peer*> peers, const std::function<bool()>& done,
                        int timeoutMs = 10000, int sliceMs = 2)
  {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    const std::vector<Plexa::Peer*> list(peers);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      for (Plexa::Peer* peer : list)
        peer->waitAndUpdate(sliceMs);
    }
    return true;
  }

  /// Records a peer's connection callbacks as "+address" and "-address".
  struct ConnectionLog
  {
    explicit ConnectionLog(Plexa::Peer& peer)
    {
      peer.setConnectionCallback([this](const QString& address, bool connected) {
        events.push_back((connected ? "+" : "-") + address);
      });
    }
    std::vector<QString> events;
  };
}
