#include "plexa/remote/AttributeWalk.hpp"

#include "plexa/tracking/AliasChain.hpp"

#include "bastion/Log.hpp"
#include "carafe/Node.hpp"

#include <unordered_set>

namespace Plexa
{
  namespace
  {
    /// Depth first in each node's order, with an explicit stack so that a deep tree cannot
    /// overflow the thread's stack. `visit` gets each plain attribute and the length its path
    /// has in `path`, the one buffer that the walk extends and cuts back level by level (a path
    /// copy per level would cost memory quadratic in the depth). `skip` filters the top level.
    void walk(Carafe::Node& node, const std::function<bool(Carafe::Attribute&)>& skip, bool withPath,
              const std::function<void(Carafe::Attribute&, const QByteArray&)>& visit)
    {
      struct Level
      {
        Carafe::Node* node;
        std::vector<Carafe::Attribute*> entries;
        size_t next;
        int pathLength;
      };
      QByteArray path;
      std::vector<Level> stack;
      // The nodes on the stack: an alias to one of them (an ancestor of the alias) is not
      // followed, or the walk would go round that loop for ever, its stack growing.
      std::unordered_set<Carafe::Node*> walking{&node};
      stack.push_back({&node, node.attributes(), 0, 0});
      while (!stack.empty()) {
        Level& level = stack.back();
        if (level.next == level.entries.size()) {
          walking.erase(level.node);
          stack.pop_back();
          continue;
        }
        Carafe::Attribute* entry = level.entries[level.next++];
        Carafe::Attribute* target = finalTarget(entry);
        if (!target)
          continue;
        // The filter applies to the top level only: deeper levels are walked unfiltered.
        if (stack.size() == 1 && skip && skip(*target))
          continue;
        if (withPath) {
          path.truncate(level.pathLength);
          if (!path.isEmpty())
            path += '/';
          path += entry->name();
        }
        if (auto* child = dynamic_cast<Carafe::Node*>(target)) {
          if (walking.insert(child).second)
            stack.push_back({child, child->attributes(), 0, path.size()});
        } else
          visit(*target, path);
      }
    }
  }

  void walkAttributes(Carafe::Node& node, const std::function<void(Carafe::Attribute&)>& visit,
                      const std::function<bool(Carafe::Attribute&)>& skip)
  {
    walk(node, skip, false, [&visit](Carafe::Attribute& attribute, const QByteArray&) { visit(attribute); });
  }

  void walkAttributesWithPath(Carafe::Node& node,
                              const std::function<void(Carafe::Attribute&, const QByteArray& path)>& visit)
  {
    walk(node, nullptr, true, visit);
  }

  Carafe::Node* findOrCreateNode(QList<QByteArray> parts, Carafe::Node* node, QMap<QByteArray, Carafe::Node*>* created,
                                 QByteArray prefix)
  {
    while (!parts.isEmpty()) {
      const QByteArray part = parts.takeFirst();
      const QByteArray path = prefix.isEmpty() ? part : prefix + '/' + part;
      if (part.isEmpty()) {
        Bastion::error("findOrCreateNode # empty name in path '%s'", path.constData());
        return nullptr;
      }
      Carafe::Attribute* existing = node->attribute(part);
      Carafe::Node* child = nullptr;
      if (!existing) {
        child = new Carafe::Node(node, part);
        if (created)
          created->insert(path, child);
      } else {
        child = dynamic_cast<Carafe::Node*>(finalTarget(existing));
        if (!child) {
          Bastion::error("findOrCreateNode # '%s'' is not a node!", path.constData());
          return nullptr;
        }
      }
      node = child;
      prefix = path;
    }
    return node;
  }
}
