#include "carafe/AttributeT.hpp"
#include "carafe/AttributeAsset.hpp"
#include "carafe/AttributeContainer.hpp"
#include "carafe/AttributeEnum.hpp"
#include "carafe/AttributeGrid.hpp"
#include "carafe/AttributeSpline.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <typeinfo>

using namespace Carafe;
using Quiver::Vector2f;

namespace
{
  /// Sets `v` on a fresh attribute of class A and checks the round trip, one change call, the text.
  template <typename A, typename V>
  void checkValue(const V& v, const QString& text)
  {
    A a;
    int changes = 0;
    a.addListener([&] { ++changes; }, Attribute::RoleChanged);
    a.setValue(v);
    EXPECT_TRUE(a.value() == v) << typeid(A).name();
    EXPECT_EQ(changes, 1) << typeid(A).name();
    a.setValue(v);
    EXPECT_EQ(changes, 1) << typeid(A).name();
    EXPECT_EQ(a.asText(), text) << typeid(A).name();
    // Back to the default on layer 0: the value and the text follow.
    a.setValue(typename A::ValueType{}, Attribute::LayerDefault);
    EXPECT_TRUE(a.value() == typename A::ValueType{}) << typeid(A).name();
    EXPECT_EQ(changes, 2) << typeid(A).name();
  }
}

TEST(AttributeT, EveryValueTypeRoundTripsAndHasItsTextForm)
{
  checkValue<AttributeT<bool>>(true, "true");
  checkValue<AttributeT<int>>(-42, "-42");
  checkValue<AttributeT<unsigned int>>(4000000000u, "4000000000");
  checkValue<AttributeT<long>>(-9000000000L, "-9000000000");
  checkValue<AttributeT<unsigned long>>(18000000000000000000UL, "18000000000000000000");
  checkValue<AttributeT<float>>(0.25f, "0.25");
  checkValue<AttributeT<double>>(1.5e10, "1.5e+10");
  checkValue<AttributeT<QString>>(QString("h\u00e9llo"), QString("h\u00e9llo"));
  checkValue<AttributeT<QStringList>>(QStringList{"a", "b c"}, "a, b c");
  checkValue<AttributeT<Bastion::Color>>(Bastion::Color(1, 0.5f, 0, 0.25f), "rgba(1, 0.5, 0, 0.25)");
  checkValue<AttributeT<Bastion::ColorPMA>>(Bastion::ColorPMA(0.5f, 0.25f, 0, 0.5f), "rgba_pma(0.5, 0.25, 0, 0.5)");
  checkValue<AttributeT<Bastion::TimeStamp>>(Bastion::TimeStamp::createSeconds(2.5), "2.500000");
  checkValue<AttributeT<Quiver::Vector2i>>(Quiver::Vector2i(1, -2), "(1, -2)");
  checkValue<AttributeT<Vector2f>>(Vector2f(1.5f, 2), "(1.5, 2)");
  checkValue<AttributeT<Quiver::Vector3i>>(Quiver::Vector3i(1, 2, 3), "(1, 2, 3)");
  checkValue<AttributeT<Quiver::Vector3f>>(Quiver::Vector3f(1, 2, 3.5f), "(1, 2, 3.5)");
  checkValue<AttributeT<Quiver::Vector4i>>(Quiver::Vector4i(1, 2, 3, 4), "(1, 2, 3, 4)");
  checkValue<AttributeT<Quiver::Vector4f>>(Quiver::Vector4f(1, 2, 3, 4.5f), "(1, 2, 3, 4.5)");
  checkValue<AttributeT<Quiver::Recti>>(Quiver::Recti(0, 1, 2, 3), "(0, 1, 2, 3)");
  checkValue<AttributeT<Quiver::Rectf>>(Quiver::Rectf(0, 1, 2, 3.5f), "(0, 1, 2, 3.5)");
  checkValue<AttributeT<Quiver::Rectd>>(Quiver::Rectd(0, 1, 2, 3.25), "(0, 1, 2, 3.25)");
  checkValue<AttributeT<Quiver::Sizei>>(Quiver::Sizei(640, 480), "(640, 480)");
  checkValue<AttributeT<Quiver::Sizef>>(Quiver::Sizef(1.5f, 2), "(1.5, 2)");

  Quiver::Matrix2f m2;
  m2.m[0][1] = 2;
  m2.m[1][0] = 3;
  checkValue<AttributeT<Quiver::Matrix2f>>(m2, "((0, 2), (3, 0))");
  checkValue<AttributeT<Quiver::Matrix3f>>(Quiver::Matrix3f::identity(), "((1, 0, 0), (0, 1, 0), (0, 0, 1))");
  Quiver::Matrix4f m4 = Quiver::Matrix4f::identity();
  m4.m[3][0] = 5;
  checkValue<AttributeT<Quiver::Matrix4f>>(m4, "((1, 0, 0, 0), (0, 1, 0, 0), (0, 0, 1, 0), (5, 0, 0, 1))");

  checkValue<AttributeContainer<std::vector<float>>>(std::vector<float>{1, 2.5f}, "1, 2.5");
  checkValue<AttributeContainer<std::vector<Vector2f>>>(std::vector<Vector2f>{{1, 2}, {3, 4}}, "(1, 2), (3, 4)");
  checkValue<AttributeContainer<std::vector<int>>>(std::vector<int>{-1, 0, 1}, "-1, 0, 1");
  checkValue<AttributeContainer<std::vector<unsigned int>>>(std::vector<unsigned int>{7}, "7");
  checkValue<AttributeContainer<std::vector<QString>>>(std::vector<QString>{"x", "y"}, "x, y");
  checkValue<AttributeEnum>(3, "3");
}

TEST(AttributeT, ClassesWithTheirOwnInterfaces)
{
  AttributeEnum e;
  e.setName(1, "open");
  e.setName(2, "closed");
  e.setValue(2);
  EXPECT_EQ(e.asText(), "closed");
  e.setValue(5);
  EXPECT_EQ(e.asText(), "5");

  AttributeAsset asset;
  int assetChanges = 0;
  asset.addListener([&] { ++assetChanges; }, Attribute::RoleChanged);
  asset.setSource("images/a.png", Attribute::LayerReceived);
  asset.setSource("images/a.png", Attribute::LayerApplication);
  EXPECT_EQ(asset.source(), "images/a.png");
  EXPECT_EQ(asset.asText(), "images/a.png");
  EXPECT_EQ(assetChanges, 1);

  AttributeSpline spline;
  int splineChanges = 0;
  spline.addListener([&] { ++splineChanges; }, Attribute::RoleChanged);
  spline.setPoints({{0, 0}, {1, 0.5f}});
  spline.setPoints({{0, 0}, {1, 0.5f}});
  EXPECT_EQ(spline.points().size(), 2u);
  EXPECT_EQ(spline.asText(), "(0, 0), (1, 0.5)");
  EXPECT_EQ(splineChanges, 1);
  spline.setAsDefaults();
  spline.setPoints({}, Attribute::LayerDefault);
  EXPECT_TRUE(spline.points().empty());
}

TEST(AttributeT, GridIsSetWholeOrFilledInPlaceOnALayer)
{
  AttributeGrid<unsigned char> g;
  int changes = 0;
  g.addListener([&] { ++changes; }, Attribute::RoleChanged);

  Bastion::MemGrid8u local(3, 2);
  std::memset(local.data(), 7, local.byteCount());
  g.setValue(local);
  EXPECT_EQ(changes, 1);
  EXPECT_TRUE(g.value() == local);
  EXPECT_EQ(g.asText(), "3x2");

  // A receiver fills layer 2 in place; the local grid on layer 1 is kept underneath until then.
  Bastion::MemGrid8u& received = g.grid(Attribute::LayerReceived);
  EXPECT_EQ(received.width(), 0);
  ASSERT_TRUE(received.resize(2, 2));
  std::memset(received.data(), 9, received.byteCount());
  EXPECT_EQ(changes, 1);
  g.notifyChanged();
  EXPECT_EQ(changes, 2);
  EXPECT_EQ(g.topLayer(), Attribute::LayerReceived);
  EXPECT_EQ(g.value().line(1)[1], 9);

  // A local change clears the received layer.
  g.setValue(local, Attribute::LayerApplication);
  EXPECT_EQ(changes, 3);
  EXPECT_TRUE(g.value() == local);
  g.grid().line(0)[0] = 1;
  g.notifyChanged();
  EXPECT_EQ(changes, 4);
  EXPECT_EQ(g.value().line(0)[0], 1);
}

TEST(AttributeT, SeparateVectorReportsOnceForEachChange)
{
  AttributeT<Vector2f, Separate> v;
  std::vector<Vector2f> seen;
  int xChanges = 0;
  v.addListener([&] { seen.push_back(v.value()); }, Attribute::RoleChanged);
  v.x().addListener([&] { ++xChanges; }, Attribute::RoleChanged);

  v.setValue(Vector2f(1, 2));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0], Vector2f(1, 2));
  EXPECT_EQ(xChanges, 1);
  EXPECT_EQ(v.x().value(), 1.f);
  EXPECT_EQ(v.y().value(), 2.f);

  v.y().setValue(5);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1], Vector2f(1, 5));
  EXPECT_EQ(xChanges, 1);

  v.setValue(Vector2f(1, 5)); // equal
  v.setValue(Vector2f(3, 5)); // only x differs: still one call
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(v.asText(), "(3, 5)");

  // Components are not tree children and have layers of their own.
  EXPECT_EQ(v.x().host(), nullptr);
  v.setValue(Vector2f(4, 4), Attribute::LayerReceived);
  EXPECT_EQ(v.x().topLayer(), Attribute::LayerReceived);
  v.setAsDefaults();
  EXPECT_EQ(v.x().topLayer(), Attribute::LayerDefault);
  EXPECT_EQ(v.value(), Vector2f(4, 4));
  EXPECT_EQ(seen.size(), 4u);
}
