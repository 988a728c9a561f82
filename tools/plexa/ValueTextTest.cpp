#include "ValueText.hpp"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using Plexa::Cli::Assignment;
using Plexa::Cli::ValueText;

namespace
{
  QJsonValue json(const char* text)
  {
    return QJsonDocument::fromJson(QByteArray("[") + text + "]").array().at(0);
  }

  QJsonValue parsed(const QString& text, const QString& type)
  {
    QJsonValue value;
    QString error;
    EXPECT_TRUE(ValueText::parseValue(text, type, value, &error)) << error.toStdString();
    return value;
  }
}

TEST(ValueText, AssignmentsSplitIntoPathTypeAndText)
{
  Assignment a;
  QString error;
  ASSERT_TRUE(ValueText::parseAssignment("light/intensity=0.75", QString(), a, &error));
  EXPECT_EQ(a.path, "light/intensity");
  EXPECT_EQ(a.type, "");
  EXPECT_EQ(a.text, "0.75");

  ASSERT_TRUE(ValueText::parseAssignment("/light/colour:color=1,0.5,0", QString(), a, &error));
  EXPECT_EQ(a.path, "light/colour");
  EXPECT_EQ(a.type, "color");
  EXPECT_EQ(a.text, "1,0.5,0");

  // The text keeps further '=' signs; the default type stands in for a missing one.
  ASSERT_TRUE(ValueText::parseAssignment("note=a=b", "string", a, &error));
  EXPECT_EQ(a.type, "string");
  EXPECT_EQ(a.text, "a=b");
  ASSERT_TRUE(ValueText::parseAssignment("n:int=3", "string", a, &error));
  EXPECT_EQ(a.type, "int");
}

TEST(ValueText, BadAssignmentsSayWhatIsWrong)
{
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"light", "'light' is not PATH=VALUE"},
      {"=1", "'=1' has no valid path before '=' (names separated by '/')"},
      {"a//b=1", "'a//b=1' has no valid path before '=' (names separated by '/')"},
      {"a/=1", "'a/=1' has no valid path before '=' (names separated by '/')"},
      {"x:float=fast", "x: 'fast' is not a float value (illegal value)"},
      {"x:vec3f=1,2", "x: not a vec3f value: expected an array of 3 numbers"},
  };
  for (const auto& [argument, reason] : cases) {
    Assignment a;
    QString error;
    EXPECT_FALSE(ValueText::parseAssignment(argument, QString(), a, &error)) << argument;
    EXPECT_EQ(error.toStdString(), reason);
  }
  Assignment a;
  QString error;
  EXPECT_FALSE(ValueText::parseAssignment("x:flaot=1", QString(), a, &error));
  EXPECT_TRUE(error.startsWith("unknown type 'flaot' in 'x:flaot=1' (known types: bool,")) << error.toStdString();
}

TEST(ValueText, ValuesReadAsJsonWithListsWithoutBrackets)
{
  EXPECT_EQ(parsed("0.75", ""), json("0.75"));
  EXPECT_EQ(parsed("true", ""), json("true"));
  EXPECT_EQ(parsed("1,0.5,0", "color"), json("[1,0.5,0]"));
  EXPECT_EQ(parsed("[1, 0.5, 0]", "color"), json("[1,0.5,0]"));
  EXPECT_EQ(parsed("[1,2],[3,4]", "mat2"), json("[[1,2],[3,4]]"));
  EXPECT_EQ(parsed("[[1,2],[3,4]]", "mat2"), json("[[1,2],[3,4]]"));
  EXPECT_EQ(parsed("\"3\"", ""), json("\"3\""));
  // Text that is no JSON is a string when nothing says otherwise.
  EXPECT_EQ(parsed("Key light", ""), json("\"Key light\""));
  EXPECT_EQ(parsed("hello, world", ""), json("\"hello, world\""));
}

TEST(ValueText, StringAndListTypesTakeTheTextTheirWay)
{
  EXPECT_EQ(parsed("3", "string"), json("\"3\""));
  EXPECT_EQ(parsed(" spaced ", "asset"), json("\" spaced \""));
  EXPECT_EQ(parsed("warm, soft", "stringlist"), json("[\"warm\",\"soft\"]"));
  EXPECT_EQ(parsed("\"a\",\"b\"", "string[]"), json("[\"a\",\"b\"]"));
  EXPECT_EQ(parsed("3", "float[]"), json("[3]"));
  EXPECT_EQ(parsed("", "int[]"), json("[]"));
  EXPECT_EQ(parsed("", ""), json("\"\""));
  EXPECT_EQ(parsed("", "string"), json("\"\""));

  QJsonValue value;
  QString error;
  EXPECT_FALSE(ValueText::parseValue("1,,2", "float[]", value, &error));
  EXPECT_TRUE(error.startsWith("'1,,2' is not a float[] value (")) << error.toStdString();
}
