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

namespace qel::tools {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kFixedPath[] = "PATH=/usr/sbin:/usr/bin:/bin:/sbin";

// Captures both outputs.
SpawnContext Context(std::vector<std::string> argv) {
  SpawnContext context;
  InitSpawnContext(context, std::move(argv));
  context.output.emplace();
  context.errorOutput.emplace();
  return context;
}

// A directory of executable scripts, put first in the test process's PATH.
class ScriptsFirstInPath {
 public:
  ScriptsFirstInPath() : m_oldPath(getenv("PATH") ? getenv("PATH") : "") {
    char pattern[] = "/tmp/qel-spawn-XXXXXX";
    m_directory = mkdtemp(pattern);
    setenv("PATH", (m_directory + ":" + m_oldPath).c_str(), 1);
  }
  ~ScriptsFirstInPath() {
    setenv("PATH", m_oldPath.c_str(), 1);
    fs::remove_all(m_directory);
  }
  std::string Add(const std::string& name, const std::string& body) const {
    const std::string path = m_directory + "/" + name;
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }
  const std::string& Directory() const { return m_directory; }

 private:
  std::string m_oldPath;
  std::string m_directory;
};

TEST(SecureSpawnLookupTest, CallersPathIsNeverSearched) {
  const ScriptsFirstInPath scripts;
  const std::string onlyHere = scripts.Add("qel-spawn-only-here", "exit 0");
  const std::string fakeTrue = scripts.Add("true", "exit 42");

  SpawnContext hidden = Context({"qel-spawn-only-here"});
  EXPECT_EQ(SecureSpawn(hidden), oro::errNotFound);
  EXPECT_EQ(hidden.reason, SpawnFinishReason::ProgramNotFound);
  EXPECT_EQ(SpawnReport(hidden),
            "Program qel-spawn-only-here finished with reason: 0x8000004c (Not found), program not found, "
            "output: '', stderr: ''");

  SpawnContext shadowed = Context({"true"});
  EXPECT_EQ(SecureSpawn(shadowed), oro::errOk);
  EXPECT_EQ(shadowed.exitCode, 0);

  // A relative name must not climb out of the search directories.
  SpawnContext climbing = Context({"../.." + onlyHere});
  EXPECT_EQ(SecureSpawn(climbing), oro::errNotFound);

  SpawnContext absolute = Context({fakeTrue});
  EXPECT_EQ(SecureSpawn(absolute), oro::errOk);
  EXPECT_EQ(absolute.exitCode, 42);
}

TEST(SecureSpawnEnvironmentTest, OnlyLocaleAndTerminalVariablesPass) {
  const char* const parent[] = {"LANG=C", "HOME=/root", "LC_TIME=x", "LANGUAGE=de", "TERM", "PATH=/tmp", nullptr};
  const std::vector<std::string> filtered = FilterEnvironment(parent);
  EXPECT_EQ(filtered, (std::vector<std::string>{kFixedPath, "LANG=C", "LC_TIME=x"}));

  SpawnContext context = Context({"env"});
  context.envp = filtered;
  ASSERT_EQ(SecureSpawn(context), oro::errOk);
  EXPECT_EQ(*context.output, std::string(kFixedPath) + "\nLANG=C\nLC_TIME=x\n");
}

TEST(SecureSpawnEnvironmentTest, ChildrenGetTheFilteredProcessEnvironment) {
  ASSERT_EQ(FilteredEnvironment(), FilterEnvironment(environ));
  SpawnContext context = Context({"env"});
  ASSERT_EQ(SecureSpawn(context), oro::errOk);
  std::string expected;
  for (const std::string& entry : FilteredEnvironment()) expected += entry + "\n";
  EXPECT_EQ(*context.output, expected);
}

TEST(SecureSpawnIsolationTest, NoDescriptorOfTheParentReachesTheChild) {
  const int inheritable = open("/dev/null", O_RDONLY);
  ASSERT_GE(inheritable, 0);
  SpawnContext context = Context({"ls", "/proc/self/fd"});
  context.input = "";
  ASSERT_EQ(SecureSpawn(context), oro::errOk);
  // 3 is the directory that ls itself lists.
  EXPECT_EQ(*context.output, "0\n1\n2\n3\n");
  close(inheritable);
}

TEST(SecureSpawnIsolationTest, ChildStartsWithDefaultSignalsAndItsOwnSetup) {
  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &previous);
  sigset_t usr2, previousMask;
  sigemptyset(&usr2);
  sigaddset(&usr2, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &usr2, &previousMask);

  SpawnContext context = Context({"sh", "-c", "pwd; ulimit -n; grep -E 'SigBlk|SigIgn' /proc/self/status"});
  context.workingDirectory = "/";
  context.rlimits = {{RLIMIT_NOFILE, 64, 64}};
  const oro::result_t result = SecureSpawn(context);
  pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  sigaction(SIGPIPE, &previous, nullptr);

  ASSERT_EQ(result, oro::errOk);
  EXPECT_EQ(*context.output, "/\n64\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST(SecureSpawnIsolationTest, LimitAboveAHardLimitThatCannotBeRaisedIsAppliedAsFarAsItCan) {
  rlimit current{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &current), 0);
  SpawnContext context = Context({"sh", "-c", "ulimit -Hn"});
  const rlim_t above = current.rlim_max + 1000;
  context.rlimits = {{RLIMIT_NOFILE, above, above}};
  ASSERT_EQ(SecureSpawn(context), oro::errOk);
  ASSERT_EQ(context.exitCode, 0) << SpawnReport(context);
  // Raised where the process may, the old hard limit where it may not.
  const auto applied = std::stoull(*context.output);
  EXPECT_TRUE(applied == above || applied == current.rlim_max) << applied;
}

TEST(SecureSpawnIsolationTest, FailingSetupStepExitsWithItsErrno) {
  SpawnContext missingDirectory = Context({"true"});
  missingDirectory.workingDirectory = "/nonexistent-qel-spawn";
  EXPECT_EQ(SecureSpawn(missingDirectory), oro::errOk);
  EXPECT_EQ(missingDirectory.exitCode, ENOENT);

  SpawnContext softAboveHard = Context({"true"});
  softAboveHard.rlimits = {{RLIMIT_NOFILE, 64, 32}};
  EXPECT_EQ(SecureSpawn(softAboveHard), oro::errOk);
  EXPECT_EQ(softAboveHard.exitCode, EINVAL);
}

TEST(SecureSpawnIsolationTest, IdsAreDropped) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to change ids";
  SpawnContext context = Context({"sh", "-c", "id -u; id -g; id -G"});
  context.uid = context.gid = 65534;
  context.groups = {65534};
  ASSERT_EQ(SecureSpawn(context), oro::errOk);
  EXPECT_EQ(*context.output, "65534\n65534\n65534\n");
}

TEST(SecureSpawnRunTest, ExitCodeSignalAndOutputsAreReported) {
  SpawnContext exited = Context({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_EQ(SecureSpawn(exited), oro::errOk);
  EXPECT_EQ(SpawnReport(exited),
            "Program sh -c echo out; echo err >&2; exit 3 finished with reason: 0x00000000 (Success), Exit code: 3, "
            "output: 'out\n', stderr: 'err\n'");

  SpawnContext killed = Context({"sh", "-c", "kill -USR1 $$"});
  killed.output.reset();
  killed.errorOutput.reset();
  EXPECT_EQ(SecureSpawn(killed), oro::errOk);
  EXPECT_FALSE(killed.exitCode);
  EXPECT_EQ(SpawnReport(killed),
            "Program sh -c kill -USR1 $$ finished with reason: 0x00000000 (Success), Term signal: " +
                std::to_string(SIGUSR1));
}

TEST(SecureSpawnRunTest, TablesAreCutToFiftyEntriesOf4095Characters) {
  std::vector<std::string> argv{"sh", "-c", "echo $# ${#1}", "sh", std::string(5000, 'x')};
  argv.resize(70, "a");
  SpawnContext arguments = Context(argv);
  ASSERT_EQ(SecureSpawn(arguments), oro::errOk);
  EXPECT_EQ(*arguments.output, "46 4095\n");

  SpawnContext environment = Context({"env"});
  environment.envp = {"LONG=" + std::string(5000, 'y')};
  for (int i = 0; i < 60; ++i) environment.envp.push_back("V" + std::to_string(i) + "=1");
  ASSERT_EQ(SecureSpawn(environment), oro::errOk);
  const std::string& lines = *environment.output;
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 50);
  EXPECT_EQ(lines.find('\n'), 4095u);
  EXPECT_NE(lines.find("V48=1\n"), std::string::npos);
  EXPECT_EQ(lines.find("V49=1"), std::string::npos);
}

TEST(SecureSpawnRunTest, LargeInputAndOutputDoNotDeadlock) {
  SpawnContext context = Context({"cat"});
  std::string input(8 << 20, '\0');
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = static_cast<char>('a' + i % 23);
  context.input = input;
  ASSERT_EQ(SecureSpawn(context), oro::errOk);
  EXPECT_EQ(context.exitCode, 0);
  EXPECT_TRUE(*context.output == input);
}

TEST(SecureSpawnRunTest, InputTheChildDoesNotReadLeavesNoSigpipe) {
  SpawnContext context = Context({"true"});
  context.input = std::string(1 << 20, 'x');
  ASSERT_EQ(SecureSpawn(context), oro::errOk);
  EXPECT_EQ(context.exitCode, 0);
  sigset_t pending, blocked;
  sigpending(&pending);
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  EXPECT_FALSE(sigismember(&blocked, SIGPIPE));
}

TEST(SecureSpawnTimeoutTest, ChildIgnoringSigtermIsKilledAfterTheGrace) {
  SpawnContext context = Context({"sh", "-c", "trap '' TERM; exec sleep 10"});
  // Long enough for the shell to reach its trap before SIGTERM comes.
  context.timeoutMs = 500;
  const auto start = steady_clock::now();
  EXPECT_EQ(SecureSpawn(context), oro::errTimeout);
  const auto elapsed = steady_clock::now() - start;
  EXPECT_EQ(context.termSignal, SIGKILL);
  EXPECT_GE(elapsed, milliseconds(500 + 200));
  EXPECT_LT(elapsed, milliseconds(3000));
  EXPECT_NE(SpawnReport(context).find("0x80000221 (Timeout), Term signal: 9, output: ''"), std::string::npos);
}

TEST(SecureSpawnTimeoutTest, ChildEndingOnSigtermIsNotKilled) {
  SpawnContext context = Context({"sleep", "10"});
  context.timeoutMs = 100;
  const auto start = steady_clock::now();
  EXPECT_EQ(SecureSpawn(context), oro::errTimeout);
  EXPECT_EQ(context.termSignal, SIGTERM);
  EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
}

TEST(SecureSpawnRunTest, ConcurrentRunsLeaveNoChildBehind) {
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &mismatches] {
      for (int run = 0; run < 5; ++run) {
        const std::string word = std::to_string(t) + "-" + std::to_string(run);
        SpawnContext context = Context({"echo", word});
        if (SecureSpawn(context) != oro::errOk || *context.output != word + "\n") ++mismatches[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
  int status = 0;
  const pid_t waited = waitpid(-1, &status, WNOHANG);
  const int error = errno;
  EXPECT_EQ(waited, -1);
  EXPECT_EQ(error, ECHILD);
}

TEST(SecureSpawnContextTest, DefaultsAndUnrunnableContexts) {
  SpawnContext context;
  context.output = "stale";
  InitSpawnContext(context, {"iptables", "-S"});
  EXPECT_EQ(context.program, "iptables");
  EXPECT_EQ(context.envp, FilteredEnvironment());
  ASSERT_EQ(context.rlimits.size(), 1u);
  EXPECT_EQ(context.rlimits[0].resource, RLIMIT_NOFILE);
  EXPECT_EQ(context.rlimits[0].soft, 20480u);
  EXPECT_EQ(context.rlimits[0].hard, 20480u);
  EXPECT_FALSE(context.output);

  SpawnContext empty;
  InitSpawnContext(empty, {});
  EXPECT_EQ(SecureSpawn(empty), oro::errInvalidArgument);
  SpawnContext withNul = Context({"echo", std::string("a\0b", 3)});
  EXPECT_EQ(SecureSpawn(withNul), oro::errInvalidArgument);
  EXPECT_EQ(withNul.output, "");
}

}  // namespace
}  // namespace qel::tools
