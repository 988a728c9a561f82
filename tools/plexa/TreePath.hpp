#pragma once

#include <QByteArray>

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
    };
  }
}
