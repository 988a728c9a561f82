#pragma once

#include "bastion/Log.hpp"

namespace Carafe
{
  /// The three value layers of an attribute (0 default, 1 application, 2 received). Layer 0 is
  /// always set; the effective value is that of the highest layer set. Not an attribute itself:
  /// value classes hold one.
  template <typename T>
  class ValueLayers
  {
  public:
    static constexpr int LayerCount = 3;

    const T& value() const { return m_values[m_top]; }
    /// Mutable effective value, for filling in place; the caller reports the change.
    T& value() { return m_values[m_top]; }
    /// The highest layer set.
    int topLayer() const { return m_top; }

    /// Stores `v` on `layer` and clears the layers above it. Returns true when the effective value
    /// changed. An unknown layer is logged and ignored.
    bool set(const T& v, int layer)
    {
      if (layer < 0 || layer >= LayerCount) {
        Bastion::error("Carafe: value layer %d does not exist", layer);
        return false;
      }
      const bool changed = !(v == m_values[m_top]);
      if ((layer != m_top || changed) && &v != &m_values[layer])
        m_values[layer] = v;
      clearAbove(layer);
      return changed;
    }

    /// The value of `layer` for filling in place; `layer` becomes the top layer (layers above are
    /// cleared; a layer not set before starts as a default value). The caller reports the change.
    /// An unknown layer is logged and the effective value returned.
    T& edit(int layer)
    {
      if (layer < 0 || layer >= LayerCount) {
        Bastion::error("Carafe: value layer %d does not exist", layer);
        return m_values[m_top];
      }
      clearAbove(layer);
      return m_values[layer];
    }

    /// The effective value becomes the default; the other layers are cleared.
    void makeDefault()
    {
      if (m_top == 0)
        return;
      m_values[0] = m_values[m_top];
      clearAbove(0);
    }

  private:
    /// Makes `layer` the top; the layers above it get a fresh value so that large values (strings,
    /// grids) free their memory.
    void clearAbove(int layer)
    {
      for (int l = layer + 1; l <= m_top && l < LayerCount; ++l)
        m_values[l] = T{};
      m_top = layer;
    }

    T m_values[LayerCount]{};
    int m_top = 0;
  };
}
