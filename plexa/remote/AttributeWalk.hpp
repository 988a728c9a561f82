#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>

#include <functional>

namespace Carafe
{
  class Attribute;
  class Node;
}

namespace Plexa
{
  /// Visits every plain attribute below `node`, depth first in each node's order. Aliases are
  /// followed to their final target (an alias to nothing is skipped); nodes are walked, never
  /// visited. `skip` (may be empty) filters the entries of `node` itself only: deeper levels are
  /// walked without it. Takes no lock; call it on the thread that owns the tree.
  void walkAttributes(Carafe::Node& node, const std::function<void(Carafe::Attribute&)>& visit,
                      const std::function<bool(Carafe::Attribute&)>& skip);

  /// The same walk without a filter, passing each attribute's path relative to `node` (names
  /// joined with "/"; an attribute reached through an alias gets the alias's name).
  void walkAttributesWithPath(Carafe::Node& node,
                              const std::function<void(Carafe::Attribute&, const QByteArray& path)>& visit);

  /// Walks `parts` down from `node`, creating missing nodes (recorded in `created`, if not null,
  /// under their path: `prefix`, "/", part). An existing child is followed through its aliases;
  /// null, with an error logged, when it is not a node or a part is empty. Returns `node` for
  /// an empty list.
  Carafe::Node* findOrCreateNode(QList<QByteArray> parts, Carafe::Node* node, QMap<QByteArray, Carafe::Node*>* created,
                                 QByteArray prefix);
}
