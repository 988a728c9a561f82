#pragma once

#include "plexa/remote/RemoteNode.hpp"

#include <functional>

namespace Plexa
{
  namespace Cli
  {
    /// A remote node that also tells about every event that arrives from the peer, whatever its
    /// name (node listeners need the name in advance). Sliced events are told once, put together.
    ///
    /// The callback runs on the application thread, inside the event's dispatch; it must not send
    /// the same payload object back into this node.
    class MirrorNode : public RemoteNode
    {
    public:
      using RemoteEventCallback = std::function<void(const QByteArray& name, const Bastion::BinaryData& data)>;

      explicit MirrorNode(const QByteArray& id);

      void setRemoteEventCallback(const RemoteEventCallback& callback) { m_callback = callback; }

      void eventProcess(const QByteArray& name, Bastion::BinaryData& data) override;

    private:
      RemoteEventCallback m_callback;
    };
  }
}
