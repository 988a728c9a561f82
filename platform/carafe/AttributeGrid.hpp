#pragma once

#include "carafe/Attribute.hpp"
#include "carafe/ValueLayers.hpp"

#include "bastion/MemGrid8u.hpp"

namespace Carafe
{
  template <typename T>
  class AttributeGrid;

  /// An attribute holding a grid of bytes. Besides `setValue`, a writer may fill the effective
  /// grid in place through `grid()` and then call `notifyChanged()`. Text form: "WxH".
  template <>
  class AttributeGrid<unsigned char> : public Attribute
  {
  public:
    using ValueType = Bastion::MemGrid8u;

    AttributeGrid() = default;
    ~AttributeGrid() override;

    const Bastion::MemGrid8u& value() const { return m_layers.value(); }
    /// Stores a copy of `grid` on `layer`; role-2 listeners run if the effective grid changed.
    void setValue(const Bastion::MemGrid8u& grid, int layer = LayerApplication);
    int topLayer() const { return m_layers.topLayer(); }

    /// The effective grid, to resize and fill in place. Call `notifyChanged()` afterwards.
    Bastion::MemGrid8u& grid() { return m_layers.value(); }
    /// The grid of `layer`, to fill in place; `layer` becomes the top layer (layers above it are
    /// cleared; a layer not set before starts empty). A receiver fills layer 2 this way and keeps
    /// reusing its storage. Call `notifyChanged()` afterwards.
    Bastion::MemGrid8u& grid(int layer) { return m_layers.edit(layer); }
    /// Calls the role-2 listeners (after an in-place fill through `grid()`).
    void notifyChanged() { fireChanged(); }

    void setAsDefaults() override;
    QString asText() const override;

  private:
    ValueLayers<Bastion::MemGrid8u> m_layers;
  };
}
