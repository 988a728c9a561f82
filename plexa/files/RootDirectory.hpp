#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace Plexa
{
  /// Files below one directory, reached by paths that a peer chose. Every operation resolves its
  /// path relative to a descriptor of the directory and never leaves it: through the kernel
  /// (openat2 with RESOLVE_BENEATH, so symbolic links that stay below the directory are followed
  /// and those that lead out fail), or, where the kernel lacks openat2, by a walk that opens one
  /// component at a time without following any symbolic link.
  ///
  /// Paths are byte strings (see `encode`) relative to the directory; leading, doubled and "."
  /// components are ignored and a ".." component fails every operation with EXDEV, whatever it
  /// would resolve to.
  ///
  /// One object may be used from several threads at once; it keeps its descriptor until destroyed.
  class RootDirectory
  {
  public:
    /// Opens `root` (a local path, symbolic links allowed). `isOpen()` tells whether that worked.
    explicit RootDirectory(const QString& root);
    ~RootDirectory();
    RootDirectory(const RootDirectory&) = delete;
    RootDirectory& operator=(const RootDirectory&) = delete;

    /// How symbolic links met while resolving a path are treated. Either way a path never leaves
    /// the root; `Refused` also keeps it from being redirected inside the root (walks over a tree
    /// that someone else may change use it).
    enum class Links
    {
      /// Followed while they stay below the root (kernel resolution only; the walk refuses them).
      Beneath,
      /// Never followed: a link anywhere on the path fails the operation with ELOOP.
      Refused
    };

    bool isOpen() const { return m_fd >= 0; }

    /// The bytes that the operations below receive for a path named by `path`: the local file name
    /// encoding, as QFile uses it, so that names listed with QDir and names asked for by a peer
    /// meet.
    static QByteArray encode(const QString& path);
    /// True when `path` begins with '/' and has no ".." component.
    static bool isConfined(const QByteArray& path);
    /// True for the errors that mean "the path would leave the directory".
    static bool isEscapeError(int error);

    /// open(2) of `path` with `flags` (O_CLOEXEC is added) and `mode` for O_CREAT. Returns the
    /// descriptor, owned by the caller, or -1 with errno set.
    int open(const QByteArray& path, int flags, mode_t mode = 0666, Links links = Links::Beneath) const;
    /// Creates the directory `path` and its missing parents below the root. True when it exists
    /// (as a directory below the root) afterwards.
    bool makeDirectories(const QByteArray& path) const;
    /// renameat(2): replaces an existing `to` atomically. False with errno set on failure.
    bool rename(const QByteArray& from, const QByteArray& to) const;
    /// Moves the file open as `fd` from `from` to `to`, replacing an existing `to` atomically, and
    /// makes that durable: the data reaches the disk before the rename and the rename before this
    /// returns. Refused with ESTALE when `from` no longer names the file open as `fd` (replaced, or
    /// a link), so that only the file that was written ever lands at `to`. False with errno set
    /// when nothing was moved; a folder that cannot be flushed after the move is only logged.
    bool moveIntoPlace(int fd, const QByteArray& from, const QByteArray& to) const;
    /// unlinkat(2) of a file (a link itself, never what it points to). False with errno set.
    bool remove(const QByteArray& path, Links links = Links::Beneath) const;
    /// rmdir of an empty directory, following no link on the way. False with errno set.
    bool removeDirectory(const QByteArray& path) const;
    /// fstat of the object at `path`. False with errno set when it cannot be reached.
    bool stat(const QByteArray& path, struct stat& result, Links links = Links::Beneath) const;

    /// Whether the kernel resolution (openat2) is used. It is switched off for good the first time
    /// the kernel refuses the call itself (ENOSYS, or EPERM from a system call filter).
    static bool kernelResolveEnabled();
    /// Tests use this to run the component walk on kernels that have openat2.
    static void setKernelResolveEnabled(bool enabled);

  private:
    /// The components of `path` without empty and "." ones; false when one is "..".
    static bool components(const QByteArray& path, QList<QByteArray>& result);
    static QByteArray join(const QList<QByteArray>& parts, int count);
    int openComponents(const QList<QByteArray>& parts, int count, int flags, mode_t mode, Links links) const;
    /// Opens the parent directory of the last component (O_PATH unless `flags` says otherwise);
    /// `name` receives that component.
    int openParent(const QByteArray& path, QByteArray& name, Links links = Links::Beneath, int flags = O_PATH) const;

    int m_fd = -1;
  };
}
