#pragma once

// The plexa program run as a child process, for the end-to-end tests of its commands.

#include <QElapsedTimer>
#include <QMap>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <csignal>

#include <sys/prctl.h>

namespace PlexaTest
{
  constexpr int WaitMs = 20000;

  /// A child that the kernel kills when the test process dies, however it dies: a child the test
  /// stopped (SIGSTOP) would otherwise stay behind, stopped, after a crash.
  class ChildProcess : public QProcess
  {
  protected:
    void setupChildProcess() override { ::prctl(PR_SET_PDEATHSIG, SIGKILL); }
  };

  /// One run of the program, with HOME and the XDG folders in a temporary folder of the test (the
  /// library keeps settings and file lists there).
  class Program
  {
  public:
    /// `environment` adds to (or replaces in) the test's environment.
    Program(const QTemporaryDir& home, const QStringList& arguments, const QMap<QString, QString>& extra = {})
    {
      QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
      environment.insert("HOME", home.path());
      environment.insert("XDG_CONFIG_HOME", home.path() + "/config");
      environment.insert("XDG_DATA_HOME", home.path() + "/data");
      environment.insert("XDG_CACHE_HOME", home.path() + "/cache");
      environment.remove("PLEXA_SHARED_KEY");
      for (auto it = extra.begin(); it != extra.end(); ++it)
        environment.insert(it.key(), it.value());
      environment.remove("BASTION_LOG_LEVEL");
      m_process.setProcessEnvironment(environment);
      m_process.start(PLEXA_PROGRAM, arguments);
      m_process.waitForStarted(WaitMs);
    }

    ~Program()
    {
      if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(WaitMs);
      }
    }

    /// Reads the output (or the error output) up to a line matching `pattern`, for at most `ms`;
    /// its first capture, or the whole line. Empty when none came.
    QString waitForLine(const QString& pattern, int ms = WaitMs,
                        QProcess::ProcessChannel channel = QProcess::StandardOutput)
    {
      const QRegularExpression expression(pattern);
      QString& text = channel == QProcess::StandardOutput ? m_out : m_err;
      m_process.setReadChannel(channel);
      QElapsedTimer clock;
      clock.start();
      for (;;) {
        while (m_process.canReadLine()) {
          const QString line = QString::fromUtf8(m_process.readLine()).trimmed();
          text += line + "\n";
          const QRegularExpressionMatch match = expression.match(line);
          if (match.hasMatch())
            return match.lastCapturedIndex() > 0 ? match.captured(1) : line;
        }
        if (clock.elapsed() > ms || !m_process.waitForReadyRead(int(qMax<qint64>(1, ms - clock.elapsed()))))
          return QString();
      }
    }

    bool running() const { return m_process.state() != QProcess::NotRunning; }

    void interrupt() { signal(SIGINT); }
    /// Sends `number` to the program (SIGSTOP and SIGCONT stop and resume it; the destructor's
    /// kill ends a stopped one too). Nothing when the program has ended: its id is then 0, which
    /// would signal the test's own process group.
    void signal(int number)
    {
      if (m_process.processId() > 0)
        ::kill(pid_t(m_process.processId()), number);
    }

    /// Waits for the exit; its status, or -1 when it did not end.
    int finish(int ms = WaitMs)
    {
      if (!m_process.waitForFinished(ms))
        return -1;
      m_out += QString::fromUtf8(m_process.readAllStandardOutput());
      m_err += QString::fromUtf8(m_process.readAllStandardError());
      return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }

    const QString& out() const { return m_out; }
    const QString& err() const { return m_err; }

  private:
    ChildProcess m_process;
    QString m_out;
    QString m_err;
  };
}
