#pragma once

#include "plexa/app/SessionLink.hpp"
#include "plexa/net/ConnectionThread.hpp"

namespace Plexa
{
  /// A `Peer`'s connection without file transfer: bundle blocks only (see `SessionLink`).
  class SessionConnection : public ConnectionThread
  {
  public:
    /// `socket` and `accepted` as for ConnectionThread; `host` must outlive the connection's
    /// thread, `traffic` counts its bytes, `peerAddress` names the peer in the host's reports.
    SessionConnection(Bastion::TCPSocket* socket, bool accepted, SessionHost& host,
                      std::shared_ptr<TrafficMeter> traffic, const QString& peerAddress);
    ~SessionConnection() override;

  protected:
    bool parse(QString line) override;
    void connected() override;
    void disconnected() override;
    void retryProgress(double secondsLeft) override;

  private:
    SessionLink m_link;
  };
}
