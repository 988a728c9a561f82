#pragma once

#include "Inspector.hpp"
#include "InspectorHub.hpp"
#include "InspectorServer.hpp"

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    /// The inspector as a whole, for a command that has a tree and a Peer: the web server and
    /// its pages, and the application thread's side. Application thread only.
    class InspectorPage
    {
    public:
      explicit InspectorPage(bool readOnly);
      ~InspectorPage();

      /// Serves the page at `address` showing `tree`; false with the reason in `error`. Edits
      /// from the pages wake `peer`.
      bool start(const AddressArgument& address, MirrorNode& tree, Peer& peer, Inspector::Role role,
                 const QString& treeAddress, QString* error);
      /// After each of the peer's updates: posts changes and sets the pages' edits.
      void update();
      /// The page's address (with the port picked for port 0).
      QString url() const;

    private:
      InspectorHub m_hub;
      InspectorServer m_server;
      std::unique_ptr<Inspector> m_inspector;
      AddressArgument m_address;
    };
  }
}
