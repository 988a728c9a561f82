// A peer in a process of its own, for the two-process tests (PeerProcessTest.cpp): a remote node
// kept in sync by a Peer, driven by commands on standard input.
//
// Usage: plexa_peer_process listen <port> | connect <port>
// Prints "listening <port>" (or "connecting <port>") first, then one answer per query and one
// line per watched event, and ends when its input closes or says "quit". Commands:
//   set <path> int|float|text <value>   creates the attribute (and its nodes) or changes it
//   remove <path>                       removes the attribute or node at path
//   event <name> <text>                 sends an event whose payload is the string <text>
//   slice <name> <bytes> <sliceSize>    sends a sliced event of a blob of <bytes> pattern bytes
//   watch <name>                        prints "event <name> <md5 of payload>" for each arrival
//   get <path>                          prints "value <path> <text of the value>" or "value <path> -"
//   state                               prints "state <sessions> <initialized sessions>
//                                       <initialized events> <attributes> <md5 of the tree>"

#include "bastion/BinaryData.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/app/Peer.hpp"
#include "plexa/app/PeerTestSupport.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QCryptographicHash>
#include <QStringList>

#include <atomic>
#include <cstdio>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace
{
  void say(const QByteArray& line)
  {
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }

  QByteArray md5Hex(const QByteArray& bytes)
  {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
  }

  QByteArray treeDigest(const PlexaTest::TreeState& state)
  {
    QCryptographicHash hash(QCryptographicHash::Md5);
    for (const auto& entry : state) {
      hash.addData(entry.first + '\0' + QByteArray::number(entry.second.first) + '\0');
      hash.addData(entry.second.second.toHex() + '\n');
    }
    return hash.result().toHex();
  }

  template <typename A, typename V>
  void setValue(Plexa::RemoteNode& root, const QByteArray& path, const V& value)
  {
    if (A* attribute = PlexaTest::attributeAt<A>(root, path)) {
      attribute->setValue(value);
      return;
    }
    auto* attribute = new A(value);
    if (!root.addDeepAttribute(path, attribute))
      delete attribute;
  }

  /// Lines from standard input, read on a thread of their own; the peer is woken for each. The
  /// thread may outlive the reader (blocked in a read after "quit"): it only touches the shared
  /// state, and the peer only while the reader lives.
  class InputReader
  {
  public:
    explicit InputReader(Plexa::Peer& peer) : m_state(std::make_shared<State>())
    {
      m_state->peer = &peer;
      std::thread([state = m_state] {
        std::string line;
        while (std::getline(std::cin, line))
          state->push(QByteArray::fromStdString(line));
        state->push("quit");
      }).detach();
    }
    ~InputReader()
    {
      std::lock_guard<std::mutex> lock(m_state->mutex);
      m_state->peer = nullptr;
    }

    bool take(QByteArray& line)
    {
      std::lock_guard<std::mutex> lock(m_state->mutex);
      if (m_state->lines.empty())
        return false;
      line = m_state->lines.front();
      m_state->lines.pop_front();
      return true;
    }

  private:
    struct State
    {
      void push(const QByteArray& line)
      {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
        if (peer)
          peer->wake();
      }

      std::mutex mutex;
      std::deque<QByteArray> lines;
      Plexa::Peer* peer = nullptr;
    };

    std::shared_ptr<State> m_state;
  };

  class Program
  {
  public:
    Program(Plexa::RemoteNode& node, Plexa::Peer& peer) : m_node(node), m_peer(peer)
    {
      m_node.eventAddListener("initialized", [this](Bastion::BinaryData&) { ++m_initializedEvents; });
    }

    /// Runs one command; false for "quit".
    bool run(const QByteArray& line)
    {
      const QList<QByteArray> words = line.split(' ');
      const QByteArray& command = words[0];
      if (command == "quit")
        return false;
      if (command == "set" && words.size() >= 4)
        set(words[1], words[2], line.mid(words[0].size() + words[1].size() + words[2].size() + 3));
      else if (command == "remove" && words.size() == 2)
        remove(words[1]);
      else if (command == "event" && words.size() >= 2) {
        Bastion::BinaryData payload;
        payload.writeString(QString::fromUtf8(line.mid(words[0].size() + words[1].size() + 2)));
        m_node.eventProcess(words[1], payload);
      } else if (command == "slice" && words.size() == 4) {
        Bastion::BinaryData payload;
        payload.writeBlob(patternBytes(words[2].toInt()));
        m_node.eventProcessSlice(words[1], payload, words[3].toULong());
      } else if (command == "watch" && words.size() == 2) {
        const QByteArray name = words[1];
        m_node.eventAddListener(name, [name](Bastion::BinaryData& data) {
          say("event " + name + ' ' + md5Hex(data.toByteArray()));
        });
      } else if (command == "get" && words.size() == 2) {
        Carafe::Attribute* attribute = PlexaTest::attributeAt<Carafe::Attribute>(m_node, words[1]);
        say("value " + words[1] + ' ' + (attribute ? attribute->asText().toUtf8() : QByteArray("-")));
      } else if (command == "state") {
        const PlexaTest::TreeState state = PlexaTest::treeState(m_node);
        say("state " + QByteArray::number(m_peer.sessionCount()) + ' ' +
            QByteArray::number(m_peer.initializedSessionCount()) + ' ' + QByteArray::number(m_initializedEvents.load()) +
            ' ' + QByteArray::number(int(state.size())) + ' ' + treeDigest(state));
      } else {
        say("unknown " + line);
      }
      return true;
    }

    /// The bytes of a "slice" command's payload; the test computes the same.
    static QByteArray patternBytes(int size)
    {
      QByteArray bytes(size, '\0');
      for (int i = 0; i < size; ++i)
        bytes[i] = char(i * 13 + i / 251);
      return bytes;
    }

  private:
    void set(const QByteArray& path, const QByteArray& type, const QByteArray& value)
    {
      if (type == "int")
        setValue<Carafe::AttributeT<int>>(m_node, path, value.toInt());
      else if (type == "float")
        setValue<Carafe::AttributeT<float>>(m_node, path, value.toFloat());
      else
        setValue<Carafe::AttributeT<QString>>(m_node, path, QString::fromUtf8(value));
    }

    void remove(const QByteArray& path)
    {
      const int slash = path.lastIndexOf('/');
      Carafe::Node* host = slash < 0 ? &m_node : PlexaTest::attributeAt<Carafe::Node>(m_node, path.left(slash));
      if (host)
        host->removeAttribute(slash < 0 ? path : path.mid(slash + 1));
    }

    Plexa::RemoteNode& m_node;
    Plexa::Peer& m_peer;
    std::atomic<int> m_initializedEvents{0};
  };
}

int main(int argc, char** argv)
{
  if (argc != 3 || (std::string(argv[1]) != "listen" && std::string(argv[1]) != "connect")) {
    std::fprintf(stderr, "usage: %s listen|connect <port>\n", argv[0]);
    return 2;
  }
  const bool listening = std::string(argv[1]) == "listen";
  const int port = std::atoi(argv[2]);
  Plexa::RemoteNode node(nullptr, "scene");
  Plexa::Peer peer(node);
  Program program(node, peer);
  if (listening) {
    QString error;
    if (!peer.listen("127.0.0.1", port, &error)) {
      say("failed " + error.toUtf8());
      return 1;
    }
    say("listening " + QByteArray::number(peer.listeningPort()));
  } else {
    peer.connectTo("127.0.0.1", port);
    say("connecting " + QByteArray::number(port));
  }
  InputReader input(peer);
  for (;;) {
    peer.waitAndUpdate(100);
    QByteArray line;
    while (input.take(line))
      if (!program.run(line))
        return 0;
  }
}
