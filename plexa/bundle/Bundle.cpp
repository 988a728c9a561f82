#include "plexa/bundle/Bundle.hpp"

#include <algorithm>
#include <cstring>

namespace Plexa
{
  Bundle::Bundle()
      : m_data(HeaderSize, '\0')
  {
  }

  Bundle::Bundle(const QByteArray& bytes)
      : m_data(bytes)
  {
  }

  BundleHeader Bundle::header() const
  {
    BundleHeader header;
    std::memcpy(&header, m_data.constData(), size_t(std::min(m_data.size(), HeaderSize)));
    return header;
  }

  void Bundle::setHeader(const BundleHeader& header)
  {
    if (m_data.size() < HeaderSize)
      m_data.append(QByteArray(HeaderSize - m_data.size(), '\0'));
    std::memcpy(m_data.data(), &header, sizeof(header));
  }

  bool Bundle::isComplete() const
  {
    return m_data.size() >= HeaderSize && quint64(header().payloadSize) + HeaderSize == quint64(m_data.size());
  }
}
