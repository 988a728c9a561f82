#pragma once

#include "plexa/session/BundleReceiver.hpp"

#include <QByteArray>

#include <functional>

namespace Bastion
{
  class BinaryData;
  class SymbolRegistry;
}

namespace Plexa
{
  /// Reads the peer's one-way events (the symbol of the event's name, then its payload as a blob)
  /// and hands each to the handler. Update thread only.
  class OneWayEventReceiver : public BundleReceiver
  {
  public:
    /// Called with the event's name and its payload; the payload points into the bundle and is
    /// valid only during the call.
    using Handler = std::function<void(const QByteArray& name, Bastion::BinaryData& data)>;

    /// `received` (the peer's symbols) must outlive the receiver.
    explicit OneWayEventReceiver(Bastion::SymbolRegistry& received);

    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) override;

    /// Without a handler, events are dropped silently.
    void setHandler(Handler handler) { m_handler = std::move(handler); }

  private:
    Bastion::SymbolRegistry& m_received;
    Handler m_handler;
  };
}
