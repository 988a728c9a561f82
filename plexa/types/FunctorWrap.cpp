#include "plexa/types/FunctorWrap.hpp"

#include "plexa/types/AliasDeserializer.hpp"

#include "bastion/Log.hpp"

namespace Plexa
{
  FunctorWrap::FunctorWrap(std::shared_ptr<AliasDeserializer> aliasDeserializer)
      : m_aliasDeserializer(std::move(aliasDeserializer))
  {
  }

  void FunctorWrap::operator()(BundleReaderCore& reader) const
  {
    if (!m_aliasDeserializer) {
      Bastion::error("FunctorWrap::operator() # have no functor");
      return;
    }
    m_aliasDeserializer->deserialize(reader);
  }
}
