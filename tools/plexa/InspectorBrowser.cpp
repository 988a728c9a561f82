#include "InspectorBrowser.hpp"

#include "bastion/Guard.hpp"

#include <QElapsedTimer>

namespace Plexa
{
  namespace Cli
  {
    InspectorBrowser::InspectorBrowser(uint64_t id, Bastion::Mutex& mutex, const Writer& writer)
        : id(id)
        , m_mutex(mutex)
        , m_writer(writer)
    {
    }

    InspectorBrowser::~InspectorBrowser()
    {
      stop();
    }

    void InspectorBrowser::start()
    {
      m_thread = std::thread([this] { run(); });
    }

    void InspectorBrowser::stop()
    {
      {
        Bastion::Guard lock(m_mutex);
        m_stopping = true;
      }
      wake.wakeAll();
      if (m_thread.joinable())
        m_thread.join();
    }

    void InspectorBrowser::setFilter(const QRegularExpression& pattern, bool filtered)
    {
      m_filter = pattern;
      m_filtered = filtered;
      m_shown.clear();
    }

    bool InspectorBrowser::shows(const QString& path)
    {
      if (!m_filtered)
        return true;
      const auto known = m_shown.find(path);
      if (known != m_shown.end())
        return known->second;
      const bool match = m_filter.match(path).hasMatch();
      m_shown.emplace(path, match);
      return match;
    }

    void InspectorBrowser::run()
    {
      Bastion::Guard lock(m_mutex);
      for (;;) {
        while (!(m_stopping || !replies.empty() ||
                 (!waitingForAck && (snapshot || !changes.empty() || !events.empty() || !status.isEmpty()))))
          wake.wait(m_mutex);
        if (m_stopping)
          return;
        const Message message = takeMessage();
        lock.unlock();
        const bool written = m_writer(message.text());
        lock.relock();
        if (!written)
          return;
      }
    }

    InspectorBrowser::Message InspectorBrowser::takeMessage()
    {
      Message m;
      if (!replies.empty()) {
        m.reply = replies.front();
        replies.pop_front();
        return m;
      }
      m.changes.swap(changes);
      m.events.swap(events);
      m.droppedEvents = droppedEvents;
      m.status.swap(status);
      m.snapshot = snapshot;
      droppedEvents = 0;
      snapshot = false;
      waitingForAck = true;
      return m;
    }

    QByteArray InspectorBrowser::Message::text() const
    {
      if (!reply.isEmpty())
        return reply;
      // Seconds since the first batch of the process: the page's time axis.
      static const QElapsedTimer clock = [] {
        QElapsedTimer c;
        c.start();
        return c;
      }();
      QByteArray set, removed, logged;
      for (const auto& change : changes) {
        QByteArray& list = change.second.startsWith('"') ? removed : set;
        if (!list.isEmpty())
          list += ',';
        list += change.second;
      }
      for (const QByteArray& event : events) {
        if (!logged.isEmpty())
          logged += ',';
        logged += event;
      }
      QByteArray message = QByteArray("{\"op\":\"batch\",\"snapshot\":") + (snapshot ? "true" : "false") +
                           ",\"t\":" + QByteArray::number(double(clock.nsecsElapsed()) / 1e9, 'f', 4) + ",\"set\":[" +
                           set + "],\"del\":[" + removed + "],\"events\":[" + logged +
                           "],\"droppedEvents\":" + QByteArray::number(droppedEvents);
      if (!status.isEmpty())
        message += ",\"status\":" + status;
      return message + '}';
    }
  }
}
