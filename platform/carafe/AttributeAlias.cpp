#include "carafe/AttributeAlias.hpp"

namespace Carafe
{
  AttributeAlias::~AttributeAlias()
  {
    beginDestruction();
    detach();
  }

  bool AttributeAlias::setAttribute(Attribute* target)
  {
    if (target == m_target)
      return true;
    if (target) {
      if (target == this || target->isBeingDestroyed() || isBeingDestroyed())
        return false;
      for (Attribute* a = target; a;) {
        auto* alias = dynamic_cast<AttributeAlias*>(a);
        if (!alias)
          break;
        if (alias == this)
          return false;
        a = alias->m_target;
      }
    }
    detach();
    attach(target);
    fireChanged();
    return true;
  }

  Attribute* AttributeAlias::finalTarget() const
  {
    Attribute* a = m_target;
    // Chains never close a cycle (setAttribute refuses), so this walk ends.
    while (auto* alias = dynamic_cast<AttributeAlias*>(a))
      a = alias->m_target;
    return a;
  }

  QString AttributeAlias::asText() const
  {
    return m_target ? QString::fromUtf8(m_target->name()) : QString();
  }

  void AttributeAlias::attach(Attribute* target)
  {
    m_target = target;
    if (!target)
      return;
    target->addAlias(this);
    m_targetListener = target->addListener([this] { fireChanged(); }, RoleChanged);
  }

  void AttributeAlias::detach()
  {
    if (!m_target)
      return;
    m_target->removeListener(m_targetListener);
    m_target->removeAlias(this);
    m_target = nullptr;
    m_targetListener = -1;
  }

  void AttributeAlias::targetDeleted(Attribute* target)
  {
    if (target != m_target)
      return;
    // The target already dropped this alias from its list; its listener table goes with it.
    target->removeListener(m_targetListener);
    m_target = nullptr;
    m_targetListener = -1;
    fireChanged();
  }
}
