#include "plexa/files/RootDirectory.hpp"

#include "bastion/Log.hpp"

#include <QFile>

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Plexa
{
  namespace
  {
    std::atomic<bool> g_kernelResolve{true};

    /// Closes a descriptor on scope exit without disturbing errno.
    class FdHolder
    {
    public:
      explicit FdHolder(int fd)
          : m_fd(fd)
      {
      }
      ~FdHolder()
      {
        if (m_fd >= 0) {
          const int saved = errno;
          ::close(m_fd);
          errno = saved;
        }
      }
      FdHolder(const FdHolder&) = delete;
      FdHolder& operator=(const FdHolder&) = delete;
      int get() const { return m_fd; }

    private:
      int m_fd;
    };

    long openat2Beneath(int dirFd, const char* path, int flags, mode_t mode, bool followLinks = true)
    {
      struct open_how how = {};
      how.flags = uint64_t(unsigned(flags));
      // O_TMPFILE includes O_DIRECTORY's bit: test it whole, or a folder opened with a mode fails.
      how.mode = ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) ? mode : 0;
      how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS | (followLinks ? 0 : RESOLVE_NO_SYMLINKS);
      long fd;
      do {
        fd = syscall(SYS_openat2, dirFd, path, &how, sizeof how);
      } while (fd < 0 && errno == EINTR);
      return fd;
    }

    /// Asks the kernel once whether openat2 works at all, so that an EPERM of a real file (an
    /// immutable one, say) is never mistaken for a filtered system call.
    bool kernelHasOpenat2()
    {
      static const bool available = [] {
        const long fd = openat2Beneath(AT_FDCWD, ".", O_PATH | O_CLOEXEC, 0);
        if (fd >= 0) {
          ::close(int(fd));
          return true;
        }
        return errno != ENOSYS && errno != EPERM;
      }();
      return available;
    }
  }

  RootDirectory::RootDirectory(const QString& root)
  {
    const QByteArray name = QFile::encodeName(root.isEmpty() ? QStringLiteral("/") : root);
    do {
      m_fd = ::open(name.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    } while (m_fd < 0 && errno == EINTR);
  }

  RootDirectory::~RootDirectory()
  {
    if (m_fd >= 0)
      ::close(m_fd);
  }

  QByteArray RootDirectory::encode(const QString& path)
  {
    return QFile::encodeName(path);
  }

  bool RootDirectory::isConfined(const QByteArray& path)
  {
    QList<QByteArray> parts;
    return path.startsWith('/') && components(path, parts);
  }

  bool RootDirectory::isEscapeError(int error)
  {
    // EXDEV: the kernel refused a resolution that leaves the directory; ELOOP: the walk met a
    // symbolic link.
    return error == EXDEV || error == ELOOP;
  }

  bool RootDirectory::kernelResolveEnabled()
  {
    return g_kernelResolve.load(std::memory_order_relaxed) && kernelHasOpenat2();
  }

  void RootDirectory::setKernelResolveEnabled(bool enabled)
  {
    g_kernelResolve.store(enabled, std::memory_order_relaxed);
  }

  bool RootDirectory::components(const QByteArray& path, QList<QByteArray>& result)
  {
    result.clear();
    for (const QByteArray& part : path.split('/')) {
      if (part.isEmpty() || part == ".")
        continue;
      if (part == "..")
        return false;
      result.append(part);
    }
    return true;
  }

  QByteArray RootDirectory::join(const QList<QByteArray>& parts, int count)
  {
    if (count == 0)
      return QByteArrayLiteral(".");
    QByteArray joined = parts.at(0);
    for (int i = 1; i < count; ++i)
      joined += '/' + parts.at(i);
    return joined;
  }

  int RootDirectory::openComponents(const QList<QByteArray>& parts, int count, int flags, mode_t mode,
                                    Links links) const
  {
    if (m_fd < 0) {
      errno = EBADF;
      return -1;
    }
    flags |= O_CLOEXEC;
    if (kernelResolveEnabled())
      return int(openat2Beneath(m_fd, join(parts, count).constData(), flags, mode, links == Links::Beneath));

    if (count == 0)
      return ::openat(m_fd, ".", flags, mode);
    int current = m_fd;
    for (int i = 0; i + 1 < count; ++i) {
      const int next = ::openat(current, parts.at(i).constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (next < 0 && errno == ENOTDIR) {
        // Report a symbolic link on the way as such, like the final component's O_NOFOLLOW does.
        struct stat st;
        if (::fstatat(current, parts.at(i).constData(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
          errno = ELOOP;
        else
          errno = ENOTDIR;
      }
      FdHolder previous(current == m_fd ? -1 : current);
      if (next < 0)
        return -1;
      current = next;
    }
    FdHolder parent(current == m_fd ? -1 : current);
    int fd;
    do {
      fd = ::openat(current, parts.at(count - 1).constData(), flags | O_NOFOLLOW, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
  }

  int RootDirectory::open(const QByteArray& path, int flags, mode_t mode, Links links) const
  {
    QList<QByteArray> parts;
    if (!components(path, parts)) {
      errno = EXDEV;
      return -1;
    }
    return openComponents(parts, parts.size(), flags, mode, links);
  }

  int RootDirectory::openParent(const QByteArray& path, QByteArray& name, Links links, int flags) const
  {
    QList<QByteArray> parts;
    if (!components(path, parts)) {
      errno = EXDEV;
      return -1;
    }
    if (parts.isEmpty()) {
      errno = EINVAL;
      return -1;
    }
    name = parts.last();
    return openComponents(parts, parts.size() - 1, flags | O_DIRECTORY, 0, links);
  }

  bool RootDirectory::makeDirectories(const QByteArray& path) const
  {
    QList<QByteArray> parts;
    if (!components(path, parts)) {
      errno = EXDEV;
      return false;
    }
    // Go down from the root: each level is opened below the root before its child is made in it, so
    // a symbolic link met on the way is judged like any other path.
    for (int depth = 1; depth <= parts.size(); ++depth) {
      FdHolder existing(openComponents(parts, depth, O_PATH | O_DIRECTORY, 0, Links::Beneath));
      if (existing.get() >= 0)
        continue;
      if (errno != ENOENT)
        return false;
      FdHolder parent(openComponents(parts, depth - 1, O_PATH | O_DIRECTORY, 0, Links::Beneath));
      if (parent.get() < 0)
        return false;
      if (::mkdirat(parent.get(), parts.at(depth - 1).constData(), 0777) != 0 && errno != EEXIST)
        return false;
      FdHolder made(openComponents(parts, depth, O_PATH | O_DIRECTORY, 0, Links::Beneath));
      if (made.get() < 0)
        return false;
    }
    return true;
  }

  bool RootDirectory::rename(const QByteArray& from, const QByteArray& to) const
  {
    QByteArray fromName, toName;
    FdHolder fromParent(openParent(from, fromName));
    if (fromParent.get() < 0)
      return false;
    FdHolder toParent(openParent(to, toName));
    if (toParent.get() < 0)
      return false;
    return ::renameat(fromParent.get(), fromName.constData(), toParent.get(), toName.constData()) == 0;
  }

  bool RootDirectory::moveIntoPlace(int fd, const QByteArray& from, const QByteArray& to) const
  {
    QByteArray fromName, toName;
    FdHolder fromParent(openParent(from, fromName));
    if (fromParent.get() < 0)
      return false;
    // Opened for reading, not as a mere path: it is synced after the rename.
    FdHolder toParent(openParent(to, toName, Links::Beneath, O_RDONLY));
    if (toParent.get() < 0)
      return false;
    // The name is checked in the very folder that the rename takes it from: whatever was put at it
    // meanwhile (another file, a link) fails the move instead of landing under the final name.
    struct stat written, named;
    if (::fstat(fd, &written) != 0)
      return false;
    if (::fstatat(fromParent.get(), fromName.constData(), &named, AT_SYMLINK_NOFOLLOW) != 0)
      return false;
    if (written.st_dev != named.st_dev || written.st_ino != named.st_ino) {
      errno = ESTALE;
      return false;
    }
    // Data first, then the name: after a power loss the final name holds either the old file or the
    // whole new one, never a new one cut short.
    if (::fdatasync(fd) != 0)
      return false;
    if (::renameat(fromParent.get(), fromName.constData(), toParent.get(), toName.constData()) != 0)
      return false;
    // The move has happened: a caller must not undo it, so a folder that cannot be flushed is only
    // reported.
    if (::fsync(toParent.get()) != 0)
      Bastion::error("RootDirectory::moveIntoPlace # Failed to flush the folder of %s: %s", to.constData(),
                     qt_error_string(errno).toUtf8().constData());
    return true;
  }

  bool RootDirectory::remove(const QByteArray& path, Links links) const
  {
    QByteArray name;
    FdHolder parent(openParent(path, name, links));
    if (parent.get() < 0)
      return false;
    return ::unlinkat(parent.get(), name.constData(), 0) == 0;
  }

  bool RootDirectory::removeDirectory(const QByteArray& path) const
  {
    QByteArray name;
    FdHolder parent(openParent(path, name, Links::Refused));
    if (parent.get() < 0)
      return false;
    return ::unlinkat(parent.get(), name.constData(), AT_REMOVEDIR) == 0;
  }

  bool RootDirectory::stat(const QByteArray& path, struct stat& result, Links links) const
  {
    FdHolder fd(open(path, O_PATH, 0, links));
    if (fd.get() < 0)
      return false;
    return ::fstat(fd.get(), &result) == 0;
  }
}
