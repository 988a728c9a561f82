#include "plexa/files/FileTransferCommand.hpp"
#include "plexa/files/FileTransferFormat.hpp"

#include <QRegExp>
#include <QStringList>

#include <gtest/gtest.h>

#include <random>

using namespace Plexa;

namespace
{
  /// The protocol's definition: the four expressions, tried in order, matched whole; the path made
  /// canonical, and no command when that leaves no name.
  FileTransferCommand reference(const QString& line)
  {
    const char* patterns[] = {FileInfoExpression, SendFileInfoExpression, FilePartExpression, SendPartsExpression};
    const FileTransferCommand::Kind kinds[] = {FileTransferCommand::FileInfo, FileTransferCommand::SendFileInfo,
                                               FileTransferCommand::FilePart, FileTransferCommand::SendParts};
    for (int i = 0; i < 4; ++i) {
      QRegExp expression(QString::fromLatin1(patterns[i]).arg(QString::fromLatin1(PathPattern)));
      if (!expression.exactMatch(line))
        continue;
      FileTransferCommand c;
      c.kind = kinds[i];
      if (c.kind == FileTransferCommand::FileInfo) {
        c.first = expression.cap(1);
        c.path = expression.cap(2);
        c.second = expression.cap(3);
        c.md5 = expression.cap(4);
      } else {
        c.path = expression.cap(1);
        if (c.kind == FileTransferCommand::FilePart) {
          c.first = expression.cap(2);
          c.second = expression.cap(3);
        }
      }
      QStringList names = c.path.split('/', Qt::SkipEmptyParts);
      names.removeAll(".");
      if (names.isEmpty())
        return FileTransferCommand();
      c.path = '/' + names.join('/');
      return c;
    }
    return FileTransferCommand();
  }

  ::testing::AssertionResult agrees(const QString& line)
  {
    const FileTransferCommand got = FileTransferCommand::parse(line), want = reference(line);
    if (got.kind == want.kind && got.path == want.path && got.first == want.first && got.second == want.second &&
        got.md5 == want.md5)
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "line '" << line.toStdString() << "': parsed kind " << got.kind << " path '"
                                         << got.path.toStdString() << "', expected kind " << want.kind << " path '"
                                         << want.path.toStdString() << "'";
  }

  const QStringList validLines = {
      "fileinfo 123 \"/a/b c.txt\" 1 0123456789abcdef0123456789abcdef",
      "fileinfo -5 \"//x/\" 0 d41d8cd98f00b204e9800998ecf8427e",
      "sendfileinfo \"/dir/file\"",
      "filepart \"/a..b\" 65536 12",
      "sendparts \"/x\"",
  };
}

TEST(FileTransferCommand, ReadsEachCommand)
{
  FileTransferCommand c = FileTransferCommand::parse(validLines.at(0));
  EXPECT_EQ(c.kind, FileTransferCommand::FileInfo);
  EXPECT_EQ(c.path, "/a/b c.txt");
  EXPECT_EQ(c.first, "123");
  EXPECT_EQ(c.second, "1");
  EXPECT_EQ(c.md5, "0123456789abcdef0123456789abcdef");
  c = FileTransferCommand::parse(validLines.at(3));
  EXPECT_EQ(c.kind, FileTransferCommand::FilePart);
  EXPECT_EQ(c.path, "/a..b");
  EXPECT_EQ(c.first, "65536");
  EXPECT_EQ(c.second, "12");
  for (const QString& line : validLines)
    EXPECT_TRUE(agrees(line));
}

TEST(FileTransferCommand, PathsComeOutCanonical)
{
  EXPECT_EQ(FileTransferCommand::parse("sendparts \"//a/./b//\"").path, "/a/b");
  EXPECT_EQ(FileTransferCommand::parse("fileinfo -5 \"//x/\" 0 d41d8cd98f00b204e9800998ecf8427e").path, "/x");
  EXPECT_EQ(FileTransferCommand::parse("filepart \"/./a/../b\" 1 1").path, "/a/../b");
  EXPECT_EQ(FileTransferCommand::parse("sendfileinfo \"/./.\"").kind, FileTransferCommand::None);
  EXPECT_EQ(FileTransferCommand::parse("sendfileinfo \"//\"").kind, FileTransferCommand::None);
}

TEST(FileTransferCommand, RefusesEachCorruption)
{
  const QStringList refused = {
      "",
      "sendparts",
      "sendparts \"\"",         // empty path
      "sendparts \"/\"",        // a slash without a name
      "sendparts \"relative\"", // no leading slash
      "sendparts \"/a\" ",      // trailing blank
      " sendparts \"/a\"",      // leading blank
      "sendparts \"/a?\"",      // reserved characters
      "sendparts \"/a*\"",
      "sendparts \"/a<\"",
      "sendparts \"/a>\"",
      "sendparts \"/a:b\"",
      "sendparts \"/a\"b\"",                                   // quote inside
      "sendparts \"/a",                                        // unterminated
      "Sendparts \"/a\"",                                      // case
      "filepart \"/a\" -1 1",                                  // negative count
      "filepart \"/a\" 1",                                     // missing number
      "filepart \"/a\" 1 2 3",                                 // extra number
      "filepart \"/a\" 1x 2",                                  // not a number
      "fileinfo 1 \"/a\" 1 0123456789ABCDEF0123456789abcdef",  // upper-case digest
      "fileinfo 1 \"/a\" 1 0123456789abcdef0123456789abcde",   // short digest
      "fileinfo 1 \"/a\" 1 0123456789abcdef0123456789abcdef0", // long digest
      "fileinfo 1 \"/a\" 1 ",                                  // empty digest (unlisted file)
      "fileinfo - \"/a\" 1 0123456789abcdef0123456789abcdef",  // sign without digits
      "fileinfo 1 \"/a\" -1 0123456789abcdef0123456789abcdef", // negative part count
  };
  for (const QString& line : refused) {
    EXPECT_EQ(FileTransferCommand::parse(line).kind, FileTransferCommand::None) << line.toStdString();
    EXPECT_TRUE(agrees(line));
  }
}

TEST(FileTransferCommand, BitFlipsAgreeWithTheProtocolExpressions)
{
  std::mt19937 engine(20260101);
  int checked = 0;
  for (const QString& line : validLines) {
    const QByteArray bytes = line.toUtf8();
    for (int round = 0; round < 400; ++round) {
      QByteArray flipped = bytes;
      const int flips = 1 + int(engine() % 3);
      for (int f = 0; f < flips; ++f)
        flipped.data()[engine() % unsigned(flipped.size())] ^= char(1 << (engine() % 7));
      ASSERT_TRUE(agrees(QString::fromUtf8(flipped)));
      ++checked;
    }
  }
  EXPECT_EQ(checked, 2000);
}
