#pragma once

#include <QByteArray>

#include <memory>

namespace Bastion
{
  /// An OS thread that runs `childLoop()`. Subclasses provide the body and their own way to ask it
  /// to stop; there is no stop() here.
  ///
  /// The body may be started again with `run()` once it has ended. An exception that escapes the
  /// body is logged as "Thread <name> # uncaught exception: <what>" and ends that run of the thread,
  /// never the process.
  ///
  /// Subclasses must make their body end and join it (`waitEnd()`) in their own destructor: the
  /// base destructor also joins a running thread, but by then the subclass part is gone. A Thread
  /// destroyed on its own thread detaches instead of joining.
  class Thread
  {
  public:
    explicit Thread(const char* name = "Bastion::Thread");
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Starts `childLoop()` on a new OS thread. False (and nothing started) while a body is running
    /// or when the OS refuses a thread. Any thread may call it.
    bool run();
    /// True from a successful `run()` until the body has returned (or thrown).
    bool isRunning() const;
    /// Waits until the body has ended and the OS thread is joined, at most `timeoutMs`
    /// milliseconds (negative: no limit). True when no body is running afterwards. Called on the
    /// thread itself it cannot wait and returns false. Any thread may call it.
    bool waitEnd(int timeoutMs = -1);
    /// The name given to the constructor (the OS sees its first 15 bytes).
    const QByteArray& threadName() const;
    /// True when called on this object's thread while its body runs.
    bool isCurrentThread() const;

  protected:
    /// The body; runs on the new thread.
    virtual void childLoop() = 0;

  private:
    class D;
    std::shared_ptr<D> m_d;
  };
}
