#pragma once

#include <memory>

namespace Plexa
{
  class AliasDeserializer;
  class BundleReaderCore;

  /// The callable stored in place of a deserializer while an AliasDeserializer is in use: copies of
  /// it share the one AliasDeserializer, which lives as long as the last copy.
  class FunctorWrap
  {
  public:
    explicit FunctorWrap(std::shared_ptr<AliasDeserializer> aliasDeserializer = {});

    /// Forwards to the AliasDeserializer; without one it logs "FunctorWrap::operator() # have no
    /// functor" and reads nothing.
    void operator()(BundleReaderCore& reader) const;

    const std::shared_ptr<AliasDeserializer>& aliasDeserializer() const { return m_aliasDeserializer; }

  private:
    std::shared_ptr<AliasDeserializer> m_aliasDeserializer;
  };
}
