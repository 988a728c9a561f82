#pragma once

#include "carafe/Attribute.hpp"

namespace Carafe
{
  /// Refers to another object of the tree (an attribute, a node, another alias) or to nothing.
  /// The target is not owned. Role-2 listeners run when the alias is retargeted and whenever the
  /// current target's role-2 listeners run, so a chain of aliases passes changes along. When the
  /// target is deleted, the alias becomes untargeted and its role-2 listeners run.
  /// Same thread rule as `Attribute`. Text form: the target's name, empty without a target.
  class AttributeAlias : public Attribute
  {
  public:
    AttributeAlias() = default;
    ~AttributeAlias() override;

    /// The direct target, or null.
    Attribute* attribute() const { return m_target; }
    /// Retargets (null = no target) and calls the role-2 listeners. Setting the current target
    /// again changes and calls nothing. Refused (false, nothing changed) when `target` is this
    /// alias, an alias chain from `target` leads back here, or `target` is being deleted.
    bool setAttribute(Attribute* target);
    /// Follows the chain of aliases from this one to the first object that is not an alias
    /// (null when the chain ends untargeted).
    Attribute* finalTarget() const;

    QString asText() const override;

  private:
    friend class Attribute;

    void attach(Attribute* target);
    void detach();
    /// Called by a target being deleted, after it dropped this alias from its list.
    void targetDeleted(Attribute* target);

    Attribute* m_target = nullptr;
    long m_targetListener = -1;
  };
}
