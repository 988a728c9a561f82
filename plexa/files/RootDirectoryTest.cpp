#include "plexa/files/RootDirectory.hpp"
#include "plexa/files/FileTestSupport.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// Runs every case twice: with the kernel's resolution and with the component walk.
  class RootDirectoryTest : public ::testing::TestWithParam<bool>
  {
  protected:
    void SetUp() override
    {
      RootDirectory::setKernelResolveEnabled(GetParam());
      ASSERT_TRUE(writeFile(m_outside.path() + "/secret", "secret"));
      ASSERT_TRUE(writeFile(root() + "/dir/inside.txt", "inside"));
      ASSERT_TRUE(QFile::link(m_outside.path(), root() + "/out"));
      ASSERT_TRUE(QFile::link(m_outside.path() + "/secret", root() + "/secret-link"));
      ASSERT_TRUE(QFile::link("../..", root() + "/dir/up"));
    }
    void TearDown() override { RootDirectory::setKernelResolveEnabled(true); }
    QString root() const { return m_root.path(); }

    /// Opens and reads a whole file below the root; "<errno name>" on failure.
    QByteArray readBelow(const RootDirectory& dir, const QByteArray& path)
    {
      const int fd = dir.open(path, O_RDONLY);
      if (fd < 0)
        return RootDirectory::isEscapeError(errno) ? "<escape>" : "<error>";
      char buffer[64];
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      ::close(fd);
      return QByteArray(buffer, int(std::max<ssize_t>(n, 0)));
    }

    QTemporaryDir m_root, m_outside;
  };
}

TEST_P(RootDirectoryTest, PathsNeverLeaveTheRoot)
{
  const RootDirectory dir(root());
  ASSERT_TRUE(dir.isOpen());
  EXPECT_EQ(readBelow(dir, "/dir/inside.txt"), "inside");
  EXPECT_EQ(readBelow(dir, "//dir/./inside.txt"), "inside");
  EXPECT_EQ(readBelow(dir, "/dir/../dir/inside.txt"), "<escape>");
  EXPECT_EQ(readBelow(dir, "/../" + QFile::encodeName(QFileInfo(m_outside.path()).fileName()) + "/secret"), "<escape>");
  EXPECT_EQ(readBelow(dir, "/out/secret"), "<escape>");
  EXPECT_EQ(readBelow(dir, "/secret-link"), "<escape>");
  EXPECT_EQ(readBelow(dir, "/dir/up/secret"), "<escape>");
  EXPECT_EQ(readBelow(dir, "/missing"), "<error>");

  EXPECT_TRUE(RootDirectory::isConfined("/a/b..c/d"));
  EXPECT_FALSE(RootDirectory::isConfined("/a/../b"));
  EXPECT_FALSE(RootDirectory::isConfined("a/b"));

  // Creating folders, renaming and deleting obey the same rule.
  EXPECT_TRUE(dir.makeDirectories("/new/deep/folder"));
  EXPECT_TRUE(QFileInfo(root() + "/new/deep/folder").isDir());
  EXPECT_FALSE(dir.makeDirectories("/out/created"));
  EXPECT_FALSE(QFileInfo::exists(m_outside.path() + "/created"));
  EXPECT_FALSE(dir.rename("/dir/inside.txt", "/out/moved"));
  EXPECT_FALSE(QFileInfo::exists(m_outside.path() + "/moved"));
  EXPECT_FALSE(dir.remove("/out/secret"));
  EXPECT_TRUE(QFileInfo::exists(m_outside.path() + "/secret"));
  const int created = dir.open("/out/new", O_WRONLY | O_CREAT, 0644);
  EXPECT_LT(created, 0);
  EXPECT_FALSE(QFileInfo::exists(m_outside.path() + "/new"));

  EXPECT_TRUE(dir.rename("/dir/inside.txt", "/new/deep/folder/moved.txt"));
  EXPECT_EQ(readFile(root() + "/new/deep/folder/moved.txt"), "inside");
  // Renaming a link moves the link, never what it points to.
  EXPECT_TRUE(dir.remove("/secret-link"));
  EXPECT_EQ(readFile(m_outside.path() + "/secret"), "secret");
}

INSTANTIATE_TEST_SUITE_P(Resolution, RootDirectoryTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return std::string(info.param ? "Kernel" : "ComponentWalk");
                         });
