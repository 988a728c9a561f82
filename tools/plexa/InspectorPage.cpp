#include "InspectorPage.hpp"

#include "plexa/app/Peer.hpp"

namespace Plexa
{
  namespace Cli
  {
    InspectorPage::InspectorPage(bool readOnly)
        : m_hub(readOnly)
        , m_server(m_hub)
    {
    }

    InspectorPage::~InspectorPage()
    {
      // Listeners off the tree first, then the pages closed, while the hub still stands.
      m_inspector.reset();
    }

    bool InspectorPage::start(const AddressArgument& address, MirrorNode& tree, Peer& peer, Inspector::Role role,
                              const QString& treeAddress, QString* error)
    {
      if (!m_server.start(address, error))
        return false;
      m_address = address.withPort(m_server.port());
      m_hub.setEditCallback([&peer] { peer.wake(); });
      m_inspector = std::make_unique<Inspector>(tree, peer, m_hub, role, treeAddress);
      return true;
    }

    void InspectorPage::update()
    {
      if (m_inspector)
        m_inspector->update();
    }

    QString InspectorPage::url() const
    {
      return QString("http://%1/").arg(m_address.toString());
    }
  }
}
