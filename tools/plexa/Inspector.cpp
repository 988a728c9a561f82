#include "Inspector.hpp"

#include "AttributeEdit.hpp"
#include "AttributeJson.hpp"
#include "InspectorHub.hpp"
#include "MirrorNode.hpp"
#include "SyncEvents.hpp"
#include "TreePath.hpp"
#include "WatchFormat.hpp"

#include "plexa/app/Peer.hpp"

#include <QJsonObject>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// Milliseconds between two reports of the connection's state and rates.
      constexpr int StatusIntervalMs = 1000;
    }

    Inspector::Inspector(MirrorNode& tree, Peer& peer, InspectorHub& hub, Role role, const QString& address)
        : m_tree(tree)
        , m_peer(peer)
        , m_hub(hub)
        , m_role(role)
        , m_address(address)
    {
      TreePath::walk(tree, [this](const Carafe::Attribute& attribute, const QString& path) {
        m_hub.setAttribute(path, AttributeJson::typeName(attribute), AttributeJson::value(attribute));
      });
      m_listener =
          tree.addAttributeChangeListener([this](const NodeWatcher::Event& e) { m_dirty[e.symbol] = int(e.type); });
      tree.setRemoteEventCallback([this](const QByteArray& name, const Bastion::BinaryData& data) {
        // plexa set's requests and their answers are no news to a person.
        if (name == SyncEvents::Reply || name == SyncEvents::Request)
          return;
        const WatchEvent event = WatchFormat::remoteEvent(name, data);
        m_hub.addEvent(event.name, event.payloadBytes, event.items, event.payloadComplete,
                       m_tree.handlingSlicedEvent());
      });
      m_statusClock.start();
      m_lastRx = m_peer.rxBytes();
      m_lastTx = m_peer.txBytes();
      postStatus();
    }

    Inspector::~Inspector()
    {
      m_tree.removeAttributeChangeListener(m_listener);
      m_tree.setRemoteEventCallback(MirrorNode::RemoteEventCallback());
    }

    void Inspector::update()
    {
      applyEdits();
      // Removals first: a node removed and an attribute added below its path again in the same
      // update ends up present.
      std::vector<InspectorHub::Attribute> present;
      for (const auto& entry : m_dirty) {
        QByteArray path;
        if (!m_tree.symbolRegistry().lookup(entry.first, path))
          continue;
        const QString text = QString::fromUtf8(path);
        const Carafe::Attribute* attribute = m_tree.attributeCache().find(entry.first);
        const auto type = NodeWatcher::EventType(entry.second);
        if (type == NodeWatcher::AttributeRemoved || type == NodeWatcher::NodeRemoved || !attribute)
          m_hub.remove(text);
        else if (type != NodeWatcher::NodeAdded)
          present.push_back({text, AttributeJson::typeName(*attribute), AttributeJson::value(*attribute)});
      }
      m_dirty.clear();
      if (!present.empty())
        m_hub.setAttributes(present);
      if (m_statusClock.elapsed() >= StatusIntervalMs)
        postStatus();
    }

    void Inspector::postStatus()
    {
      const double seconds = qMax<qint64>(1, m_statusClock.restart()) / 1000.0;
      const uint64_t rx = m_peer.rxBytes();
      const uint64_t tx = m_peer.txBytes();
      const int sessions = m_peer.sessionCount();
      QString state;
      if (m_role == Server)
        state = sessions > 0 ? "serving" : "waiting for peers";
      else
        state = m_peer.initializedSessionCount() > 0 ? "connected" : (sessions > 0 ? "connecting" : "reconnecting");
      m_hub.setStatus({{"state", state},
                       {"role", m_role == Server ? "serve" : "inspect"},
                       {"address", m_address},
                       {"sessions", sessions},
                       {"rxBytesPerSecond", double(rx - m_lastRx) / seconds},
                       {"txBytesPerSecond", double(tx - m_lastTx) / seconds}});
      m_lastRx = rx;
      m_lastTx = tx;
    }

    void Inspector::applyEdits()
    {
      for (const InspectorHub::Edit& edit : m_hub.takeEdits()) {
        Assignment assignment;
        assignment.path = edit.path.toUtf8();
        while (assignment.path.startsWith('/'))
          assignment.path.remove(0, 1);
        assignment.text = edit.text;
        QString error;
        // The page edits what it shows; a path gone meanwhile is not created anew.
        Carafe::Attribute* present = assignment.path.isEmpty() ? nullptr : TreePath::find(m_tree, assignment.path);
        AttributeEdit change;
        if (!present)
          error = QString("%1: no such attribute (removed meanwhile?)").arg(edit.path);
        else if (edit.remove && m_role != Server)
          error = QString("%1: only the peer that serves it can remove it (a mirror's removal does not reach the "
                          "peer)")
                      .arg(edit.path);
        else if (edit.remove)
          present->host()->removeAttribute(present->name());
        else if (change.check(m_tree, assignment, &error))
          change.apply(m_tree, &error);
        m_hub.answer(edit, error);
      }
    }
  }
}
