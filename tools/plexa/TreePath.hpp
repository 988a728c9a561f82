#pragma once

#include <QByteArray>
#include <QString>

#include <functional>

namespace Carafe
{
  class Attribute;
  class Node;
}

namespace Plexa
{
  namespace Cli
  {
    /// Looking attributes up by slash-separated path. Application thread only.
    class TreePath
    {
    public:
      /// The attribute or node at `path` below `root`, or null. `blocked`, when given, tells
      /// whether a plain attribute stands where the path needs a node.
      static Carafe::Attribute* find(Carafe::Node& root, const QByteArray& path, bool* blocked = nullptr);
      /// Attributes (not nodes) anywhere below `node`.
      static int countAttributes(const Carafe::Node& node);
      /// Calls `visit` for every object below `node` that is not a node (aliases are not followed),
      /// depth first in each node's order, with its path relative to `node`, and `emptyNode` (may
      /// be empty) for every node below `node` that has no children. No recursion: a peer's tree
      /// may be deep.
      static void walk(const Carafe::Node& node,
                       const std::function<void(const Carafe::Attribute&, const QString& path)>& visit,
                       const std::function<void(const QString& path)>& emptyNode = nullptr);
    };
  }
}
