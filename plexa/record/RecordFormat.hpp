#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>

namespace Plexa
{
  /// The layout of a recording file (docs/recording.md describes it for readers in other
  /// languages). Every number is little-endian and every item padded to 4 bytes, as on the wire.
  namespace RecordFormat
  {
    /// The first 8 bytes of every recording.
    constexpr char Magic[8] = {'P', 'L', 'X', 'R', 'E', 'C', '\r', '\n'};
    /// Written into the header; a reader refuses a higher one. Version 2 added batch records;
    /// version 1 files hold only the other kinds and read the same way.
    constexpr uint32_t Version = 2;
    /// Length word and checksum word in front of every record body.
    constexpr uint32_t FrameSize = 8;
    /// Kind word and 64-bit time at the start of every record body.
    constexpr uint32_t BodyHeaderSize = 12;
    /// Type id of a node in snapshot entries and additions (no attribute type has it).
    constexpr uint32_t NodeTypeId = 0xffffffffu;

    /// Largest header body a reader accepts: a corrupt length word cannot make it read or
    /// allocate more than this for the header.
    constexpr uint32_t MaxHeaderBytes = 64 * 1024;
    /// Largest record body a reader accepts (a snapshot of a big tree is the largest record).
    /// A corrupt or hostile length word cannot make the reader allocate more than this, nor more
    /// than the file still holds.
    constexpr uint32_t MaxRecordBytes = 256u * 1024 * 1024;

    /// Snapshots an end record indexes at most (16 bytes each): a recorder taking snapshots very
    /// often keeps no index rather than one that grows without bound, and readers then scan.
    constexpr size_t MaxIndexedSnapshots = 1000000;

    /// One snapshot in the index of an end record: its time and the offset of its frame.
    struct IndexEntry
    {
      int64_t timeNs;
      int64_t offset;
    };
    static_assert(sizeof(IndexEntry) == 16, "written as it is in memory");

    enum Kind : uint32_t
    {
      /// The whole tree: a count, then entries (symbol, type id, path, value block).
      Snapshot = 1,
      /// One attribute or node appeared: one entry as in a snapshot.
      Added = 2,
      /// An attribute's new value: symbol, value block.
      Changed = 3,
      /// An attribute or node went away: symbol.
      Removed = 4,
      /// An event from the peer, whole (sliced events put together): name, payload.
      Event = 5,
      /// The recorder closed the file: values and events written, the name of the next file of a
      /// split recording (empty when there is none), the index of the file's snapshots (a count,
      /// then time and offset of each), and last the body's length.
      End = 6,
      /// Values that arrived together, at the record's time: items, each a head word (kind in the
      /// low 4 bits: Added, Changed or Removed; byte count of the rest of the item above them),
      /// then for Changed the symbol and the value's wire encoding, for Added an entry, for
      /// Removed the symbol.
      Batch = 7
    };

    /// Bits of a batch item's head word that hold its kind; the rest is the item's byte count.
    constexpr uint32_t ItemKindBits = 4;
    constexpr uint32_t ItemKindMask = (1u << ItemKindBits) - 1;

    /// The checksum of a header or record body: the low 32 bits of the 64-bit XXH3 hash (seed 0).
    uint32_t checksum(const char* bytes, size_t size);
  }
}
