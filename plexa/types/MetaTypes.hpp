#pragma once

#include "bastion/Color.hpp"
#include "bastion/ColorPMA.hpp"
#include "bastion/MemGrid8u.hpp"
#include "bastion/TimeStamp.hpp"
#include "quiver/Matrix2T.hpp"
#include "quiver/Matrix3T.hpp"
#include "quiver/Matrix4T.hpp"
#include "quiver/RectT.hpp"
#include "quiver/SizeT.hpp"
#include "quiver/Vector2T.hpp"
#include "quiver/Vector3T.hpp"
#include "quiver/Vector4T.hpp"

#include <QMetaType>
#include <QVector>

// Qt meta types of the value types that cross a connection inside a QVariant (the type registry's
// variant serializers and deserializers). The math and utility libraries know nothing of Qt's
// meta types, so they are declared here. Each is registered with QMetaType under the name given
// below the first time `qMetaTypeId<T>()` is called; Qt keeps the id in a function-local static.
// The names of the colours, the float 2-vector and the byte grid are part of the public contract
// ("Bastion::Color", "Bastion::ColorPMA", "Quiver::Vector2f", "Bastion::MemGrid8u").
Q_DECLARE_METATYPE(Bastion::Color)
Q_DECLARE_METATYPE(Bastion::ColorPMA)
Q_DECLARE_METATYPE(Bastion::TimeStamp)
Q_DECLARE_METATYPE(Bastion::MemGrid8u)
Q_DECLARE_METATYPE(Quiver::Vector2f)
Q_DECLARE_METATYPE(Quiver::Vector2i)
Q_DECLARE_METATYPE(Quiver::Vector3f)
Q_DECLARE_METATYPE(Quiver::Vector3i)
Q_DECLARE_METATYPE(Quiver::Vector4f)
Q_DECLARE_METATYPE(Quiver::Vector4i)
Q_DECLARE_METATYPE(Quiver::Recti)
Q_DECLARE_METATYPE(Quiver::Rectf)
Q_DECLARE_METATYPE(Quiver::Rectd)
Q_DECLARE_METATYPE(Quiver::Sizef)
Q_DECLARE_METATYPE(Quiver::Sizei)
Q_DECLARE_METATYPE(Quiver::Matrix2f)
Q_DECLARE_METATYPE(Quiver::Matrix3f)
Q_DECLARE_METATYPE(Quiver::Matrix4f)
