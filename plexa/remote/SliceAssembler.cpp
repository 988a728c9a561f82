#include "plexa/remote/SliceAssembler.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

#include <algorithm>

namespace Plexa
{
  void SliceAssembler::setMaxBytes(int64_t bytes)
  {
    Bastion::Guard lock(m_mutex);
    m_maxBytes = std::max<int64_t>(1, bytes);
  }

  int64_t SliceAssembler::maxBytes() const
  {
    Bastion::Guard lock(m_mutex);
    return m_maxBytes;
  }

  int64_t SliceAssembler::heldBytes() const
  {
    Bastion::Guard lock(m_mutex);
    return m_heldBytes;
  }

  int SliceAssembler::pendingCount() const
  {
    Bastion::Guard lock(m_mutex);
    return int(m_events.size());
  }

  void SliceAssembler::erase(std::map<Key, SlicedEvent>::iterator it)
  {
    m_heldBytes -= it->second.heldBytes;
    m_byAge.erase(it->second.age);
    m_events.erase(it);
  }

  bool SliceAssembler::makeRoom(int64_t extra, const Key& keep)
  {
    if (extra > m_maxBytes)
      return false;
    while (m_heldBytes + extra > m_maxBytes) {
      auto oldest = m_byAge.begin();
      if (oldest != m_byAge.end() && oldest->second == keep)
        ++oldest;
      if (oldest == m_byAge.end())
        return false;
      auto it = m_events.find(oldest->second);
      Bastion::warning("RemoteNode::handleSlicedEvent # Dropping unfinished sliced event %d of sender %ld ('%s') "
                       "to stay below the limit of %lld bytes held by sliced events",
                       it->first.second, it->first.first, it->second.name.constData(),
                       static_cast<long long>(m_maxBytes));
      erase(it);
    }
    return true;
  }

  void SliceAssembler::begin(long senderId, Bastion::BinaryData& data)
  {
    int32_t sliceId = 0, sliceSize = 0, total = 0;
    QByteArray name;
    if (!data.readInt32(sliceId) || !data.readString(name) || !data.readInt32(sliceSize) || !data.readInt32(total)) {
      Bastion::warning("RemoteNode::handleSlicedEvent # Dropping an event-slice-begin that cannot be read");
      return;
    }
    if (sliceSize <= 0 || total <= 0) {
      Bastion::warning("RemoteNode::handleSlicedEvent # Dropping event-slice-begin %d: slice size %d, total size %d",
                       sliceId, sliceSize, total);
      return;
    }
    const int64_t count = (int64_t(total) + sliceSize - 1) / sliceSize;
    if (count > MaxSlices) {
      Bastion::warning("RemoteNode::handleSlicedEvent # Dropping event-slice-begin %d: %lld slices, limit %lld",
                       sliceId, static_cast<long long>(count), static_cast<long long>(MaxSlices));
      return;
    }

    Bastion::Guard lock(m_mutex);
    const Key key(senderId, sliceId);
    if (m_events.count(key) != 0)
      return;
    const int64_t charge = int64_t(sizeof(SlicedEvent)) + name.size();
    if (int64_t(total) + charge > m_maxBytes || !makeRoom(charge, key)) {
      Bastion::warning("RemoteNode::handleSlicedEvent # Dropping event-slice-begin %d: %d bytes is above the limit "
                       "of %lld bytes held by sliced events",
                       sliceId, total, static_cast<long long>(m_maxBytes));
      return;
    }
    SlicedEvent& event = m_events[key];
    event.name = name;
    event.sliceSize = sliceSize;
    event.totalSize = total;
    event.missing = int(count);
    event.age = m_nextAge++;
    event.heldBytes = charge;
    m_byAge.emplace(event.age, key);
    m_heldBytes += charge;
  }

  bool SliceAssembler::slice(long senderId, Bastion::BinaryData& data, QByteArray& name, QByteArray& bytes)
  {
    int32_t sliceId = 0, index = 0;
    if (!data.readInt32(sliceId) || !data.readInt32(index))
      return false;

    Bastion::Guard lock(m_mutex);
    const Key key(senderId, sliceId);
    auto it = m_events.find(key);
    if (it == m_events.end()) {
      Bastion::warning("RemoteNode::handleSlicedEvent # Unknown event-slice %d", sliceId);
      return false;
    }
    SlicedEvent& event = it->second;
    const int64_t offset = int64_t(index) * event.sliceSize;
    if (index < 0 || offset >= event.totalSize) {
      Bastion::warning("RemoteNode::handleSlicedEvent # Bad slice (idx %d)", index);
      return false;
    }
    const int64_t length = std::min<int64_t>(event.totalSize - offset, event.sliceSize);

    if (event.buffer.isEmpty()) {
      const int64_t count = (int64_t(event.totalSize) + event.sliceSize - 1) / event.sliceSize;
      const int64_t extra = event.totalSize + count / 8;
      if (!makeRoom(extra, key)) {
        Bastion::warning("RemoteNode::handleSlicedEvent # Dropping sliced event %d: %lld bytes is above the limit of "
                         "%lld bytes held by sliced events",
                         sliceId, static_cast<long long>(extra), static_cast<long long>(m_maxBytes));
        erase(it);
        return false;
      }
      event.buffer = QByteArray(event.totalSize, '\0');
      event.received.assign(size_t(count), false);
      event.heldBytes += extra;
      m_heldBytes += extra;
    }

    if (!data.readBlob(event.buffer.data() + offset, int(length)))
      return false;
    if (!event.received[size_t(index)]) {
      event.received[size_t(index)] = true;
      --event.missing;
    }
    if (event.missing > 0)
      return false;
    name = event.name;
    bytes = std::move(event.buffer);
    erase(it);
    return true;
  }
}
