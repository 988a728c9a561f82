#pragma once

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    class Console;

    /// One run of `plexa demo`, in one process: a serving peer and a client peer on an ephemeral
    /// 127.0.0.1 port. The server publishes a scene and a temporary folder of files; the client
    /// mirrors the scene while the server animates it, changes a few values of its own, receives
    /// a sliced event, fetches the files, and both trees are compared at the end. Every step is
    /// told as it happens; a summary table closes the run.
    ///
    /// Application thread only. Ctrl-C (see `Interrupt`) ends it early; the temporary folder goes
    /// with the object.
    class DemoRun
    {
    public:
      DemoRun(Console& console, double animationSeconds, double timeoutSeconds);
      ~DemoRun();
      DemoRun(const DemoRun&) = delete;
      DemoRun& operator=(const DemoRun&) = delete;

      /// Runs the demo; the exit status (0 only when both trees ended identical and every file
      /// verified).
      int run();

    private:
      class D;
      std::unique_ptr<D> d;
    };
  }
}
