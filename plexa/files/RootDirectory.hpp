#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

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
    int open(const QByteArray& path, int flags, mode_t mode = 0666) const;
    /// Creates the directory `path` and its missing parents below the root. True when it exists
    /// (as a directory below the root) afterwards.
    bool makeDirectories(const QByteArray& path) const;
    /// renameat(2): replaces an existing `to` atomically. False with errno set on failure.
    bool rename(const QByteArray& from, const QByteArray& to) const;
    /// unlinkat(2) of a file. False with errno set on failure.
    bool remove(const QByteArray& path) const;
    /// fstat of the object at `path`. False with errno set when it cannot be reached.
    bool stat(const QByteArray& path, struct stat& result) const;

    /// Whether the kernel resolution (openat2) is used. It is switched off for good the first time
    /// the kernel refuses the call itself (ENOSYS, or EPERM from a system call filter).
    static bool kernelResolveEnabled();
    /// Tests use this to run the component walk on kernels that have openat2.
    static void setKernelResolveEnabled(bool enabled);

  private:
    /// The components of `path` without empty and "." ones; false when one is "..".
    static bool components(const QByteArray& path, QList<QByteArray>& result);
    static QByteArray join(const QList<QByteArray>& parts, int count);
    int openComponents(const QList<QByteArray>& parts, int count, int flags, mode_t mode) const;
    /// Opens the parent directory of the last component; `name` receives that component.
    int openParent(const QByteArray& path, QByteArray& name) const;

    int m_fd = -1;
  };
}
