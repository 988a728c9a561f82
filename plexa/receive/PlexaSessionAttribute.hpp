#pragma once

#include "plexa/types/TypeFunctions.hpp"

#include <cstdint>

namespace Plexa
{
  /// What one session knows about one synchronised attribute path: how the peer names and encodes
  /// it (filled by the receivers) and how this side does (filled by the change sender).
  ///
  /// Created and owned only by `AttributeStorage`, and never deleted before the session ends:
  /// removal by either side only resets fields, so raw pointers to records stay valid for the
  /// whole session. The fields are not locked: the receivers touch them on the update thread, the
  /// sender during its send pass or under its change mutex.
  class PlexaSessionAttribute
  {
  public:
    explicit PlexaSessionAttribute(uint32_t symbol)
        : symbol(symbol)
    {
    }
    PlexaSessionAttribute(const PlexaSessionAttribute&) = delete;
    PlexaSessionAttribute& operator=(const PlexaSessionAttribute&) = delete;

    /// A deserializer that only reads past one value: `size` bytes when it is not 0, otherwise a
    /// 32-bit byte count and that many bytes; both padded to 4 bytes. A value that runs past the
    /// bundle throws the reader's out-of-range text without moving the reader.
    static Deserializer createDummyDeserializer(uint32_t size);
    /// Reads past one value announced with `size`, as the dummy deserializer does (but without
    /// restoring the position when the value is cut short).
    static void skipValue(BundleReaderCore& reader, uint32_t size);

    /// Forgets how this side wrote the local attribute, which is going away: the serializer
    /// captured it. A later addition at the path sets them again.
    void dropSerializer()
    {
      serializer = nullptr;
      typeId = 0;
      size = 0;
    }

    /// Reads one value of this attribute and applies it (or only reads past it).
    Deserializer deserializer;
    /// Writes the local attribute's current value.
    Serializer serializer;

    // ---- The peer's side ----
    /// The peer's symbol of the path, from its latest announcement.
    uint32_t readSymbol = 0;
    /// The type id the peer announced; 0 once the peer removed the attribute.
    uint32_t peerTypeId = 0;
    /// The fixed value size the peer announced; 0: values carry their own length.
    uint32_t peerSize = 0;
    /// Sequence of the last peer bundle whose value for this attribute was read; 0 after a removal.
    uint32_t receivedSequence = 0;

    // ---- This side ----
    /// This side's symbol of the path (the remote node's registry), fixed at creation.
    const uint32_t symbol;
    /// Type id and fixed size this side announced.
    uint32_t typeId = 0;
    uint32_t size = 0;
    /// Sequence of the last bundle in which this side sent the attribute; 0 after a removal.
    uint32_t lastSentSequence = 0;
    /// Sequence of the bundle in which this side sent its removal; 0 once announced again. An
    /// announcement the peer wrote before it had seen that bundle does not bring it back.
    uint32_t removedSequence = 0;

    /// The local attribute was there when the peer announced it (false: the receiver created it).
    bool existedLocally = true;
    /// The remote node's mark (`RemoteNode::markCreatedByPeer`) of the attribute created for the
    /// peer at this path, by this session or by an earlier one; 0 when there is none. The peer's
    /// removal deletes the attribute at the path only while it still bears this mark, so never
    /// an object the application or another session has put there since.
    uint64_t createdMark = 0;
    /// The peer removed the attribute; cleared by its next announcement.
    bool removedByPeer = false;
    /// The local attribute was removed: its next addition rebuilds the deserializer and sends the
    /// value. Cleared when the attribute is announced again.
    bool reAdded = false;
  };
}
