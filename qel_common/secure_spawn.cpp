#include "qel_common/secure_spawn.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <span>
#include <sstream>
#include <string_view>
#include <thread>

#include "qel_common/unique_fd.h"
#include "qel_tracing/tracer.h"

namespace qel::tools {
namespace {

using Clock = std::chrono::steady_clock;
using Deadline = std::optional<Clock::time_point>;

constexpr std::array<std::string_view, 4> kSearchDirectories{"/usr/sbin", "/usr/bin", "/bin", "/sbin"};
// Matched with their "=", so that LANGUAGE or TERMINFO do not pass as LANG or TERM.
constexpr std::array<std::string_view, 10> kPassedVariables{
    "LANG=", "TZ=", "LC_ALL=", "LC_COLLATE=", "LC_CTYPE=", "LC_MESSAGES=", "LC_MONETARY=", "LC_NUMERIC=", "LC_TIME=",
    "TERM="};
constexpr rlim_t kDefaultOpenFiles = 20480;

constexpr std::size_t kMaxExecEntries = 50;
constexpr std::size_t kMaxExecEntryLength = 4095;
constexpr std::size_t kReadChunk = 64 * 1024;

constexpr auto kWaitPause = std::chrono::milliseconds(5);
constexpr auto kTermPause = std::chrono::milliseconds(1);
constexpr auto kKillPause = std::chrono::microseconds(500);
constexpr auto kFirstPause = std::chrono::microseconds(50);
constexpr auto kKillWait = std::chrono::seconds(10);

// Exit statuses of a child whose group or user id did not take: the first
// one for the real id, then the effective and the saved one.
constexpr int kGroupIdKeptStatus = 132;
constexpr int kUserIdKeptStatus = 135;

std::string SearchPathEntry() {
  std::string entry = "PATH=";
  for (const std::string_view directory : kSearchDirectories) {
    entry += directory;
    entry += ':';
  }
  entry.pop_back();
  return entry;
}

bool IsPassedVariable(std::string_view entry) {
  return std::ranges::any_of(kPassedVariables, [&](std::string_view prefix) { return entry.starts_with(prefix); });
}

bool IsExecutableFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

// A relative name with a "/" would let "../" walk out of the search
// directories, so only plain names are looked up.
std::optional<std::string> ResolveProgram(const std::string& program) {
  if (program.starts_with('/')) return program;
  if (program.find('/') != std::string::npos) return std::nullopt;
  for (const std::string_view directory : kSearchDirectories) {
    std::string candidate = std::string(directory) + "/" + program;
    if (IsExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}

bool HasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

bool IsRunnable(const SpawnContext& context) {
  return !context.program.empty() && !context.argv.empty() && !HasNul(context.program) &&
         std::ranges::none_of(context.argv, HasNul) && std::ranges::none_of(context.envp, HasNul) &&
         !(context.workingDirectory && HasNul(*context.workingDirectory));
}

// argv or envp as execve takes them. The parent builds the table before the
// fork, so the child only reads memory that is already there: allocating in
// the child could hang on an allocator lock that another thread of the
// parent held at the fork. Keeping the cut copies on the heap rather than
// 400 KiB of fixed buffers on the stack spares host threads with small stacks.
class ExecTable {
 public:
  explicit ExecTable(const std::vector<std::string>& entries) {
    const std::size_t count = std::min(entries.size(), kMaxExecEntries);
    m_entries.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      m_entries.push_back(entries[i].substr(0, kMaxExecEntryLength));
      m_pointers[i] = m_entries.back().data();
    }
  }
  // The pointers point into m_entries.
  ExecTable(const ExecTable&) = delete;
  ExecTable& operator=(const ExecTable&) = delete;

  char* const* Get() const noexcept { return m_pointers.data(); }

 private:
  std::vector<std::string> m_entries;
  std::array<char*, kMaxExecEntries + 1> m_pointers{};
};

// Everything the child needs, prepared by the parent before the fork.
struct ChildPlan {
  const char* path;
  char* const* argv;
  char* const* envp;
  const char* workingDirectory;  // null: the parent's
  std::span<const SpawnLimit> rlimits;
  std::span<const gid_t> groups;
  std::uint32_t uid;
  std::uint32_t gid;
  std::array<int, 3> standardSources;  // the child's pipe ends; -1: /dev/null
};

// --- The child, between fork and exec: raw system calls only. -----------------
//
// A function of the C library may be interposed by another library in the
// host's process (a sanitizer's runtime, a preloaded tool) whose wrapper takes
// locks; another thread of the parent may have held one at the clone, and the
// child would wait for it for ever. The kernel's own calls are the same on
// x86-64 and AArch64, which has no open or dup2.

[[noreturn]] void ExitChild(int status) noexcept {
  ::syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

// The parent's handlers must not run in the child, and a signal the parent
// ignores would stay ignored across exec (a tool with SIGPIPE ignored writes
// on into a closed pipe), so every disposition goes back to its default
// before the mask is cleared. SIGKILL, SIGSTOP and the C library's own
// signals refuse the change and need none.
// The kernel's own sigaction record (the same layout on x86-64 and AArch64).
struct KernelSigaction {
  void* handler;  // SIG_DFL is 0
  unsigned long flags;
  void* restorer;
  std::uint64_t mask;
};

// The C library's sigaction refuses the signals it reserves for itself (32
// and 33), which a parent may still have ignored and exec would keep
// ignored; the raw call resets every signal.
bool ResetSignals() noexcept {
  const KernelSigaction defaultAction{};
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal == SIGKILL || signal == SIGSTOP) continue;
    ::syscall(SYS_rt_sigaction, signal, &defaultAction, nullptr, sizeof defaultAction.mask);
  }
  const std::uint64_t none = 0;
  return ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, sizeof none) == 0;
}

// With a standard descriptor closed in the parent, a source may itself sit at
// 0-2, where an earlier redirection would overwrite it; moved above 2 first,
// the three redirections cannot disturb each other.
int AboveStandardDescriptors(int fd) noexcept {
  return fd > STDERR_FILENO ? fd : static_cast<int>(::syscall(SYS_fcntl, fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

int OpenDevNull() noexcept {
  const int fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR | O_CLOEXEC));
  return fd < 0 ? fd : AboveStandardDescriptors(fd);
}

bool RedirectStandardDescriptors(std::array<int, 3> sources) noexcept {
  int devNull = -1;
  for (int& source : sources) {
    if (source >= 0) {
      source = AboveStandardDescriptors(source);
    } else {
      if (devNull < 0) devNull = OpenDevNull();
      source = devNull;
    }
    if (source < 0) return false;
  }
  // dup3, unlike dup2, refuses a descriptor onto itself; every source is
  // above 2 by now.
  for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target) {
    if (::syscall(SYS_dup3, sources[target], target, 0) < 0) return false;
  }
  return true;
}

// The descriptor an entry of /proc/self/fd names; -1 for "." and "..".
int DescriptorNamed(const char* name) noexcept {
  if (*name == '\0') return -1;
  int fd = 0;
  for (; *name >= '0' && *name <= '9'; ++name) fd = fd * 10 + (*name - '0');
  return *name == '\0' ? fd : -1;
}

// Descriptors the host opened without O_CLOEXEC would otherwise reach the
// tool. The directory's own descriptor is closed last, after the listing.
bool CloseInheritedDescriptors() noexcept {
  const int directory =
      static_cast<int>(::syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory < 0) return false;
  alignas(dirent64) char buffer[4096];
  for (;;) {
    const long size = ::syscall(SYS_getdents64, directory, buffer, sizeof buffer);
    if (size < 0) return false;
    if (size == 0) break;
    for (long offset = 0; offset < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + offset);
      offset += entry->d_reclen;
      const int fd = DescriptorNamed(entry->d_name);
      if (fd > STDERR_FILENO && fd != directory) ::syscall(SYS_close, fd);
    }
  }
  return ::syscall(SYS_close, directory) == 0;
}

// After a bare clone the C library still believes in the parent's threads,
// and its wrappers would try to change their ids as well.
void SetIdOrExit(long setCall, long getCall, std::uint32_t id, int firstKeptStatus) noexcept {
  if (::syscall(setCall, id, id, id) != 0) ExitChild(errno);
  std::uint32_t real = 0, effective = 0, saved = 0;
  if (::syscall(getCall, &real, &effective, &saved) != 0) ExitChild(errno);
  if (real != id) ExitChild(firstKeptStatus);
  if (effective != id) ExitChild(firstKeptStatus + 1);
  if (saved != id) ExitChild(firstKeptStatus + 2);
}

bool SetLimit(int resource, const rlimit& value) noexcept {
  return ::syscall(SYS_prlimit64, 0, resource, &value, nullptr) == 0;
}

// A limit above a hard limit that this process may not raise (it lacks
// CAP_SYS_RESOURCE, as in many containers) is applied as far as it can be:
// the tool then runs with the most it may have rather than not at all.
bool ApplyLimit(const SpawnLimit& limit) noexcept {
  if (SetLimit(limit.resource, {limit.soft, limit.hard})) return true;
  rlimit current{};
  if (errno != EPERM || ::syscall(SYS_prlimit64, 0, limit.resource, nullptr, &current) != 0 ||
      limit.hard <= current.rlim_max) {
    return false;
  }
  return SetLimit(limit.resource, {std::min(limit.soft, current.rlim_max), current.rlim_max});
}

[[noreturn]] void RunChild(const ChildPlan& plan) noexcept {
  for (const SpawnLimit& limit : plan.rlimits) {
    if (!ApplyLimit(limit)) ExitChild(errno);
  }
  if (!ResetSignals()) ExitChild(errno);
  if (plan.workingDirectory && ::syscall(SYS_chdir, plan.workingDirectory) != 0) ExitChild(errno);
  if (!RedirectStandardDescriptors(plan.standardSources)) ExitChild(errno);
  if (!CloseInheritedDescriptors()) ExitChild(errno);
  if (!plan.groups.empty() && ::syscall(SYS_setgroups, plan.groups.size(), plan.groups.data()) != 0) ExitChild(errno);
  if (plan.gid != 0) SetIdOrExit(SYS_setresgid, SYS_getresgid, plan.gid, kGroupIdKeptStatus);
  if (plan.uid != 0) SetIdOrExit(SYS_setresuid, SYS_getresuid, plan.uid, kUserIdKeptStatus);
  ::syscall(SYS_execve, plan.path, plan.argv, plan.envp);
  ExitChild(errno);
}

// --- The parent. --------------------------------------------------------------

// Blocks signals in the calling thread only; the module never touches the
// process-wide dispositions.
class BlockedSignals {
 public:
  explicit BlockedSignals(const sigset_t& signals) noexcept { ::pthread_sigmask(SIG_BLOCK, &signals, &m_previous); }
  ~BlockedSignals() { ::pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t m_previous;
};

sigset_t AllSignals() noexcept {
  sigset_t all;
  ::sigfillset(&all);
  return all;
}

sigset_t OnlySigpipe() noexcept {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, SIGPIPE);
  return set;
}

// Writing into a pipe whose reader has gone raises SIGPIPE in the writing
// thread, which would end the host. While the input is fed the thread keeps
// SIGPIPE blocked and takes back the one its own write raised; a SIGPIPE
// that was already pending belongs to someone else and stays.
class SigpipeSuppression {
 public:
  SigpipeSuppression() noexcept : m_blocked(OnlySigpipe()) {
    sigset_t pending;
    m_wasPending = ::sigpending(&pending) == 0 && ::sigismember(&pending, SIGPIPE) == 1;
  }

  void TakeBackRaised() const noexcept {
    if (m_wasPending) return;
    const sigset_t sigpipe = OnlySigpipe();
    const timespec noWait{};
    while (::sigtimedwait(&sigpipe, nullptr, &noWait) < 0 && errno == EINTR) {
    }
  }

 private:
  BlockedSignals m_blocked;
  bool m_wasPending = false;
};

// Starts the child with the caller's signals blocked, so that no handler of
// the host runs in the child before it resets them. A bare clone rather than
// fork() also skips the fork handlers that libraries of the host registered.
// Returns 0 or the errno of the failed clone.
int StartChild(const ChildPlan& plan, pid_t& pid) noexcept {
  const BlockedSignals blocked(AllSignals());
  pid = static_cast<pid_t>(::syscall(SYS_clone, static_cast<long>(SIGCHLD), 0L, 0L, 0L, 0L));
  if (pid == 0) RunChild(plan);
  return pid < 0 ? errno : 0;
}

struct WaitOutcome {
  enum class State { Ended, Running, Failed } state;
  int status = 0;  // Ended: the wait status
  int error = 0;   // Failed: errno of waitpid
};

// Sole owner of a started child, kept in place by the run: a child still
// running when its owner goes (the run was cut short) is killed and reaped,
// so no zombie stays behind.
class ChildProcess {
 public:
  explicit ChildProcess(pid_t pid) noexcept : m_pid(pid) {}
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (m_pid > 0 && Signal(SIGKILL) == 0) WaitUntil(Clock::now() + kKillWait, kKillPause);
  }

  // Polls for the child's end until the deadline (none: for ever). The
  // pauses start short and grow to `pause`: a tool has mostly ended by the
  // time its pipes close, and a fixed pause would add itself to every run.
  WaitOutcome WaitUntil(const Deadline& deadline, std::chrono::microseconds pause) {
    std::chrono::microseconds nap = std::min(pause, kFirstPause);
    for (;;) {
      int status = 0;
      // Without a deadline nothing would end the polling but the child's
      // end, so the call may as well block until then.
      const pid_t waited = ::waitpid(m_pid, &status, deadline ? WNOHANG : 0);
      if (waited == m_pid) {
        m_pid = -1;
        return {WaitOutcome::State::Ended, status};
      }
      if (waited < 0 && errno != EINTR) {
        // Most likely reaped by someone else; the number may belong to
        // another process by now and must not be signalled any more.
        const int error = errno;
        m_pid = -1;
        return {WaitOutcome::State::Failed, 0, error};
      }
      if (!deadline) continue;  // interrupted by a signal
      if (Clock::now() >= *deadline) return {WaitOutcome::State::Running};
      std::this_thread::sleep_for(nap);
      nap = std::min(nap * 2, pause);
    }
  }

  // 0 or the errno of kill; a child that is already gone counts as success.
  int Signal(int signal) const noexcept {
    if (::kill(m_pid, signal) == 0 || errno == ESRCH) return 0;
    return errno;
  }

  // For a child that outlived SIGKILL: waiting on would hang the caller.
  void Abandon() noexcept { m_pid = -1; }

 private:
  pid_t m_pid;
};

// One redirected standard descriptor. Both ends are O_CLOEXEC; the child's
// end survives the exec only as the dup2 copy at 0, 1 or 2.
struct Pipe {
  UniqueFd parentEnd;
  UniqueFd childEnd;
};

struct Pipes {
  Pipe input;
  Pipe output;
  Pipe errorOutput;
};

enum class PipeDirection { ToChild, FromChild };

// Returns 0 or the errno of the failed call. The parent's end is made
// non-blocking for the poll loop; the child's end stays blocking.
int CreatePipe(PipeDirection direction, Pipe& pipe) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const bool toChild = direction == PipeDirection::ToChild;
  pipe.parentEnd = std::move(toChild ? writeEnd : readEnd);
  pipe.childEnd = std::move(toChild ? readEnd : writeEnd);
  const int flags = ::fcntl(pipe.parentEnd.Get(), F_GETFL);
  if (flags < 0 || ::fcntl(pipe.parentEnd.Get(), F_SETFL, flags | O_NONBLOCK) != 0) return errno;
  return 0;
}

// Milliseconds left for poll(2), rounded up so that the loop does not spin
// through the last millisecond; -1 without a deadline, none once it passed.
std::optional<int> PollTimeout(const Deadline& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  if (left <= 0) return std::nullopt;
  return static_cast<int>(std::min<decltype(left)>(left, INT_MAX));
}

// Feeds the child's input and collects its outputs at the pace the pipes
// allow, so that neither side can block the other.
class DataExchange {
 public:
  DataExchange(Pipes& pipes, SpawnContext& context)
      : m_input(std::move(pipes.input.parentEnd)),
        m_pending(context.input ? std::string_view(*context.input) : std::string_view()),
        m_output(std::move(pipes.output.parentEnd)),
        m_outputSink(context.output ? &*context.output : nullptr),
        m_outputObserver(context.outputObserver),
        m_errorOutput(std::move(pipes.errorOutput.parentEnd)),
        m_errorSink(context.errorOutput ? &*context.errorOutput : nullptr) {
    if (m_input) m_sigpipe.emplace();
  }

  // Runs until every pipe is done; false when the deadline came first.
  bool Run(const Deadline& deadline) {
    while (m_input || m_output || m_errorOutput) {
      const std::optional<int> timeout = PollTimeout(deadline);
      if (!timeout) return false;
      std::array<pollfd, 3> watched{pollfd{m_input.Get(), POLLOUT, 0}, pollfd{m_output.Get(), POLLIN, 0},
                                    pollfd{m_errorOutput.Get(), POLLIN, 0}};
      if (::poll(watched.data(), watched.size(), *timeout) < 0) {
        if (errno == EINTR) continue;
        // Nothing more can be exchanged. The pipes close with this object,
        // so the child meets end of file or a broken pipe and ends.
        return true;
      }
      if (watched[0].revents != 0) Feed();
      if (watched[1].revents != 0 && Drain(m_output, *m_outputSink) && m_outputObserver) {
        m_outputObserver(*m_outputSink);
      }
      if (watched[2].revents != 0) Drain(m_errorOutput, *m_errorSink);
    }
    return true;
  }

 private:
  void Feed() {
    const ssize_t written = ::write(m_input.Get(), m_pending.data(), m_pending.size());
    if (written >= 0) {
      m_pending.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN || errno == EINTR) {
      return;
    } else {
      // The child closed its input (or never reads it); the rest is dropped.
      if (errno == EPIPE) m_sigpipe->TakeBackRaised();
      m_pending = {};
    }
    // Closing the end is the child's end of file.
    if (m_pending.empty()) m_input.Reset();
  }

  // Tools write a few kilobytes at a time, so most reads return far less
  // than a chunk: reading into the sink's own tail would clear a whole chunk
  // of it for every one of them.
  // True when the sink grew.
  bool Drain(UniqueFd& end, std::string& sink) {
    if (!m_readBuffer) m_readBuffer = std::make_unique_for_overwrite<char[]>(kReadChunk);
    const ssize_t got = ::read(end.Get(), m_readBuffer.get(), kReadChunk);
    const int error = errno;
    if (got > 0) sink.append(m_readBuffer.get(), static_cast<std::size_t>(got));
    if (got == 0 || (got < 0 && error != EAGAIN && error != EINTR)) end.Reset();
    return got > 0;
  }

  UniqueFd m_input;
  std::string_view m_pending;
  UniqueFd m_output;
  std::string* m_outputSink;
  const std::function<void(const std::string&)>& m_outputObserver;
  UniqueFd m_errorOutput;
  std::string* m_errorSink;
  std::optional<SigpipeSuppression> m_sigpipe;
  std::unique_ptr<char[]> m_readBuffer;
};

oro::result_t Finish(SpawnContext& context, SpawnFinishReason reason, oro::result_t result) {
  context.reason = reason;
  return result;
}

oro::result_t SystemFailure(SpawnContext& context, SpawnFinishReason reason, int error) {
  context.systemError = error;
  return Finish(context, reason, oro::ResultFromErrno(error));
}

void RecordStatus(SpawnContext& context, int status) {
  if (WIFEXITED(status)) context.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) context.termSignal = WTERMSIG(status);
}

oro::result_t TerminateChild(SpawnContext& context, ChildProcess& child) {
  if (const int error = child.Signal(SIGTERM)) return SystemFailure(context, SpawnFinishReason::SendSigtermFailed, error);
  WaitOutcome outcome = child.WaitUntil(Clock::now() + std::chrono::milliseconds(context.termGraceMs), kTermPause);
  if (outcome.state == WaitOutcome::State::Running) {
    if (const int error = child.Signal(SIGKILL)) {
      return SystemFailure(context, SpawnFinishReason::SendSigkillFailed, error);
    }
    outcome = child.WaitUntil(Clock::now() + kKillWait, kKillPause);
  }
  switch (outcome.state) {
    case WaitOutcome::State::Ended:
      RecordStatus(context, outcome.status);
      return oro::errTimeout;
    case WaitOutcome::State::Failed:
      return SystemFailure(context, SpawnFinishReason::WaitpidFailed, outcome.error);
    case WaitOutcome::State::Running:
      break;
  }
  child.Abandon();
  return Finish(context, SpawnFinishReason::WaitSigkillFailed, oro::errTimeout);
}

oro::result_t AwaitChild(SpawnContext& context, ChildProcess& child, const Deadline& deadline) {
  const WaitOutcome outcome = child.WaitUntil(deadline, kWaitPause);
  switch (outcome.state) {
    case WaitOutcome::State::Ended:
      RecordStatus(context, outcome.status);
      return oro::errOk;
    case WaitOutcome::State::Failed:
      return SystemFailure(context, SpawnFinishReason::WaitpidFailed, outcome.error);
    case WaitOutcome::State::Running:
      break;
  }
  return TerminateChild(context, child);
}

// Returns 0 or the errno of the pipe that could not be made.
int CreateOutputPipes(const SpawnContext& context, Pipes& pipes) {
  if (context.output) {
    if (const int error = CreatePipe(PipeDirection::FromChild, pipes.output)) return error;
  }
  return context.errorOutput ? CreatePipe(PipeDirection::FromChild, pipes.errorOutput) : 0;
}

// Returns 0 or the errno of the failed clone. The tables are built here,
// before the clone, because the child may not allocate; it works on its own
// copy of them.
int LaunchChild(const SpawnContext& context, const std::string& path, const Pipes& pipes, pid_t& pid) {
  const ExecTable argv(context.argv);
  const ExecTable envp(context.envp);
  const ChildPlan plan{path.c_str(),
                       argv.Get(),
                       envp.Get(),
                       context.workingDirectory ? context.workingDirectory->c_str() : nullptr,
                       context.rlimits,
                       context.groups,
                       context.uid,
                       context.gid,
                       {pipes.input.childEnd.Get(), pipes.output.childEnd.Get(), pipes.errorOutput.childEnd.Get()}};
  return StartChild(plan, pid);
}

Deadline DeadlineAfter(std::int64_t timeoutMs) {
  if (timeoutMs <= 0) return std::nullopt;
  return Clock::now() + std::chrono::milliseconds(timeoutMs);
}

void ResetOutcome(SpawnContext& context) {
  context.result = oro::errOk;
  context.reason = SpawnFinishReason::NormalEnd;
  context.systemError = 0;
  context.exitCode.reset();
  context.termSignal.reset();
  if (context.output) context.output->clear();
  if (context.errorOutput) context.errorOutput->clear();
}

oro::result_t Run(SpawnContext& context) {
  if (!IsRunnable(context)) return oro::errInvalidArgument;
  const std::optional<std::string> path = ResolveProgram(context.program);
  if (!path) return Finish(context, SpawnFinishReason::ProgramNotFound, oro::errNotFound);

  Pipes pipes;
  if (context.input) {
    if (const int error = CreatePipe(PipeDirection::ToChild, pipes.input)) {
      return SystemFailure(context, SpawnFinishReason::InputPipeFailed, error);
    }
  }
  if (const int error = CreateOutputPipes(context, pipes)) {
    return SystemFailure(context, SpawnFinishReason::OutputPipeFailed, error);
  }
  const Deadline deadline = DeadlineAfter(context.timeoutMs);

  pid_t pid = -1;
  if (const int error = LaunchChild(context, *path, pipes, pid)) {
    return SystemFailure(context, SpawnFinishReason::ForkFailed, error);
  }
  ChildProcess child(pid);
  pipes.input.childEnd.Reset();
  pipes.output.childEnd.Reset();
  pipes.errorOutput.childEnd.Reset();

  if (!DataExchange(pipes, context).Run(deadline)) return TerminateChild(context, child);
  return AwaitChild(context, child, deadline);
}

const char* ReasonText(SpawnFinishReason reason) {
  switch (reason) {
    case SpawnFinishReason::NormalEnd: return "";
    case SpawnFinishReason::InputPipeFailed: return ", input pipe2 failed";
    case SpawnFinishReason::OutputPipeFailed: return ", output pipe2 failed";
    case SpawnFinishReason::ProgramNotFound: return ", program not found";
    case SpawnFinishReason::ForkFailed: return ", fork failed";
    case SpawnFinishReason::WaitpidFailed: return ", waitpid failed";
    case SpawnFinishReason::SendSigtermFailed: return ", send SIGTERM failed";
    case SpawnFinishReason::SendSigkillFailed: return ", send SIGKILL failed";
    case SpawnFinishReason::WaitSigkillFailed: return ", wait SIGKILL failed";
  }
  return "";
}

}  // namespace

std::vector<std::string> FilterEnvironment(const char* const* environment) {
  std::vector<std::string> filtered{SearchPathEntry()};
  for (; environment && *environment; ++environment) {
    if (IsPassedVariable(*environment)) filtered.emplace_back(*environment);
  }
  return filtered;
}

const std::vector<std::string>& FilteredEnvironment() {
  static const std::vector<std::string> environment = FilterEnvironment(environ);
  return environment;
}

void InitSpawnContext(SpawnContext& context, std::vector<std::string> argv) {
  context = SpawnContext{};
  if (!argv.empty()) context.program = argv.front();
  context.argv = std::move(argv);
  context.envp = FilteredEnvironment();
  context.rlimits = {{RLIMIT_NOFILE, kDefaultOpenFiles, kDefaultOpenFiles}};
}

oro::result_t SecureSpawn(SpawnContext& context) {
  ResetOutcome(context);
  context.result = Run(context);
  return context.result;
}

void FormatSpawnResult(std::ostream& out, const SpawnContext& context) {
  out << "Program";
  for (const std::string& argument : context.argv) out << ' ' << argument;
  out << " finished with reason: " << tracing::FormatResult(context.result);
  if (context.exitCode) {
    out << ", Exit code: " << *context.exitCode;
  } else if (context.termSignal) {
    out << ", Term signal: " << *context.termSignal;
  } else if (context.systemError != 0) {
    out << ", Error code: " << context.systemError;
  }
  out << ReasonText(context.reason);
  if (context.output) out << ", output: '" << *context.output << '\'';
  if (context.errorOutput) out << ", stderr: '" << *context.errorOutput << '\'';
}

std::string SpawnReport(const SpawnContext& context) {
  std::ostringstream text;
  FormatSpawnResult(text, context);
  return text.str();
}

}  // namespace qel::tools
