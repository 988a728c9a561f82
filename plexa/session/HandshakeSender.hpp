#pragma once

#include "plexa/bundle/BundleWriter.hpp"
#include "plexa/session/BundleSender.hpp"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstdint>

namespace Plexa
{
  /// The sending half of the module handshake (message type 0). It announces this side with an
  /// "info" record, asks the peer to load modules under numbers this side chooses, and answers the
  /// peer's requests. Records accumulate in one bundle that the send pass emits; the session core
  /// adds this sender first, so its records precede the bundles whose types they announce.
  ///
  /// Used on the session's update thread only.
  class HandshakeSender : public BundleSender
  {
  public:
    /// Writes the "info" record at once: it is the first record the peer receives.
    HandshakeSender();

    /// Writes a "load-module" record for `moduleName` (with an empty parameter map) under the
    /// next free message type, counted from 1, and returns that type. Every call allocates a new
    /// number: callers cache the result per name.
    uint32_t loadModule(const QByteArray& moduleName);

    /// Answers a request of the peer: an "ok" / "error" record naming the answered command and the
    /// module, with the map {"description": description}.
    void replyOk(const QString& command, const QString& moduleName, const QString& description);
    void replyError(const QString& command, const QString& moduleName, const QString& description);

    /// Emits the records written since the last pass as one bundle of type 0 (none if there are none).
    void writeUpdates(BundleOutput& output) override;

    /// The type the next `loadModule` will allocate.
    uint32_t nextMessageType() const { return m_nextMessageType; }

  private:
    void writeReply(const char* reply, const QString& command, const QString& moduleName, const QString& description);
    /// A string map on the wire: a 32-bit pair count, then key and value strings in key order.
    void writeMap(const QMap<QString, QString>& map);

    BundleWriter m_writer;
    uint32_t m_nextMessageType = 1;
  };
}
