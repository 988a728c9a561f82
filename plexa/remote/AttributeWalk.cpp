#include "plexa/remote/AttributeWalk.hpp"

#include "plexa/tracking/AliasChain.hpp"

#include "bastion/Log.hpp"
#include "carafe/Node.hpp"

namespace Plexa
{
  namespace
  {
    void walkWithPath(Carafe::Node& node, const QByteArray& prefix,
                      const std::function<void(Carafe::Attribute&, const QByteArray&)>& visit)
    {
      for (Carafe::Attribute* entry : node.attributes()) {
        Carafe::Attribute* target = finalTarget(entry);
        if (!target)
          continue;
        const QByteArray path = prefix.isEmpty() ? entry->name() : prefix + '/' + entry->name();
        if (auto* child = dynamic_cast<Carafe::Node*>(target))
          walkWithPath(*child, path, visit);
        else
          visit(*target, path);
      }
    }
  }

  void walkAttributes(Carafe::Node& node, const std::function<void(Carafe::Attribute&)>& visit,
                      const std::function<bool(Carafe::Attribute&)>& skip)
  {
    for (Carafe::Attribute* entry : node.attributes()) {
      Carafe::Attribute* target = finalTarget(entry);
      if (!target)
        continue;
      if (skip && skip(*target))
        continue;
      // The filter applies to the top level only: deeper levels are walked unfiltered.
      if (auto* child = dynamic_cast<Carafe::Node*>(target))
        walkAttributes(*child, visit, nullptr);
      else
        visit(*target);
    }
  }

  void walkAttributesWithPath(Carafe::Node& node,
                              const std::function<void(Carafe::Attribute&, const QByteArray& path)>& visit)
  {
    walkWithPath(node, QByteArray(), visit);
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
