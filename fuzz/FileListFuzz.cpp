// Arbitrary bytes as a script of changes to a shared folder between and during file list rebuilds:
// files written, folders made, links to places inside and outside the folder, FIFOs, renames and
// removals, some of them made while a rebuild is hashing. After every rebuild no row may carry the
// checksum of a file outside the folder; after a rebuild that nothing disturbed, every row must name
// a regular file below the folder with exactly that file's MD5 and size. A violation aborts.
//
// Every change goes through a RootDirectory, so the script itself never touches anything outside
// the folder; the file outside is checked to be intact after each input.

#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTestSupport.hpp"
#include "plexa/files/ProgressSender.hpp"
#include "plexa/files/RootDirectory.hpp"

#include "bastion/Log.hpp"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// Operations a script holds at most: keeps every input fast.
  constexpr size_t MaxOperations = 200;

  [[noreturn]] void violation(const char* what, const QString& path)
  {
    fprintf(stderr, "FileListFuzz: %s: %s\n", what, path.toUtf8().constData());
    abort();
  }

  struct Fixture
  {
    Fixture()
    {
      Bastion::setLogHandler([](Bastion::LogLevel, const QByteArray&) {});
      writeFile(outside.path() + "/secret", secret);
      store.reset(new AssetBase(root.path()));
      store->waitForFileList();
      canonicalRoot = store->rootPath();
    }
    QTemporaryDir root, outside;
    const QByteArray secret = "outside the shared folder";
    std::unique_ptr<AssetBase> store;
    QString canonicalRoot;
  };

  Fixture& fixture()
  {
    static Fixture f;
    return f;
  }

  /// Reads the script: each operation takes a code byte and the bytes its arguments need.
  class Script
  {
  public:
    Script(const uint8_t* data, size_t size)
        : m_data(data)
        , m_size(size)
    {
    }
    bool atEnd() const { return m_pos >= m_size; }
    uint8_t byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    /// A path of one to three names from a small alphabet, so that operations meet each other.
    QByteArray path()
    {
      const uint8_t b = byte();
      QByteArray result;
      for (int i = 0, depth = 1 + b % 3; i < depth; ++i)
        result += '/' + QByteArray(1, char('a' + (b >> (2 + 2 * i)) % 4));
      return result;
    }

  private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
  };

  QByteArray parentOf(const QByteArray& path)
  {
    return path.left(path.lastIndexOf('/'));
  }

  QByteArray nameOf(const QByteArray& path)
  {
    return path.mid(path.lastIndexOf('/') + 1);
  }

  /// One change of the folder, read from the script.
  void change(Script& script, const RootDirectory& dir)
  {
    // Every content written gets a modification time of its own, so that a row whose time matches
    // its file always holds that file's content.
    static int64_t clock = 1600000000;
    const uint8_t code = script.byte() % 7;
    const QByteArray path = script.path();
    switch (code) {
    case 0: {
      dir.makeDirectories(parentOf(path));
      const int fd = dir.open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK, 0644);
      if (fd < 0)
        return;
      QByteArray content = "inside " + QByteArray::number(qlonglong(++clock));
      content += QByteArray(script.byte() % 64, char(script.byte()));
      writeAllFd(fd, content.constData(), size_t(content.size()));
      const struct timespec times[2] = {{clock, 0}, {clock, 0}};
      futimens(fd, times);
      ::close(fd);
      return;
    }
    case 1:
      dir.makeDirectories(path);
      return;
    case 2:
    case 3:
    case 4: {
      const int parent = dir.open(parentOf(path), O_PATH | O_DIRECTORY);
      if (parent < 0)
        return;
      const uint8_t choice = script.byte();
      const QString root = fixture().root.path(), outside = fixture().outside.path();
      const QString targets[] = {QStringLiteral("a"), QStringLiteral("../b"),     root + "/c", root + "/a/b", outside,
                                 outside + "/secret", QStringLiteral("../../.."), root + "/.."};
      if (code == 4)
        mkfifoat(parent, nameOf(path).constData(), 0644);
      else
        symlinkat(QFile::encodeName(targets[(code == 2 ? 0 : 4) + choice % 4]).constData(), parent,
                  nameOf(path).constData());
      ::close(parent);
      return;
    }
    case 5:
      dir.rename(path, script.path());
      return;
    default:
      if (!dir.remove(path, RootDirectory::Links::Refused))
        dir.removeDirectory(path);
      return;
    }
  }

  /// Runs the next changes of the script while a rebuild hashes, one after each file it reports.
  class Disturber : public ProgressSender
  {
  public:
    Disturber(Script& script, const RootDirectory& dir, int count)
        : m_script(script)
        , m_dir(dir)
        , m_left(count)
    {
    }
    void transferInfo(const QString&) override
    {
      if (m_left > 0 && !m_script.atEnd()) {
        --m_left;
        change(m_script, m_dir);
      }
    }

  private:
    Script& m_script;
    const RootDirectory& m_dir;
    int m_left;
  };

  /// Whatever happened during the rebuild, the file outside was never hashed into the list.
  void checkNothingFromOutside(const AssetBase::FileList& list)
  {
    const QByteArray secretMd5 = QCryptographicHash::hash(fixture().secret, QCryptographicHash::Md5);
    for (auto it = list.cbegin(); it != list.cend(); ++it)
      if (it->md5 == secretMd5)
        violation("a row holds the checksum of the file outside", it.key());
  }

  /// After an undisturbed rebuild: each row names a regular file below the root, with its checksum.
  void checkRowsMatchFiles(const AssetBase::FileList& list)
  {
    const QString root = fixture().canonicalRoot;
    for (auto it = list.cbegin(); it != list.cend(); ++it) {
      char resolved[PATH_MAX];
      if (!realpath(QFile::encodeName(root + it.key()).constData(), resolved))
        violation("a row names nothing", it.key());
      if (!QFile::decodeName(resolved).startsWith(root + '/'))
        violation("a row names a file outside the root", it.key());
      const int fd = ::open(resolved, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
      struct stat st;
      if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        violation("a row names no regular file", it.key());
      QCryptographicHash hash(QCryptographicHash::Md5);
      char block[4096];
      qint64 size = 0;
      ssize_t got;
      while ((got = ::read(fd, block, sizeof block)) > 0) {
        hash.addData(block, int(got));
        size += got;
      }
      ::close(fd);
      if (got < 0 || hash.result() != it->md5 || size != it->size)
        violation("a row's checksum or size is not its file's", it.key());
    }
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  Fixture& f = fixture();
  for (const QFileInfo& entry :
       QDir(f.root.path()).entryInfoList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden | QDir::System)) {
    if (entry.isDir() && !entry.isSymLink())
      QDir(entry.filePath()).removeRecursively();
    else
      QFile::remove(entry.filePath());
  }
  Script script(data, size);
  RootDirectory::setKernelResolveEnabled(script.byte() % 2 == 0);
  const RootDirectory dir(f.root.path());
  for (size_t done = 0; done < MaxOperations && !script.atEnd(); ++done) {
    const uint8_t op = script.byte();
    if (op % 8 == 7) {
      Disturber disturber(script, dir, 1 + op / 8 % 8);
      checkNothingFromOutside(f.store->buildFileList(&disturber));
      checkRowsMatchFiles(f.store->buildFileList(nullptr));
    } else if (op % 8 == 6) {
      checkRowsMatchFiles(f.store->buildFileList(nullptr));
    } else {
      change(script, dir);
    }
  }
  checkRowsMatchFiles(f.store->buildFileList(nullptr));
  if (readFile(f.outside.path() + "/secret") != f.secret ||
      QDir(f.outside.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden).size() != 1)
    violation("the folder outside was changed", f.outside.path());
  RootDirectory::setKernelResolveEnabled(true);
  return 0;
}
