#include "AttributeEdit.hpp"

#include "AttributeJson.hpp"
#include "TreePath.hpp"

#include "plexa/remote/RemoteNode.hpp"

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    bool AttributeEdit::check(RemoteNode& tree, const Assignment& a, QString* error)
    {
      const auto failed = [error](const QString& message) {
        if (error)
          *error = message;
        return false;
      };
      m_path = a.path;
      const QString path = QString::fromUtf8(a.path);
      bool blocked = false;
      m_existing = TreePath::find(tree, a.path, &blocked);
      if (blocked)
        return failed(QString("%1: a value stands where a node would be needed").arg(path));
      if (m_existing) {
        if (dynamic_cast<Carafe::Node*>(m_existing))
          return failed(QString("%1 is a node, not a value").arg(path));
        m_type = AttributeJson::typeName(*m_existing);
        if (m_type.isEmpty())
          return failed(QString("%1 holds a kind of value that plexa cannot set").arg(path));
        if (!a.type.isEmpty() && a.type != m_type)
          return failed(QString("%1 is a %2 on the peer, not a %3").arg(path, m_type, a.type));
      } else {
        m_type = a.type;
      }
      QString reason;
      if (!ValueText::parseValue(a.text, m_type, m_value, &reason))
        return failed(QString("%1: %2").arg(path, reason));
      if (m_type.isEmpty()) {
        m_type = AttributeJson::inferType(m_value);
        if (m_type.isEmpty())
          return failed(QString("%1 does not exist on the peer and the type of '%2' is not clear; give it as "
                                "%1:TYPE=VALUE")
                            .arg(path, a.text));
      }
      std::unique_ptr<Carafe::Attribute> probe(AttributeJson::create(m_type, m_value, &reason));
      if (!probe)
        return failed(QString("%1: not a %2 value: %3").arg(path, m_type, reason));
      return true;
    }

    bool AttributeEdit::apply(RemoteNode& tree, QString* error) const
    {
      if (m_existing)
        return AttributeJson::assign(*m_existing, m_value, error);
      if (tree.addDeepAttribute(m_path, AttributeJson::create(m_type, m_value, nullptr)))
        return true;
      if (error)
        *error = QString("%1 could not be added to the tree").arg(QString::fromUtf8(m_path));
      return false;
    }
  }
}
