#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// This benchmark program started again as a second process, its standard output read line by
/// line through a pipe. The destructor ends the child (SIGTERM to its id, if it is still running)
/// and reaps it.
class ChildProcess
{
public:
  /// Runs `program` with `args`; `running()` is false when the start failed.
  ChildProcess(const std::string& program, const std::vector<std::string>& args)
  {
    int fds[2];
    if (::pipe(fds) != 0)
      return;
    std::vector<std::string> all{program};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all)
      argv.push_back(a.data());
    argv.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0) {
      ::dup2(fds[1], STDOUT_FILENO);
      ::close(fds[0]);
      ::close(fds[1]);
      ::execv(program.c_str(), argv.data());
      ::_exit(127);
    }
    ::close(fds[1]);
    m_out = fds[0];
    if (m_pid < 0) {
      ::close(m_out);
      m_out = -1;
    }
  }

  ~ChildProcess()
  {
    if (m_pid > 0) {
      if (::waitpid(m_pid, nullptr, WNOHANG) == 0) {
        ::kill(m_pid, SIGTERM);
        ::waitpid(m_pid, nullptr, 0);
      }
    }
    if (m_out >= 0)
      ::close(m_out);
  }

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool running() const { return m_pid > 0 && m_out >= 0; }

  /// The next line the child wrote (without its newline). Waits at most `seconds`; while waiting,
  /// `pump` (when given) is called over and over and must itself wait a few milliseconds at most,
  /// so this side's own event loop keeps running. False on timeout or when the child's output ended.
  bool readLine(std::string& line, double seconds, const std::function<void()>& pump = {})
  {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
      const size_t end = m_buffer.find('\n');
      if (end != std::string::npos) {
        line = m_buffer.substr(0, end);
        m_buffer.erase(0, end + 1);
        return true;
      }
      if (m_out < 0 || std::chrono::steady_clock::now() > deadline)
        return false;
      if (pump)
        pump();
      pollfd p{m_out, POLLIN, 0};
      if (::poll(&p, 1, pump ? 0 : 10) > 0) {
        char chunk[4096];
        const ssize_t n = ::read(m_out, chunk, sizeof(chunk));
        if (n <= 0) {
          ::close(m_out);
          m_out = -1;
        } else {
          m_buffer.append(chunk, size_t(n));
        }
      }
    }
  }

private:
  pid_t m_pid = -1;
  int m_out = -1;
  std::string m_buffer;
};
