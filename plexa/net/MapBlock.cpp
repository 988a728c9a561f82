#include "plexa/net/MapBlock.hpp"

#include "bastion/BinaryData.hpp"

namespace Plexa
{
  namespace
  {
    // Line breaks would split a pair across the old form's lines; the old form cannot carry them.
    QString withoutLineBreaks(QString text)
    {
      text.remove(QLatin1Char('\n'));
      text.remove(QLatin1Char('\r'));
      return text;
    }
  }

  QByteArray MapBlock::encode(const QString& name, const QMap<QString, QString>& map, bool newForm)
  {
    // Concatenation, not chained QString::arg: a '%1' inside a name or key must stay literal.
    QByteArray block = (name + QLatin1Char(' ') + QString::number(map.size()) + QLatin1Char('\n')).toUtf8();
    if (!newForm) {
      for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        block += (withoutLineBreaks(it.key()) + QLatin1Char('\n') + withoutLineBreaks(it.value()) + QLatin1Char('\n'))
                     .toUtf8();
      return block;
    }
    Bastion::BinaryData data;
    const int sizeItem = data.writeInt32(0);
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
      data.writeString(it.key());
      data.writeString(it.value());
    }
    data.patchInt32(sizeItem, data.size());
    block += data.toByteArray();
    return block;
  }

  bool MapBlock::announcedSize(const QByteArray& sizeItem, int limit, int32_t& size)
  {
    Bastion::BinaryData data(sizeItem);
    int32_t value = 0;
    if (sizeItem.size() != SizeItemBytes || !data.readInt32(value))
      return false;
    size = value;
    return value >= SizeItemBytes && value <= limit;
  }

  bool MapBlock::decode(const QByteArray& block, int count, QMap<QString, QString>& map)
  {
    Bastion::BinaryData data(block);
    int32_t size = 0;
    if (!data.readInt32(size))
      return false;
    for (int i = 0; i < count; ++i) {
      QString key;
      QString value;
      if (!data.readString(key) || !data.readString(value))
        return false;
      map.insert(key, value);
    }
    return true;
  }
}
