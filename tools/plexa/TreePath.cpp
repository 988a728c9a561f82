#include "TreePath.hpp"

#include "carafe/Node.hpp"

#include <QList>

#include <vector>

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
      walk(node, [&count](const Carafe::Attribute&, const QString&) { ++count; });
      return count;
    }

    void TreePath::walk(const Carafe::Node& node,
                        const std::function<void(const Carafe::Attribute&, const QString& path)>& visit,
                        const std::function<void(const QString& path)>& emptyNode)
    {
      // One path buffer, cut back to the length of each level's prefix: a copy per level would
      // cost memory quadratic in the depth.
      struct Level
      {
        std::vector<Carafe::Attribute*> children;
        size_t next;
        int prefixLength;
      };
      QString path;
      std::vector<Level> stack;
      stack.push_back({node.attributes(), 0, 0});
      while (!stack.empty()) {
        Level& level = stack.back();
        if (level.next == level.children.size()) {
          stack.pop_back();
          continue;
        }
        const Carafe::Attribute* child = level.children[level.next++];
        path.truncate(level.prefixLength);
        if (!path.isEmpty())
          path += '/';
        path += QString::fromUtf8(child->name());
        if (auto* childNode = dynamic_cast<const Carafe::Node*>(child)) {
          std::vector<Carafe::Attribute*> children = childNode->attributes();
          if (children.empty() && emptyNode)
            emptyNode(path);
          stack.push_back({std::move(children), 0, path.size()});
        } else {
          visit(*child, path);
        }
      }
    }
  }
}
