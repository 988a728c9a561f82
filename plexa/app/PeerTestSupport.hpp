#pragma once

// Helpers for the tests of Peer (unit tests here, two-process and randomized tests in tests/).
// Header only; nothing of it goes into the library.

#include "plexa/app/Peer.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/remote/AttributeWalk.hpp"
#include "plexa/types/TypeRegistry.hpp"
#include "plexa/types/TypeSamplesTest.hpp"

#include "carafe/Node.hpp"

#include <QByteArray>
#include <QList>
#include <QString>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <map>
#include <utility>
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
      peer.setConnectionCallback(
          [this](const QString& address, bool connected) { events.push_back((connected ? "+" : "-") + address); });
    }
    std::vector<QString> events;
  };

  /// What a tree holds, comparable between two trees: path -> (type id, encoded value).
  using TreeState = std::map<QByteArray, std::pair<uint32_t, QByteArray>>;

  inline TreeState treeState(Carafe::Node& root)
  {
    const Plexa::TypeRegistry types;
    TreeState state;
    Plexa::walkAttributesWithPath(root, [&](Carafe::Attribute& attribute, const QByteArray& path) {
      uint32_t typeId = 0, size = 0;
      QByteArray bytes;
      Plexa::BundleWriterCore writer(bytes);
      if (Plexa::Serializer serialize = types.createSerializer(&attribute, typeId, size))
        serialize(writer);
      state[path] = {typeId, bytes};
    });
    return state;
  }

  inline Carafe::Attribute* sampleAttribute(uint32_t typeId)
  {
    return Plexa::TypeSamples::sampleAttribute(typeId);
  }

  /// The attribute of class A at `path` (slash-separated) below `root`, or null.
  template <typename A>
  A* attributeAt(Carafe::Node& root, const QByteArray& path)
  {
    Carafe::Node* node = &root;
    const QList<QByteArray> parts = path.split('/');
    for (int i = 0; i + 1 < parts.size() && node; ++i)
      node = dynamic_cast<Carafe::Node*>(node->attribute(parts[i]));
    return node ? dynamic_cast<A*>(node->attribute(parts.last())) : nullptr;
  }
}
