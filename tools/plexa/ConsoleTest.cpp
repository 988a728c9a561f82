#include "Console.hpp"
#include "Interrupt.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

using Plexa::Cli::Console;
using Plexa::Cli::Interrupt;

namespace
{
  QByteArray contents(FILE* file)
  {
    std::rewind(file);
    QByteArray bytes;
    char buffer[256];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0)
      bytes.append(buffer, int(n));
    return bytes;
  }
}

TEST(Console, WithoutATerminalEveryTextIsALineOfItsOwn)
{
  FILE* out = std::tmpfile();
  FILE* err = std::tmpfile();
  ASSERT_TRUE(out && err);
  {
    Console console(out, err);
    EXPECT_FALSE(console.outIsTerminal());
    EXPECT_EQ(console.columns(), 80);
    console.out("result");
    console.status("next attempt in 2 s");
    console.status("next attempt in 1 s");
    console.err("plexa x: failed");
    console.outBytes("{\"a\":1}\n");
    EXPECT_FALSE(console.outputBroken());
  }
  EXPECT_EQ(contents(out), "result\n{\"a\":1}\n");
  EXPECT_EQ(contents(err), "next attempt in 2 s\nnext attempt in 1 s\nplexa x: failed\n");
  std::fclose(out);
  std::fclose(err);
}

TEST(Console, AClosedOutputPipeIsNoticedNotFatal)
{
  Interrupt interrupt; // ignores SIGPIPE, as the program does
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  FILE* out = fdopen(fds[1], "w");
  FILE* err = std::tmpfile();
  ::close(fds[0]);
  Console console(out, err);
  console.out("nobody reads this");
  EXPECT_TRUE(console.outputBroken());
  std::fclose(out);
  std::fclose(err);
}

TEST(Interrupt, ASignalOnlySetsTheFlagWhileTheHandlerIsInstalled)
{
  struct sigaction before;
  sigaction(SIGINT, nullptr, &before);
  {
    Interrupt interrupt;
    EXPECT_FALSE(Interrupt::requested());
    ASSERT_EQ(raise(SIGINT), 0);
    EXPECT_TRUE(Interrupt::requested());
    // A second one would end the process: the default action is back.
    struct sigaction now;
    sigaction(SIGINT, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
  }
  struct sigaction after;
  sigaction(SIGINT, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
  Interrupt again;
  EXPECT_FALSE(Interrupt::requested());
}
