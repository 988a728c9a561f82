#include "plexa/bundle/BundleOutput.hpp"

namespace Plexa
{
  BundleOutput::BundleOutput(std::vector<Bundle>* bundles, uint32_t* sequence, uint32_t acknowledged)
      : m_bundles(bundles)
      , m_sequence(sequence)
      , m_acknowledged(acknowledged)
  {
  }

  void BundleOutput::add(const QByteArray& bundle)
  {
    m_bundles->emplace_back(bundle);
    ++*m_sequence;
  }
}
