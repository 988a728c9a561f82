#pragma once

#include <QString>

#include <cstdint>
#include <memory>

namespace Plexa
{
  class PeerSession;

  /// What the connections of a `Peer` report to it. Every call comes from a connection thread
  /// (`wake` from any thread) and must only queue work for the application thread and wake it:
  /// nothing here may wait for the application thread, which may be joining that connection.
  class SessionHost
  {
  public:
    /// A file transfer step of one session, for `Peer::fetch`.
    struct FileEvent
    {
      enum Kind
      {
        /// The peer announced the file (size, MD5) and its download was booked.
        Booked,
        /// More of the file has been written.
        Progress,
        /// The download ended: the local file's listed MD5 is the announced one (`verified`), or not.
        Finished,
        /// The peer announced the file, but no download started here (another one of the path runs,
        /// or this connection has too many).
        Refused,
        /// Parts still arrive (sent at most every AliveReportMs between Progress events).
        Alive
      };
      Kind kind = Booked;
      std::shared_ptr<PeerSession> session;
      QString path;
      int64_t bytesDone = 0;
      int64_t bytesTotal = 0;
      bool verified = false;
    };

    virtual ~SessionHost() = default;

    /// A connection has been established and `session` begins. The host starts it on the
    /// application thread, unless it has ended by then.
    virtual void sessionStarted(const std::shared_ptr<PeerSession>& session) = 0;
    /// A client waits before its next connection attempt.
    virtual void retrying(double secondsLeft) = 0;
    virtual void fileEvent(const FileEvent& event) = 0;
    /// Something for the application thread happened (bundles arrived, a session ended). Any thread.
    virtual void wake() = 0;
  };
}
