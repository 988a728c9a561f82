#include "TreePath.hpp"

#include "carafe/Node.hpp"

#include <QList>

namespace Plexa
{
  namespace Cli
  {
    Carafe::Attribute* TreePath::find(Carafe::Node& root, const QByteArray& path, bool* blocked)
    {
      if (blocked)
        *blocked = false;
      Carafe::Attribute* current = &root;
      for (const QByteArray& part : path.split('/')) {
        auto* node = dynamic_cast<Carafe::Node*>(current);
        if (!node) {
          if (blocked)
            *blocked = true;
          return nullptr;
        }
        current = node->attribute(part);
        if (!current)
          return nullptr;
      }
      return current;
    }

    int TreePath::countAttributes(const Carafe::Node& node)
    {
      int count = 0;
      for (const Carafe::Attribute* child : node.attributes()) {
        auto* childNode = dynamic_cast<const Carafe::Node*>(child);
        count += childNode ? countAttributes(*childNode) : 1;
      }
      return count;
    }
  }
}
