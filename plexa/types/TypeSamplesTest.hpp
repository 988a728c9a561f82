#pragma once

// Test helper (not installed): one non-default value per registered type id, as the QVariant its
// variant serializer takes. Tests, the fuzz target's seeds and the benchmark use it.

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/types/MetaTypes.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <QStringList>
#include <QVariant>

#include <cstdint>
#include <map>

namespace Plexa
{
  namespace TypeSamples
  {
    template <typename M>
    M countingMatrix()
    {
      M m;
      float* p = m.data();
      for (size_t i = 0; i < sizeof(M) / sizeof(float); ++i)
        p[i] = float(i) + 0.5f;
      return m;
    }

    inline Bastion::MemGrid8u sampleGrid()
    {
      Bastion::MemGrid8u grid(5, 3);
      for (size_t i = 0; i < grid.byteCount(); ++i)
        grid.data()[i] = uint8_t(i * 7 + 1);
      return grid;
    }

    inline std::map<uint32_t, QVariant> sampleValues()
    {
      const QVector<Quiver::Vector2f> points = {Quiver::Vector2f(1.f, 2.f), Quiver::Vector2f(-3.f, 4.5f)};
      const QStringList strings = {QStringLiteral("a"), QString(), QString::fromUtf8("gr\xc3\xbc\xc3\x9f"),
                                   QStringLiteral("four")};
      return {
          {1, QVariant(true)},
          {2, QVariant::fromValue(Bastion::Color(0.25f, 0.5f, 0.75f, 0.125f))},
          {3, QVariant(1.5f)},
          {4, QVariant(-2.25)},
          {9, QVariant(-77)},
          {10, QVariant(4000000000u)},
          {11, QVariant::fromValue(long(-5000000000L))},
          {12, QVariant::fromValue((unsigned long)(9000000000UL))},
          {13, QVariant::fromValue(Quiver::Recti(1, -2, 3, 4))},
          {14, QVariant::fromValue(Quiver::Rectf(1.5f, 2.5f, 3.5f, 4.5f))},
          {15, QVariant::fromValue(Quiver::Rectd(0.1, 0.2, 0.3, 0.4))},
          {16, QVariant::fromValue(Quiver::Vector2i(7, -8))},
          {17, QVariant::fromValue(Quiver::Vector2f(0.5f, -0.5f))},
          {19, QVariant::fromValue(Quiver::Vector3i(1, 2, 3))},
          {20, QVariant::fromValue(Quiver::Vector3f(1.f, 2.f, 3.f))},
          {22, QVariant::fromValue(Quiver::Vector4i(1, 2, 3, 4))},
          {23, QVariant::fromValue(Quiver::Vector4f(1.f, 2.f, 3.f, 4.f))},
          {26, QVariant::fromValue(countingMatrix<Quiver::Matrix2f>())},
          {29, QVariant::fromValue(countingMatrix<Quiver::Matrix3f>())},
          {32, QVariant::fromValue(countingMatrix<Quiver::Matrix4f>())},
          {34, QVariant::fromValue(Bastion::TimeStamp::fromValue(123456789012345LL))},
          {35, QVariant(QString::fromUtf8("h\xc3\xa9llo"))},
          {36, QVariant(strings)},
          {40, QVariant::fromValue(QVector<float>{1.f, 2.f, 3.f})},
          {41, QVariant::fromValue(points)},
          {42, QVariant::fromValue(QVector<int>{-1, 0, 1})},
          {43, QVariant::fromValue(QVector<uint>{7u, 8u})},
          {44, QVariant(strings)},
          {45, QVariant::fromValue(sampleGrid())},
          {46, QVariant::fromValue(points)},
          {47, QVariant(3)},
          {48, QVariant::fromValue(Bastion::ColorPMA(0.1f, 0.2f, 0.3f, 0.5f))},
          {49, QVariant::fromValue(Quiver::Vector2f(9.f, 10.f))},
          {50, QVariant::fromValue(Quiver::Sizef(640.f, 480.f))},
          {51, QVariant(QStringLiteral("assets/logo.png"))},
          {52, QVariant::fromValue(Quiver::Sizei(1920, 1080))},
      };
    }

    /// A new attribute of `typeId` holding the sample value of its type (the default value when
    /// the type has no sample); null for an unregistered id.
    inline Carafe::Attribute* sampleAttribute(uint32_t typeId)
    {
      const TypeRegistry types;
      Carafe::Attribute* attribute = types.createAttribute(typeId);
      const auto samples = sampleValues();
      const auto sample = samples.find(typeId);
      const VariantSerializer write = types.createVariantSerializer(typeId);
      if (attribute && sample != samples.end() && write) {
        QByteArray bytes;
        BundleWriterCore writer(bytes);
        write(writer, sample->second);
        BundleReaderCore reader(bytes, 0);
        types.createDeserializer(typeId, attribute)(reader);
      }
      return attribute;
    }
  }
}
