#pragma once

// Helpers shared by the tests of the file service (unit tests here and loopback tests in tests/).
// Header only; nothing of it goes into the library.

#include "bastion/TestGate.hpp"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <ostream>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

/// Lets GoogleTest print QStrings readably in failure messages.
inline void PrintTo(const QString& text, std::ostream* os)
{
  *os << '"' << text.toStdString() << '"';
}

namespace PlexaTest
{
  /// Points HOME and the XDG folders at a temporary folder before anything reads them (QSettings
  /// caches its paths on first use), so tests never touch the real settings.
  class TemporaryHome
  {
  public:
    TemporaryHome()
        : m_dir(QDir::tempPath() + QStringLiteral("/plexa-files-home-XXXXXX"))
    {
      const QByteArray base = QFile::encodeName(m_dir.path());
      QDir().mkpath(m_dir.path() + QStringLiteral("/data"));
      QDir().mkpath(m_dir.path() + QStringLiteral("/config"));
      QDir().mkpath(m_dir.path() + QStringLiteral("/cache"));
      setenv("HOME", base.constData(), 1);
      setenv("XDG_DATA_HOME", (base + "/data").constData(), 1);
      setenv("XDG_CONFIG_HOME", (base + "/config").constData(), 1);
      setenv("XDG_CACHE_HOME", (base + "/cache").constData(), 1);
    }
    QString path() const { return m_dir.path(); }

  private:
    QTemporaryDir m_dir;
  };

  /// Set up during static initialisation of every test program that includes this header.
  inline const TemporaryHome home;

  inline QByteArray randomBytes(qint64 size, unsigned seed)
  {
    std::mt19937 engine(seed);
    QByteArray bytes(int(size), Qt::Uninitialized);
    for (int i = 0; i < bytes.size(); ++i)
      bytes[i] = char(engine() & 0xff);
    return bytes;
  }

  inline bool writeFile(const QString& name, const QByteArray& bytes)
  {
    QDir().mkpath(QFileInfo(name).absolutePath());
    QFile file(name);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
  }

  inline QByteArray readFile(const QString& name)
  {
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
  }

  inline QString md5Hex(const QByteArray& bytes)
  {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
  }

  /// Sets the modification time of `name` to `seconds` since the epoch.
  inline bool setModificationTime(const QString& name, qint64 seconds)
  {
    struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    return utimensat(AT_FDCWD, QFile::encodeName(name).constData(), times, 0) == 0;
  }

  using Clock = std::chrono::steady_clock;

  inline double secondsSince(Clock::time_point start)
  {
    return std::chrono::duration<double>(Clock::now() - start).count();
  }

  /// write(2) until all of `data` went out; false on an error or a closed descriptor.
  inline bool writeAllFd(int fd, const char* data, size_t size)
  {
    while (size > 0) {
      const ssize_t n = ::write(fd, data, size);
      if (n <= 0)
        return false;
      data += n;
      size -= size_t(n);
    }
    return true;
  }

  /// A flag that one thread raises and another waits for, with a deadline.
  using Signal = Bastion::TestGate;
}
