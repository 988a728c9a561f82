#pragma once

#include "carafe/Attribute.hpp"
#include "carafe/ValueLayers.hpp"

namespace Carafe
{
  /// An attribute naming an asset (a file path or URL). Text form: the source itself.
  class AttributeAsset : public Attribute
  {
  public:
    using ValueType = QString;

    AttributeAsset() = default;
    ~AttributeAsset() override;

    const QString& source() const { return m_layers.value(); }
    /// Stores `source` on `layer`; role-2 listeners run if the effective source changed.
    void setSource(const QString& source, int layer = LayerApplication);
    int topLayer() const { return m_layers.topLayer(); }

    void setAsDefaults() override;
    QString asText() const override;

  private:
    ValueLayers<QString> m_layers;
  };
}
