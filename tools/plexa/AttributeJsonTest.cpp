#include "AttributeJson.hpp"

#include "plexa/types/TypeRegistry.hpp"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <tuple>

using Plexa::Cli::AttributeJson;

namespace
{
  QJsonValue json(const char* text)
  {
    return QJsonDocument::fromJson(QByteArray("[") + text + "]").array().at(0);
  }

  std::unique_ptr<Carafe::Attribute> make(const QString& type, const QJsonValue& value, QString* error = nullptr)
  {
    return std::unique_ptr<Carafe::Attribute>(AttributeJson::create(type, value, error));
  }

  /// A value other than the type's default, for every type name.
  const std::map<QString, const char*>& samples()
  {
    static const std::map<QString, const char*> s = {
        {"bool", "true"},
        {"color", "[1,0.3,0.25,0.7]"},
        {"float", "0.9"},
        {"double", "-2.125"},
        {"int", "-7"},
        {"uint", "4000000000"},
        {"long", "\"-1152921504606846976\""},
        {"ulong", "\"18446744073709551615\""},
        {"recti", "[-1,2,3,4]"},
        {"rectf", "[0.5,1,2,4]"},
        {"rectd", "[0.125,1,2,3]"},
        {"vec2i", "[1,-2]"},
        {"vec2f", "[0.5,-1]"},
        {"vec3i", "[1,2,3]"},
        {"vec3f", "[0.1,1.5,-2]"},
        {"vec4i", "[1,2,3,-4]"},
        {"vec4f", "[1,2,3,0.5]"},
        {"mat2", "[[1,2],[3,4]]"},
        {"mat3", "[[1,0,0],[0,2,0],[0,0,3]]"},
        {"mat4", "[[1,2,3,4],[5,6,7,8],[9,10,11,12],[13,14,15,16]]"},
        {"timestamp", "12.5"},
        {"string", "\"hello\""},
        {"stringlist", "[\"a\",\"bc\"]"},
        {"float[]", "[0.7,1e-07]"},
        {"vec2f[]", "[[1,2],[3,4]]"},
        {"int[]", "[-1,2]"},
        {"uint[]", "[1,4294967295]"},
        {"string[]", "[\"x\",\"\"]"},
        {"grid", "[[0,1,255],[3,4,5]]"},
        {"spline", "[[0,0],[1,0.5]]"},
        {"enum", "3"},
        {"colorpma", "[0.5,0.25,0,0.5]"},
        {"vec2f-separate", "[1.5,2]"},
        {"sizef", "[640,480.5]"},
        {"asset", "\"/textures/wall.png\""},
        {"sizei", "[640,480]"},
    };
    return s;
  }
}

TEST(AttributeJson, EveryWireTypeHasANameWhoseAttributesSerializeUnderItsId)
{
  Plexa::TypeRegistry registry;
  const std::vector<uint32_t> ids = registry.registeredTypeIds();
  ASSERT_EQ(size_t(AttributeJson::typeNames().size()), ids.size());
  for (const QString& name : AttributeJson::typeNames()) {
    SCOPED_TRACE(name.toStdString());
    const uint32_t id = AttributeJson::typeId(name);
    EXPECT_NE(std::find(ids.begin(), ids.end(), id), ids.end());
    // The registry's own attribute of that id is recognised under the name...
    std::unique_ptr<Carafe::Attribute> fromRegistry(registry.createAttribute(id));
    ASSERT_TRUE(fromRegistry);
    EXPECT_EQ(AttributeJson::typeName(*fromRegistry), name);
    // ...and an attribute made from JSON goes on the wire as that id.
    auto fromJson = make(name, json(samples().at(name)));
    ASSERT_TRUE(fromJson);
    uint32_t typeId = 0;
    uint32_t size = 0;
    EXPECT_TRUE(static_cast<bool>(registry.createSerializer(fromJson.get(), typeId, size)));
    EXPECT_EQ(typeId, id);
  }
  EXPECT_EQ(AttributeJson::typeId("no-such-type"), 0u);
}

TEST(AttributeJson, ValuesOfEveryTypeReadBackAsWritten)
{
  for (const auto& [name, text] : samples()) {
    SCOPED_TRACE(name.toStdString());
    QString error;
    auto attribute = make(name, json(text), &error);
    ASSERT_TRUE(attribute) << error.toStdString();
    EXPECT_EQ(AttributeJson::value(*attribute), json(text));
    // The sample differs from the default, so assigning really changes the attribute.
    auto fresh = make(name, AttributeJson::value(*attribute));
    ASSERT_TRUE(fresh);
    EXPECT_EQ(AttributeJson::value(*fresh), json(text));
  }
}

TEST(AttributeJson, FloatsShowTheirShortestTextAndReadBackUnchanged)
{
  // The samples above hold floats such as 0.9 that only read back as themselves when written
  // with their own shortest digits; here the text itself and the extremes.
  EXPECT_EQ(QJsonDocument(QJsonArray{AttributeJson::value(*make("float", json("0.9")))}).toJson(QJsonDocument::Compact),
            "[0.9]");
  for (const float f : {0.9f, 1e-45f, 3.4028235e38f, -1.17549435e-38f, 16777217.0f, 0.0f}) {
    const double shown = AttributeJson::floatValue(f);
    EXPECT_EQ(float(shown), f) << shown;
    EXPECT_EQ(AttributeJson::value(*make("float", QJsonValue(shown))).toDouble(), shown);
  }
}

TEST(AttributeJson, AlternativeSpellingsAreAccepted)
{
  // A colour without alpha is opaque; a matrix may be one flat array; 64-bit integers may be
  // numbers or text; floats that JSON cannot spell are text.
  EXPECT_EQ(AttributeJson::value(*make("color", json("[1,0,0]"))), json("[1,0,0,1]"));
  EXPECT_EQ(AttributeJson::value(*make("mat2", json("[1,2,3,4]"))), json("[[1,2],[3,4]]"));
  EXPECT_EQ(AttributeJson::value(*make("long", json("\"42\""))), json("42"));
  EXPECT_EQ(AttributeJson::value(*make("ulong", json("4096"))), json("4096"));
  EXPECT_EQ(AttributeJson::value(*make("float", json("\"-inf\""))), json("\"-inf\""));
  EXPECT_EQ(AttributeJson::value(*make("double", json("\"NaN\""))), json("\"nan\""));
  EXPECT_EQ(AttributeJson::value(*make("grid", json("[]"))), json("[]"));
}

TEST(AttributeJson, ValuesThatDoNotFitAreRefusedWithTheReason)
{
  const std::vector<std::tuple<const char*, const char*, const char*>> cases = {
      {"int", "2147483648", "expected an integer from -2147483648 to 2147483647"},
      {"int", "1.5", "expected an integer from -2147483648 to 2147483647"},
      {"uint", "-1", "expected an integer from 0 to 4294967295"},
      {"ulong", "\"-1\"", "expected an integer from 0 to 18446744073709551615"},
      {"long", "\"12x\"", "expected an integer from -9223372036854775808 to 9223372036854775807"},
      {"bool", "1", "expected true or false"},
      {"float", "\"fast\"", "expected a number"},
      {"string", "3", "expected a string"},
      {"vec3f", "[1,2]", "expected an array of 3 numbers"},
      {"vec2i", "[1,2.5]", "item 2: expected an integer from -2147483648 to 2147483647"},
      {"color", "[1,1]", "expected an array of 3 to 4 numbers"},
      {"mat3", "[[1,2,3],[4,5,6],[7,8]]", "expected 3 rows of 3 numbers"},
      {"grid", "[[1,2],[3]]", "item 2: expected a row of 2 integers from 0 to 255"},
      {"grid", "[[1,256]]", "item 1: item 2: expected an integer from 0 to 255"},
      {"stringlist", "[\"a\",1]", "item 2: expected a string"},
      {"timestamp", "\"now\"", "expected a number of seconds"},
  };
  for (const auto& [type, text, reason] : cases) {
    SCOPED_TRACE(std::string(type) + " " + text);
    QString error;
    EXPECT_FALSE(make(type, json(text), &error));
    EXPECT_EQ(error.toStdString(), reason);
  }
  QString error;
  EXPECT_FALSE(make("flaot", json("1"), &error));
  EXPECT_TRUE(error.startsWith("unknown type 'flaot' (known types: bool, color, float,")) << error.toStdString();
}

TEST(AttributeJson, AFailedAssignmentLeavesTheValue)
{
  auto position = make("vec3f", json("[1,2,3]"));
  QString error;
  EXPECT_FALSE(AttributeJson::assign(*position, json("[4,5,\"x\"]"), &error));
  EXPECT_EQ(error, "item 3: expected a number");
  EXPECT_EQ(AttributeJson::value(*position), json("[1,2,3]"));
  EXPECT_TRUE(AttributeJson::assign(*position, json("[4,5,6]"), &error));
  EXPECT_EQ(AttributeJson::value(*position), json("[4,5,6]"));

  Carafe::Attribute plain;
  EXPECT_FALSE(AttributeJson::assign(plain, json("1"), &error));
  EXPECT_EQ(error, "this kind of attribute cannot be set");
  EXPECT_TRUE(AttributeJson::typeName(plain).isEmpty());
  EXPECT_TRUE(AttributeJson::value(plain).isNull());
}

TEST(AttributeJson, TypesLeftOutAreInferredOnlyWhereTheyReadBackTheSame)
{
  EXPECT_EQ(AttributeJson::inferType(json("true")), "bool");
  EXPECT_EQ(AttributeJson::inferType(json("\"x\"")), "string");
  EXPECT_EQ(AttributeJson::inferType(json("-2147483648")), "int");
  EXPECT_EQ(AttributeJson::inferType(json("2147483648")), "double");
  EXPECT_EQ(AttributeJson::inferType(json("0.5")), "double");
  EXPECT_EQ(AttributeJson::inferType(json("[\"a\"]")), "stringlist");
  EXPECT_EQ(AttributeJson::inferType(json("[]")), "");
  EXPECT_EQ(AttributeJson::inferType(json("[1,2]")), "");
  EXPECT_EQ(AttributeJson::inferType(json("null")), "");

  EXPECT_TRUE(AttributeJson::canOmitType("double", json("0.5")));
  EXPECT_FALSE(AttributeJson::canOmitType("double", json("2")));
  EXPECT_FALSE(AttributeJson::canOmitType("float", json("0.5")));
  EXPECT_FALSE(AttributeJson::canOmitType("string[]", json("[\"a\"]")));
  EXPECT_FALSE(AttributeJson::canOmitType("stringlist", json("[]")));
}
