#include "TreeJson.hpp"

#include "AttributeJson.hpp"

#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using Plexa::Cli::TreeJson;

namespace
{
  const char* const SceneJson = R"({
  "light": {
    "colour": {"$type": "color", "value": [1, 0.5, 0, 1]},
    "intensity": {"$type": "float", "value": 0.75},
    "name": "key",
    "on": true,
    "samples": 16,
    "gain": 1.5,
    "tags": ["warm", "soft"]
  },
  "empty": {},
  "mesh": {"points": {"$type": "vec2f[]", "value": [[0, 0], [1, 2]]}}
})";

  Carafe::Attribute* at(Carafe::Node& root, const QByteArray& path)
  {
    Carafe::Attribute* current = &root;
    for (const QByteArray& part : path.split('/')) {
      auto* node = dynamic_cast<Carafe::Node*>(current);
      current = node ? node->attribute(part) : nullptr;
    }
    return current;
  }

  QString typeAt(Carafe::Node& root, const QByteArray& path)
  {
    Carafe::Attribute* a = at(root, path);
    return a ? Plexa::Cli::AttributeJson::typeName(*a) : QString("missing");
  }
}

TEST(TreeJson, LoadsNodesShortAndTypedValuesAndSavesThemBackTheSame)
{
  Carafe::Node root;
  QString error;
  ASSERT_TRUE(TreeJson::load(SceneJson, root, &error)) << error.toStdString();
  EXPECT_EQ(typeAt(root, "light/colour"), "color");
  EXPECT_EQ(typeAt(root, "light/intensity"), "float");
  EXPECT_EQ(typeAt(root, "light/name"), "string");
  EXPECT_EQ(typeAt(root, "light/on"), "bool");
  EXPECT_EQ(typeAt(root, "light/samples"), "int");
  EXPECT_EQ(typeAt(root, "light/gain"), "double");
  EXPECT_EQ(typeAt(root, "light/tags"), "stringlist");
  EXPECT_EQ(typeAt(root, "mesh/points"), "vec2f[]");
  ASSERT_TRUE(dynamic_cast<Carafe::Node*>(at(root, "empty")));
  EXPECT_EQ(dynamic_cast<Carafe::Node*>(at(root, "empty"))->attributeCount(), 0);
  EXPECT_EQ(static_cast<Carafe::AttributeT<float>*>(at(root, "light/intensity"))->value(), 0.75f);

  // Saved, the document is the one loaded (members compare regardless of order).
  EXPECT_EQ(TreeJson::save(root), QJsonDocument::fromJson(SceneJson).object());

  // And a second tree loaded from the saved text saves the same again.
  Carafe::Node copy;
  ASSERT_TRUE(TreeJson::load(TreeJson::saveText(root), copy, &error)) << error.toStdString();
  EXPECT_EQ(TreeJson::save(copy), TreeJson::save(root));
}

TEST(TreeJson, IntegralDoublesAndFloatsKeepTheirTypeThroughSaving)
{
  Carafe::Node root;
  root.addAttribute("d", new Carafe::AttributeT<double>(2.0));
  root.addAttribute("f", new Carafe::AttributeT<float>(0.5f));
  root.addAttribute("i", new Carafe::AttributeT<int>(2));
  Carafe::Node copy;
  ASSERT_TRUE(TreeJson::load(TreeJson::saveText(root), copy, nullptr));
  EXPECT_EQ(typeAt(copy, "d"), "double");
  EXPECT_EQ(typeAt(copy, "f"), "float");
  EXPECT_EQ(typeAt(copy, "i"), "int");
}

TEST(TreeJson, MalformedJsonIsReportedWithLineAndColumn)
{
  Carafe::Node root;
  QString error;
  EXPECT_FALSE(TreeJson::load("{\n  \"a\": 1,\n  \"b\": ?\n}", root, &error));
  EXPECT_TRUE(error.startsWith("3:8: ")) << error.toStdString();
  EXPECT_FALSE(TreeJson::load("{\"a\": 1", root, &error));
  EXPECT_TRUE(error.startsWith("1:8: ")) << error.toStdString();
  EXPECT_FALSE(TreeJson::load("[1, 2]", root, &error));
  EXPECT_EQ(error, "1:1: the tree must be a JSON object");
  EXPECT_EQ(root.attributeCount(), 0);

  // Columns count characters, not bytes.
  int line = 0;
  int column = 0;
  TreeJson::lineAndColumn("{\"\xc3\xa9\xc3\xa9\": x", 9, line, column);
  EXPECT_EQ(line, 1);
  EXPECT_EQ(column, 8);
  TreeJson::lineAndColumn("a\nb", 1000, line, column);
  EXPECT_EQ(line, 2);
  EXPECT_EQ(column, 2);
}

TEST(TreeJson, AValueThatDoesNotFitNamesItsPathAndAddsNothing)
{
  Carafe::Node root;
  root.addAttribute("existing", new Carafe::AttributeT<int>(1));
  const std::vector<std::pair<const char*, const char*>> cases = {
      {R"({"a": {"b": {"$type": "vec3f", "value": [1]}}})", "a/b: expected an array of 3 numbers"},
      {R"({"a": {"b": {"$type": "vec3f"}}})", "a/b: missing \"value\""},
      {R"({"a": {"$type": "int", "value": 1, "unit": "m"}})", "a: unexpected member \"unit\" beside \"$type\""},
      {R"({"a": null})", "a: cannot tell the type of this value; write it as {\"$type\": TYPE, \"value\": ...}"},
      {R"({"a": [1, 2]})", "a: cannot tell the type of this value; write it as {\"$type\": TYPE, \"value\": ...}"},
      {R"({"a/b": 1})", "a/b: a name must not be empty or contain '/'"},
      {R"({"n": {"": 1}})", "n/: a name must not be empty or contain '/'"},
      {R"({"fresh": 1, "existing": 2})", "existing: already exists"},
  };
  for (const auto& [text, reason] : cases) {
    QString error;
    EXPECT_FALSE(TreeJson::load(text, root, &error)) << text;
    EXPECT_EQ(error.toStdString(), reason);
    EXPECT_EQ(root.attributeCount(), 1) << text;
  }
  QString error;
  EXPECT_FALSE(TreeJson::load(R"({"a": {"$type": 3, "value": 1}})", root, &error));
  EXPECT_TRUE(error.startsWith("a: \"$type\" is not a type name (known types: bool, color,")) << error.toStdString();
  EXPECT_FALSE(TreeJson::load(R"({"a": {"$type": "flaot", "value": 1}})", root, &error));
  EXPECT_TRUE(error.startsWith("a: 'flaot' is not a type name (known types: bool, color,")) << error.toStdString();
}

TEST(TreeJson, FilesReportTheirNameInFrontOfTheError)
{
  QTemporaryDir dir;
  ASSERT_TRUE(dir.isValid());
  const QString name = dir.filePath("tree.json");
  QFile file(name);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write("{\n  \"a\": 1,\n}");
  file.close();

  Carafe::Node root;
  QString error;
  EXPECT_FALSE(TreeJson::loadFile(name, root, &error));
  // Qt places this error just behind the closing brace.
  EXPECT_TRUE(error.startsWith(name + ":3:2: ")) << error.toStdString();

  ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
  file.write(R"({"a": {"$type": "int", "value": "x"}})");
  file.close();
  EXPECT_FALSE(TreeJson::loadFile(name, root, &error));
  EXPECT_EQ(error, name + ": a: expected an integer from -2147483648 to 2147483647");

  EXPECT_FALSE(TreeJson::loadFile(dir.filePath("missing.json"), root, &error));
  EXPECT_TRUE(error.startsWith(dir.filePath("missing.json") + ": ")) << error.toStdString();
}

TEST(TreeJson, AliasesAreSavedAsTheirTargetsValueAndOtherClassesAsUnsupported)
{
  Carafe::Node root;
  auto* value = new Carafe::AttributeT<int>(5);
  root.addAttribute("value", value);
  auto* alias = new Carafe::AttributeAlias();
  alias->setAttribute(value);
  root.addAttribute("alias", alias);
  root.addAttribute("plain", new Carafe::Attribute());
  auto* toNode = new Carafe::AttributeAlias();
  toNode->setAttribute(&root);
  root.addAttribute("loop", toNode);

  const QJsonObject saved = TreeJson::save(root);
  EXPECT_EQ(saved.value("alias"), QJsonValue(5));
  EXPECT_EQ(saved.value("plain").toObject().value("$type"), "unsupported");
  EXPECT_EQ(saved.value("loop").toObject().value("$type"), "unsupported");

  Carafe::Node copy;
  QString error;
  EXPECT_FALSE(TreeJson::load(QJsonDocument(saved).toJson(), copy, &error));
  EXPECT_TRUE(error.contains("'unsupported' is not a type name")) << error.toStdString();
}
