#include "MirrorNode.hpp"

namespace Plexa
{
  namespace Cli
  {
    MirrorNode::MirrorNode(const QByteArray& id)
        : RemoteNode(nullptr, id)
    {
    }

    void MirrorNode::eventProcess(const QByteArray& name, Bastion::BinaryData& data)
    {
      if (m_callback && handlingRemoteEvent(name, data)) {
        const int position = data.position();
        m_callback(name, data);
        data.setPosition(position);
      }
      RemoteNode::eventProcess(name, data);
    }
  }
}
