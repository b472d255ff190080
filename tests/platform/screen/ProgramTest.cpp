#include <kestrova/platform/linux/screen/BroadcastProcess.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "PrivateRuntime.h"
#include <fstream>
#include <future>
#include <system_error>
#include <thread>

namespace kestrova::test {
namespace {

class ProgramTest : public testing::Test {
protected:
  ~ProgramTest() override {
    work.reset();
    thread.join();
    // Everything that was started has ended by then, and was reaped.
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  }
  std::string script(const std::string& text) {
    auto path = runtime.path + "/program-" + std::to_string(++_scripts);
    std::ofstream(path) << "#!/bin/sh\n" << text << "\n";
    ::chmod(path.c_str(), 0700);
    return path;
  }
  BroadcastEnd endOf(const std::string& path) {
    std::promise<BroadcastEnd> end;
    const auto program = startBroadcast(path, {"one", "two words"}, loop.get_executor(),
                                        [&](const BroadcastEnd& how) { end.set_value(how); });
    EXPECT_TRUE(program);
    auto future = end.get_future();
    if (future.wait_for(std::chrono::seconds(patienceSeconds)) != std::future_status::ready)
      ADD_FAILURE() << "no end of " << path;
    return future.get();
  }
  /// Waits until that process has ended.
  static void awaitEnd(int handle) {
    pollfd ending{handle, POLLIN, 0};
    EXPECT_EQ(::poll(&ending, 1, patienceSeconds * 1000), 1);
    ::close(handle);
  }

  PrivateRuntime runtime;
  boost::asio::io_context loop;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work{
      boost::asio::make_work_guard(loop)};
  std::thread thread{[this] { loop.run(); }};

private:
  int _scripts = 0;
};

TEST_F(ProgramTest, itsEndIsToldWithItsLastWords) {
  EXPECT_EQ(endOf(script("exit 0")).kind, BroadcastEnd::Kind::finished);
  const auto failed = endOf(script("echo first >&2; echo \"last: $2\" >&2; exit 1"));
  EXPECT_EQ(failed.kind, BroadcastEnd::Kind::failed);
  EXPECT_EQ(failed.cause, "last: two words");
  EXPECT_EQ(endOf(script("echo no >&2; exit 3")).kind, BroadcastEnd::Kind::refused);
  const auto killed = endOf(script("kill -9 $$"));
  EXPECT_EQ(killed.kind, BroadcastEnd::Kind::failed);
  EXPECT_EQ(killed.cause, "ended by signal 9");
}

TEST_F(ProgramTest, anExitCodeThatTheApplicationIgnoresIsUnknown) {
  const auto pipe = runtime.path + "/until";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::promise<BroadcastEnd> ended;
  ::signal(SIGCHLD, SIG_IGN);
  const auto program =
      startBroadcast(script("read line < " + pipe + "; echo 'no display' >&2; exit 1"), {},
                     loop.get_executor(), [&](const auto& end) { ended.set_value(end); });
  std::ofstream(pipe) << "go\n";
  auto end = ended.get_future();
  const bool isTold =
      end.wait_for(std::chrono::seconds(patienceSeconds)) == std::future_status::ready;
  ::signal(SIGCHLD, SIG_DFL);
  ASSERT_TRUE(isTold);
  const auto told = end.get();
  EXPECT_EQ(told.kind, BroadcastEnd::Kind::unknown);
  EXPECT_EQ(told.cause, "no display");
}

TEST_F(ProgramTest, whatKeepsItFromStartingIsSaid) {
  const auto path = runtime.path + "/broken";
  std::ofstream(path) << "#!/nowhere\n";
  ::chmod(path.c_str(), 0700);
  try {
    startBroadcast(path, {}, loop.get_executor(), [](const BroadcastEnd&) {});
    ADD_FAILURE() << "it has started";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
  }
}

TEST_F(ProgramTest, itInheritsNothingOfTheApplication) {
  ::setenv("KESTROVA_TOKEN", "secret", 1);
  const int open = ::dup(STDERR_FILENO);  // inherited unless somebody sees to it
  const auto end =
      endOf(script("test -z \"$KESTROVA_TOKEN\" || exit 1\n"
                   "test ! -e /proc/self/fd/" +
                   std::to_string(open) + " || exit 1\nexit 0"));
  ::close(open);
  ::unsetenv("KESTROVA_TOKEN");
  EXPECT_EQ(end.kind, BroadcastEnd::Kind::finished);
}

TEST_F(ProgramTest, whoeverLetsGoOfItEndsIt) {
  const auto pipe = runtime.path + "/pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  // One that heeds the end of its input, and one that heeds nothing and has a child of its own.
  for (const auto* rest : {"read line; exit 0", "sleep 600"}) {
    auto program = startBroadcast(script("trap '' TERM; echo $$ > " + pipe + "; " + rest), {},
                                  loop.get_executor(),
                                  [](const BroadcastEnd&) { ADD_FAILURE() << "it was let go of"; });
    ASSERT_TRUE(program);
    pid_t process = 0;
    std::ifstream(pipe) >> process;
    ASSERT_GT(process, 0);
    const int handle = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
    ASSERT_GE(handle, 0);
    program.reset();
    awaitEnd(handle);
  }
}

TEST_F(ProgramTest, programsAreFoundWhereTheyAreExpected) {
  const auto here = script("exit 0");
  EXPECT_EQ(findProgram(here), here);
  EXPECT_FALSE(findProgram(here + "-not"));
  EXPECT_FALSE(findProgram(runtime.path));  // a folder
  const auto name = here.substr(here.rfind('/') + 1);
  EXPECT_FALSE(findProgram(name));
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", (".:" + runtime.path + ":" + path).c_str(), 1);
  EXPECT_EQ(findProgram(name), here);
  // Where anybody can put a program, none is taken.
  for (const auto& place : {runtime.path, here}) {
    ::chmod(place.c_str(), 0777);
    EXPECT_FALSE(findProgram(name)) << place;
    ::chmod(place.c_str(), 0700);
  }
  EXPECT_EQ(findProgram(name), here);
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_FALSE(findProgram(""));
}

}  // namespace
}  // namespace kestrova::test
