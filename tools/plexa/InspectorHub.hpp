#pragma once

#include "InspectorBrowser.hpp"

#include <QByteArray>
#include <QJsonValue>
#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace Plexa
{
  namespace Cli
  {
    /// Where the application thread, which owns the tree, and the web server's threads, which
    /// talk to browser pages, meet. The application thread posts the tree's changes, events and
    /// the connection's state and collects the pages' edits; the web threads add and remove pages
    /// and hand over what the pages send. Everything is bounded: one entry per attribute, a
    /// bounded event log, a bounded number of pages and of waiting edits.
    ///
    /// Thread-safe.
    class InspectorHub
    {
    public:
      /// Pages open at once at most: each costs a thread and up to a copy of the tree.
      static constexpr int MaxBrowsers = 8;
      /// Events kept for a page that has not taken them yet, and for a page that opens later: a
      /// peer sending events faster than a page reads them cannot grow memory.
      static constexpr int MaxLoggedEvents = 500;
      /// Bytes of one logged event's decoded items at most: a large payload is logged with its
      /// name and size only, so a peer's 100 MB event does not become 130 MB of text per page.
      static constexpr int MaxLoggedItemBytes = 4096;
      /// Edits from pages that the application thread has not taken yet: a page sending edits in a
      /// loop gets an error instead of growing the queue.
      static constexpr int MaxPendingEdits = 64;
      /// Bytes of one message from a page at most (an edit or a search pattern is far smaller).
      static constexpr int MaxBrowserMessageBytes = 64 * 1024;
      /// A search pattern's length and wildcards at most: each '*' multiplies the work of matching
      /// a path that almost matches, and the matching runs on the application thread.
      static constexpr int MaxSearchPatternChars = 256;
      static constexpr int MaxSearchPatternStars = 8;

      /// A value typed on a page (or a removal asked for), for the application thread to check
      /// and carry out.
      struct Edit
      {
        uint64_t browser = 0;
        QJsonValue id;
        QString path;
        QString text;
        bool remove = false;
      };

      explicit InspectorHub(bool readOnly);
      ~InspectorHub();

      bool readOnly() const { return m_readOnly; }
      /// Called (on a web thread) when an edit is waiting: wakes the application thread.
      void setEditCallback(const std::function<void()>& callback);

      // ---- application thread ----

      /// An attribute's path, type name and value.
      struct Attribute
      {
        QString path;
        QString type;
        QJsonValue value;
      };

      /// The attribute at `path` now has `type` and `value` (added or changed).
      void setAttribute(const QString& path, const QString& type, const QJsonValue& value);
      /// The same for many at once (one lock for all).
      void setAttributes(const std::vector<Attribute>& attributes);
      /// The attribute at `path`, and anything below it, went away.
      void remove(const QString& path);
      /// An event from the peer: its name, payload size, decoded items (`complete`: all of them),
      /// and whether it came in slices.
      void addEvent(const QString& name, int bytes, const QJsonArray& items, bool complete, bool sliced);
      /// The connection's state, as a JSON object.
      void setStatus(const QJsonObject& status);
      /// The edits waiting, oldest first.
      std::vector<Edit> takeEdits();
      /// Answers an edit: `error` empty when the value was set.
      void answer(const Edit& edit, const QString& error);

      // ---- web server threads ----

      /// A new page, sending through `writer` once started (`InspectorBrowser::start`: not before
      /// the page's connection is ready for messages); null when `MaxBrowsers` are open.
      std::shared_ptr<InspectorBrowser> addBrowser(const InspectorBrowser::Writer& writer);
      /// The page is gone: stops its sender and forgets it.
      void removeBrowser(const std::shared_ptr<InspectorBrowser>& browser);
      /// One message from the page. Anything malformed gets an error message back; false when the
      /// page should be disconnected (a message over `MaxBrowserMessageBytes`).
      bool receive(InspectorBrowser& browser, const QByteArray& message);

      /// Attributes and logged events held (for tests and the load report).
      int attributeCount() const;
      int loggedEventCount() const;

    private:
      /// Queues `reply` for `browser`. Under the lock.
      static void queueReply(InspectorBrowser& browser, const QJsonObject& reply);
      /// Sets `browser` up to receive the whole (filtered) tree next. Under the lock.
      void resend(InspectorBrowser& browser);
      /// Wakes every page's sender. Under the lock.
      void wakeAll();

      const bool m_readOnly;
      mutable Bastion::Mutex m_mutex;
      std::function<void()> m_editCallback;
      /// Path -> ["path","type",value] as compact JSON: the whole tree, for new pages.
      std::map<QString, QByteArray> m_tree;
      std::deque<QByteArray> m_events;
      QByteArray m_status;
      std::vector<Edit> m_edits;
      std::vector<std::shared_ptr<InspectorBrowser>> m_browsers;
      uint64_t m_nextBrowserId = 1;
    };
  }
}
