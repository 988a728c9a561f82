#include "InspectorHub.hpp"

#include "bastion/Guard.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      QByteArray compact(const QJsonArray& array)
      {
        return QJsonDocument(array).toJson(QJsonDocument::Compact);
      }

      QByteArray compact(const QJsonObject& object)
      {
        return QJsonDocument(object).toJson(QJsonDocument::Compact);
      }

      /// The path as a JSON string: how a removal is queued.
      QByteArray removal(const QString& path)
      {
        const QByteArray array = compact(QJsonArray{path});
        return array.mid(1, array.size() - 2);
      }

      bool isBelow(const QString& path, const QString& node)
      {
        return path.size() > node.size() && path.startsWith(node) && path.at(node.size()) == '/';
      }
    }

    InspectorHub::InspectorHub(bool readOnly)
        : m_readOnly(readOnly)
    {
    }

    InspectorHub::~InspectorHub()
    {
      std::vector<std::shared_ptr<InspectorBrowser>> browsers;
      {
        Bastion::Guard lock(m_mutex);
        browsers.swap(m_browsers);
      }
      for (const auto& browser : browsers)
        browser->stop();
    }

    void InspectorHub::setEditCallback(const std::function<void()>& callback)
    {
      Bastion::Guard lock(m_mutex);
      m_editCallback = callback;
    }

    void InspectorHub::setAttribute(const QString& path, const QString& type, const QJsonValue& value)
    {
      setAttributes({{path, type, value}});
    }

    void InspectorHub::setAttributes(const std::vector<Attribute>& attributes)
    {
      std::vector<QByteArray> items;
      items.reserve(attributes.size());
      for (const Attribute& a : attributes)
        items.push_back(compact(QJsonArray{a.path, a.type, a.value}));
      Bastion::Guard lock(m_mutex);
      for (size_t i = 0; i < attributes.size(); ++i) {
        const QString& path = attributes[i].path;
        m_tree[path] = items[i];
        for (const auto& browser : m_browsers) {
          if (browser->shows(path))
            browser->changes[path] = items[i];
        }
      }
      wakeAll();
    }

    void InspectorHub::remove(const QString& path)
    {
      Bastion::Guard lock(m_mutex);
      // The attribute itself, then everything below it when it was a node.
      std::vector<QString> gone;
      const auto exact = m_tree.find(path);
      if (exact != m_tree.end())
        gone.push_back(path);
      auto below = m_tree.lower_bound(path + '/');
      while (below != m_tree.end() && isBelow(below->first, path))
        gone.push_back((below++)->first);
      for (const QString& p : gone) {
        m_tree.erase(p);
        for (const auto& browser : m_browsers) {
          if (browser->shows(p))
            browser->changes[p] = removal(p);
          browser->forget(p);
        }
      }
      wakeAll();
    }

    void InspectorHub::addEvent(const QString& name, int bytes, const QJsonArray& items, bool complete, bool sliced)
    {
      QJsonObject event{{"name", name},
                        {"bytes", bytes},
                        {"time", double(QDateTime::currentMSecsSinceEpoch())},
                        {"sliced", sliced},
                        {"complete", complete}};
      const QByteArray itemText = compact(items);
      if (itemText.size() <= MaxLoggedItemBytes)
        event.insert("items", items);
      else
        event.insert("itemsOmitted", itemText.size());
      const QByteArray text = compact(event);
      Bastion::Guard lock(m_mutex);
      m_events.push_back(text);
      if (int(m_events.size()) > MaxLoggedEvents)
        m_events.pop_front();
      for (const auto& browser : m_browsers) {
        browser->events.push_back(text);
        if (int(browser->events.size()) > MaxLoggedEvents) {
          browser->events.pop_front();
          ++browser->droppedEvents;
        }
      }
      wakeAll();
    }

    void InspectorHub::setStatus(const QJsonObject& status)
    {
      QJsonObject full = status;
      full.insert("readOnly", m_readOnly);
      const QByteArray text = compact(full);
      Bastion::Guard lock(m_mutex);
      m_status = text;
      for (const auto& browser : m_browsers)
        browser->status = text;
      wakeAll();
    }

    std::vector<InspectorHub::Edit> InspectorHub::takeEdits()
    {
      Bastion::Guard lock(m_mutex);
      std::vector<Edit> edits;
      edits.swap(m_edits);
      return edits;
    }

    void InspectorHub::answer(const Edit& edit, const QString& error)
    {
      Bastion::Guard lock(m_mutex);
      for (const auto& browser : m_browsers) {
        if (browser->id == edit.browser)
          queueReply(*browser, {{"op", "result"},
                                {"id", edit.id},
                                {"path", edit.path},
                                {"error", error.isEmpty() ? QJsonValue() : QJsonValue(error)}});
      }
    }

    std::shared_ptr<InspectorBrowser> InspectorHub::addBrowser(const InspectorBrowser::Writer& writer)
    {
      std::shared_ptr<InspectorBrowser> browser;
      {
        Bastion::Guard lock(m_mutex);
        if (int(m_browsers.size()) >= MaxBrowsers)
          return nullptr;
        browser = std::make_shared<InspectorBrowser>(m_nextBrowserId++, m_mutex, writer);
        resend(*browser);
        browser->events.assign(m_events.begin(), m_events.end());
        browser->status = m_status;
        m_browsers.push_back(browser);
      }
      return browser;
    }

    void InspectorHub::removeBrowser(const std::shared_ptr<InspectorBrowser>& browser)
    {
      {
        Bastion::Guard lock(m_mutex);
        for (auto it = m_browsers.begin(); it != m_browsers.end(); ++it) {
          if (*it == browser) {
            m_browsers.erase(it);
            break;
          }
        }
      }
      browser->stop();
    }

    bool InspectorHub::receive(InspectorBrowser& browser, const QByteArray& message)
    {
      Bastion::Guard lock(m_mutex);
      const auto refuse = [&](const QString& text) { queueReply(browser, {{"op", "error"}, {"message", text}}); };
      if (message.size() > MaxBrowserMessageBytes) {
        refuse(QString("message of %1 bytes refused (at most %2)").arg(message.size()).arg(MaxBrowserMessageBytes));
        return false;
      }
      QJsonParseError parseError;
      const QJsonDocument document = QJsonDocument::fromJson(message, &parseError);
      const QJsonObject request = document.object();
      const QString op = request.value("op").toString();
      if (!document.isObject()) {
        refuse(parseError.error != QJsonParseError::NoError
                   ? QString("not JSON: %1 at offset %2").arg(parseError.errorString()).arg(parseError.offset)
                   : QString("expected a JSON object"));
      } else if (op == "ack") {
        browser.waitingForAck = false;
        browser.wake.wakeOne();
      } else if (op == "filter") {
        const QString pattern = request.value("pattern").toString().trimmed();
        if (pattern.size() > MaxSearchPatternChars || pattern.count('*') > MaxSearchPatternStars) {
          refuse(QString("search pattern refused: at most %1 characters and %2 '*'")
                     .arg(MaxSearchPatternChars)
                     .arg(MaxSearchPatternStars));
        } else {
          browser.setFilter(RemoteNode::makeRegExp(pattern), !pattern.isEmpty());
          resend(browser);
        }
      } else if (op == "set" || op == "remove") {
        Edit edit{browser.id, request.value("id"), request.value("path").toString(), request.value("text").toString(),
                  op == "remove"};
        QString error;
        if (!request.value("path").isString() || (!edit.remove && !request.value("text").isString()))
          error = "an edit needs a path and a text";
        else if (m_readOnly)
          error = QString("%1: the inspector is read-only (--read-only)").arg(edit.path);
        else if (int(m_edits.size()) >= MaxPendingEdits)
          error = QString("%1: %2 edits are already waiting; try again").arg(edit.path).arg(MaxPendingEdits);
        if (!error.isEmpty()) {
          queueReply(browser, {{"op", "result"}, {"id", edit.id}, {"path", edit.path}, {"error", error}});
        } else {
          m_edits.push_back(edit);
          const std::function<void()> callback = m_editCallback;
          lock.unlock();
          if (callback)
            callback();
          lock.relock();
        }
      } else {
        refuse(QString("unknown request '%1'").arg(op));
      }
      return true;
    }

    int InspectorHub::attributeCount() const
    {
      Bastion::Guard lock(m_mutex);
      return int(m_tree.size());
    }

    int InspectorHub::loggedEventCount() const
    {
      Bastion::Guard lock(m_mutex);
      return int(m_events.size());
    }

    void InspectorHub::queueReply(InspectorBrowser& browser, const QJsonObject& reply)
    {
      // A page that never reads its answers keeps only the latest ones.
      if (int(browser.replies.size()) >= MaxPendingEdits)
        browser.replies.pop_front();
      browser.replies.push_back(compact(reply));
      browser.wake.wakeOne();
    }

    void InspectorHub::resend(InspectorBrowser& browser)
    {
      browser.changes.clear();
      for (const auto& entry : m_tree) {
        if (browser.shows(entry.first))
          browser.changes.insert(browser.changes.end(), entry);
      }
      browser.snapshot = true;
      browser.wake.wakeOne();
    }

    void InspectorHub::wakeAll()
    {
      for (const auto& browser : m_browsers)
        browser->wake.wakeOne();
    }
  }
}
