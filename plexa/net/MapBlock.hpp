#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstdint>

namespace Plexa
{
  /// Encoding of map blocks, the named sets of string pairs that travel on a connection.
  ///
  /// A block starts with the line "<name> <count>\n". Peers older than 1.9.1 then send each pair
  /// in key order as two lines (key, value); newer peers send one Bastion::BinaryData buffer: an
  /// int32 item with the size of the whole buffer (that item included), then key and value string
  /// items for each pair in key order. Pure functions, no I/O: ConnectionThread does the reading.
  class MapBlock
  {
  public:
    /// Size of the encoded int32 size item that opens a new-form block.
    static constexpr int SizeItemBytes = 8;

    /// The whole block, first line included, in the old form (`newForm` false) or the new form.
    static QByteArray encode(const QString& name, const QMap<QString, QString>& map, bool newForm);

    /// The block size that the first SizeItemBytes bytes of a new-form block announce. False when
    /// they are no int32 item, or when the size is below SizeItemBytes or above `limit`.
    static bool announcedSize(const QByteArray& sizeItem, int limit, int32_t& size);

    /// Reads `count` pairs from a complete new-form block (size item included) into `map`.
    /// False when the block holds fewer pairs or a malformed item; the pairs read before stay.
    static bool decode(const QByteArray& block, int count, QMap<QString, QString>& map);
  };
}
