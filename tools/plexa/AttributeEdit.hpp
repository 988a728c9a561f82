#pragma once

#include "ValueText.hpp"

#include <QByteArray>
#include <QJsonValue>
#include <QString>

namespace Carafe
{
  class Attribute;
}

namespace Plexa
{
  class RemoteNode;

  namespace Cli
  {
    /// One PATH[:TYPE]=VALUE checked against a tree and ready to apply: what `plexa set` and the
    /// inspector page do with a value typed in, with the same one-line errors.
    ///
    /// Application thread only (it looks into the tree).
    class AttributeEdit
    {
    public:
      /// Checks `assignment` against `tree`: an existing attribute keeps its type (a different
      /// TYPE is an error), a new one takes TYPE or the one its value implies. False, with one
      /// line starting with the path in `error`, when the value cannot be set.
      bool check(RemoteNode& tree, const Assignment& assignment, QString* error);
      /// Sets the checked value (adding the attribute when new). False, with `error`, when the
      /// tree refuses a new attribute. The attribute checked must still be in the tree.
      bool apply(RemoteNode& tree, QString* error) const;

      const QByteArray& path() const { return m_path; }
      const QString& type() const { return m_type; }
      const QJsonValue& value() const { return m_value; }

    private:
      QByteArray m_path;
      QString m_type;
      QJsonValue m_value;
      Carafe::Attribute* m_existing = nullptr;
    };
  }
}
