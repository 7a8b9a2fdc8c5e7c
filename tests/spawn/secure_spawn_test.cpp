#include "qel_common/secure_spawn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

namespace qel::tools {
namespace {

using std::chrono::milliseconds;

// Captures both outputs.
SpawnContext Context(std::vector<std::string> argv) {
  SpawnContext context;
  InitSpawnContext(context, std::move(argv));
  context.output.emplace();
  context.errorOutput.emplace();
  return context;
}

// What a run came to: its output after exit 0, "exit <code>" after another
// exit, or else its report.
std::string Outcome(SpawnContext& context) {
  SecureSpawn(context);
  if (context.exitCode == 0) return context.output.value_or("");
  return context.exitCode ? "exit " + std::to_string(*context.exitCode) : SpawnReport(context);
}
std::string Outcome(std::vector<std::string> argv) {
  SpawnContext context = Context(std::move(argv));
  return Outcome(context);
}

TEST(SecureSpawnTest, CallersPathIsNeverSearched) {
  // Scripts first in this process's PATH: one found nowhere else, one
  // shadowing "true".
  char pattern[] = "/tmp/qel-spawn-XXXXXX";
  const std::string dir = mkdtemp(pattern), oldPath = getenv("PATH"), hidden = dir + "/qel-spawn-only-here";
  for (const std::string& path : {hidden, dir + "/true"}) {
    std::ofstream(path) << "#!/bin/sh\nexit 42\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  }
  setenv("PATH", (dir + ":" + oldPath).c_str(), 1);
  // A relative name must not climb out of the search directories either.
  std::string outcomes;
  for (const std::string& name :
       {std::string("qel-spawn-only-here"), std::string("true"), "../.." + hidden, dir + "/true"}) {
    outcomes += Outcome({name}) + "|";
  }
  setenv("PATH", oldPath.c_str(), 1);
  std::filesystem::remove_all(dir);
  const auto notFound = [](const std::string& name) {
    return "Program " + name +
           " finished with reason: 0x8000004c (Not found), program not found, output: '', stderr: ''|";
  };
  EXPECT_EQ(outcomes, notFound("qel-spawn-only-here") + "|" + notFound("../.." + hidden) + "exit 42|");
}

TEST(SecureSpawnTest, OnlyLocaleAndTerminalVariablesPass) {
  const char* const parent[] = {"LANG=C", "HOME=/root", "LC_TIME=x", "LANGUAGE=de", "TERM", "PATH=/tmp", nullptr};
  EXPECT_EQ(FilterEnvironment(parent),
            (std::vector<std::string>{"PATH=/usr/sbin:/usr/bin:/bin:/sbin", "LANG=C", "LC_TIME=x"}));
  // Children get exactly this process's environment, filtered.
  std::string expected;
  for (const std::string& entry : FilterEnvironment(environ)) expected += entry + "\n";
  EXPECT_EQ(Outcome({"env"}), expected);
}

TEST(SecureSpawnTest, ChildGetsNoDescriptorAndDefaultSignals) {
  const int inheritable = open("/dev/null", O_RDONLY);
  const auto previousPipe = signal(SIGPIPE, SIG_IGN);
  sigset_t usr2, previousMask;
  sigemptyset(&usr2);
  sigaddset(&usr2, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &usr2, &previousMask);
  SpawnContext context = Context({"sh", "-c", "ls /proc/self/fd; grep -E 'SigBlk|SigIgn' /proc/self/status"});
  context.input = "";
  const std::string output = Outcome(context);
  pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  signal(SIGPIPE, previousPipe);
  close(inheritable);
  // 3 is the directory that ls itself lists.
  EXPECT_EQ(output, "0\n1\n2\n3\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST(SecureSpawnTest, SetupIsAppliedAsFarAsItCanOrEndsTheChildWithItsErrno) {
  rlimit current{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &current), 0);
  // Not even root may raise the hard limit above nr_open.
  rlim_t unraisable = 0;
  std::ifstream("/proc/sys/fs/nr_open") >> unraisable;
  const std::string max = std::to_string(current.rlim_max) + "\n";
  const std::tuple<const char*, SpawnLimit, std::string> cases[] = {
      {"/", {RLIMIT_NOFILE, 64, 64}, "/\n64\n64\n"},
      {"/", {RLIMIT_NOFILE, unraisable + 1, unraisable + 1}, "/\n" + max + max},
      {"/nonexistent-qel-spawn", {RLIMIT_NOFILE, 64, 64}, "exit " + std::to_string(ENOENT)},
      {"/", {RLIMIT_NOFILE, 64, 32}, "exit " + std::to_string(EINVAL)},
  };
  for (const auto& [directory, limit, expected] : cases) {
    SpawnContext context = Context({"sh", "-c", "pwd; ulimit -Hn; ulimit -n"});
    context.workingDirectory = directory;
    context.rlimits = {limit};
    EXPECT_EQ(Outcome(context), expected) << directory << " " << limit.soft << "/" << limit.hard;
  }
}

TEST(SecureSpawnTest, IdsAreDropped) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to change ids";
  SpawnContext context = Context({"sh", "-c", "id -u; id -g; id -G"});
  context.uid = context.gid = 65534;
  context.groups = {65534};
  EXPECT_EQ(Outcome(context), "65534\n65534\n65534\n");
}

TEST(SecureSpawnTest, ExitCodeSignalAndOutputsAreReported) {
  SpawnContext exited = Context({"sh", "-c", "echo out; echo err >&2; exit 3"});
  SecureSpawn(exited);
  EXPECT_EQ(SpawnReport(exited),
            "Program sh -c echo out; echo err >&2; exit 3 finished with reason: 0x00000000 (Success), Exit code: 3, "
            "output: 'out\n', stderr: 'err\n'");
  SpawnContext killed;
  InitSpawnContext(killed, {"sh", "-c", "kill -USR1 $$"});
  EXPECT_EQ(Outcome(killed), "Program sh -c kill -USR1 $$ finished with reason: 0x00000000 (Success), Term signal: " +
                             std::to_string(SIGUSR1));
}

TEST(SecureSpawnTest, TablesAreCutToFiftyEntriesOf4095Characters) {
  std::vector<std::string> argv{"sh", "-c", "echo $# ${#1}", "sh", std::string(5000, 'x')};
  argv.resize(70, "a");
  EXPECT_EQ(Outcome(argv), "46 4095\n");

  SpawnContext environment = Context({"env"});
  environment.envp = {"LONG=" + std::string(5000, 'y')};
  std::string expected = "LONG=" + std::string(4090, 'y') + "\n";
  for (int i = 0; i < 60; ++i) {
    environment.envp.push_back("V" + std::to_string(i) + "=1");
    if (i < 49) expected += environment.envp.back() + "\n";
  }
  EXPECT_EQ(Outcome(environment), expected);
}

TEST(SecureSpawnTest, LargeInputAndOutputDoNotDeadlockNorLeaveSigpipe) {
  SpawnContext cat = Context({"cat"}), ignoring = Context({"true"});
  cat.input.emplace(8 << 20, '\0');
  for (std::size_t i = 0; i < cat.input->size(); ++i) (*cat.input)[i] = static_cast<char>('a' + i % 23);
  // The observer sees the output grow, piece by piece, to all of it.
  std::vector<std::size_t> seen;
  cat.outputObserver = [&seen](const std::string& output) { seen.push_back(output.size()); };
  EXPECT_TRUE(Outcome(cat) == *cat.input);
  EXPECT_GT(seen.size(), 1u);
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()) && std::adjacent_find(seen.begin(), seen.end()) == seen.end());
  EXPECT_EQ(seen.empty() ? 0 : seen.back(), cat.input->size());
  // Input that the child does not read.
  ignoring.input = std::string(1 << 20, 'x');
  EXPECT_EQ(Outcome(ignoring), "");
  sigset_t pending, blocked;
  sigpending(&pending);
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE) || sigismember(&blocked, SIGPIPE));
}

TEST(SecureSpawnTest, TimedOutChildGetsSigtermThenAfterTheGraceSigkill) {
  const std::tuple<std::vector<std::string>, int, int, int> cases[] = {
      // Long enough for the shell to reach its trap before SIGTERM comes;
      // then the grace of 200 ms.
      {{"sh", "-c", "trap '' TERM; exec sleep 10"}, 500, SIGKILL, 500 + 200},
      {{"sleep", "10"}, 100, SIGTERM, 100},
  };
  for (const auto& [argv, timeoutMs, signal, atLeastMs] : cases) {
    SpawnContext context = Context(argv);
    context.timeoutMs = timeoutMs;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SecureSpawn(context), oro::errTimeout) << argv[0];
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(context.termSignal, signal) << argv[0];
    EXPECT_TRUE(elapsed >= milliseconds(atLeastMs) && elapsed < milliseconds(atLeastMs + 2000)) << argv[0];
  }
}

TEST(SecureSpawnTest, ConcurrentRunsLeaveNoChildBehind) {
  std::vector<std::string> outputs(4), expected(4);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 4; ++t) {
    for (int run = 0; run < 5; ++run) expected[t] += std::to_string(t * 10 + run) + "\n";
    threads.emplace_back([t, &outputs] {
      for (int run = 0; run < 5; ++run) outputs[t] += Outcome({"echo", std::to_string(t * 10 + run)});
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(outputs, expected);
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);
}

TEST(SecureSpawnTest, DefaultsAndUnrunnableContexts) {
  SpawnContext context;
  context.output = "stale";
  InitSpawnContext(context, {"iptables", "-S"});
  EXPECT_FALSE(context.output);
  EXPECT_TRUE(context.rlimits.size() == 1 && context.rlimits[0].resource == RLIMIT_NOFILE &&
              context.rlimits[0].soft == 20480 && context.rlimits[0].hard == 20480);

  SpawnContext empty;
  InitSpawnContext(empty, {});
  EXPECT_EQ(SecureSpawn(empty), oro::errInvalidArgument);
  SpawnContext withNul = Context({"echo", std::string("a\0b", 3)});
  EXPECT_EQ(SecureSpawn(withNul), oro::errInvalidArgument);
  EXPECT_EQ(withNul.output, "");
}

}  // namespace
}  // namespace qel::tools
