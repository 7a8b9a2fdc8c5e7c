// Running an external tool as a child process from a known place with a
// known environment, feeding it input, capturing its output, and never
// leaving a child behind.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "oro/result.h"

namespace qel::tools {

enum class SpawnFinishReason {
  NormalEnd,
  InputPipeFailed,
  OutputPipeFailed,
  ProgramNotFound,
  ForkFailed,
  WaitpidFailed,
  SendSigtermFailed,
  SendSigkillFailed,
  WaitSigkillFailed,
};

struct SpawnLimit {
  int resource;  // RLIMIT_*
  rlim_t soft;
  rlim_t hard;
};

struct SpawnContext {
  std::string program;              // argv[0]; absolute, or a plain name found in the fixed search path
  std::vector<std::string> argv;    // argv[0] is the program name
  std::vector<std::string> envp;    // defaults to the filtered environment
  // The child gets at most the first 50 entries of argv and of envp, each cut
  // to 4095 characters.
  std::optional<std::string> workingDirectory;
  std::uint32_t uid = 0;            // 0: unchanged
  std::uint32_t gid = 0;            // 0: unchanged
  std::vector<gid_t> groups;        // empty: unchanged
  std::optional<std::string> input;        // written to the child's stdin
  std::optional<std::string> output;       // present: stdout is captured into it
  std::optional<std::string> errorOutput;  // present: stderr is captured into it
  // Called after each read that added to `output`, with all of it so far:
  // the caller can work through a long output while the child is still
  // writing the rest. Must not throw.
  std::function<void(const std::string& output)> outputObserver;
  std::vector<SpawnLimit> rlimits;         // defaults to RLIMIT_NOFILE 20480/20480
  std::int64_t timeoutMs = 0;              // <= 0: no time limit
  std::int64_t termGraceMs = 200;          // SIGTERM to SIGKILL

  // Filled by the run.
  oro::result_t result = oro::errOk;
  SpawnFinishReason reason = SpawnFinishReason::NormalEnd;
  int systemError = 0;                  // errno of the failed system call
  std::optional<int> exitCode;          // the child exited
  std::optional<int> termSignal;        // a signal ended the child
};

// Fills the defaults; program = argv[0].
void InitSpawnContext(SpawnContext& context, std::vector<std::string> argv);

// Runs the child to its end. Success means the child ran and was reaped,
// whatever its exit code; a run cut short by timeoutMs yields errTimeout even
// when the child was then reaped. The result is also stored in the context.
//
// Each standard descriptor has exactly one optional source or sink in the
// context, so its redirections cannot contradict each other. A context that
// cannot be run as given is refused with errInvalidArgument before anything
// is created: no program, no argv, or a text with an embedded NUL (the C
// strings handed to the child would silently end there).
oro::result_t SecureSpawn(SpawnContext& context);

// "Program iptables -t filter -S finished with reason: 0x00000000 (Success), Exit code: 0, output: '...'"
void FormatSpawnResult(std::ostream& out, const SpawnContext& context);
std::string SpawnReport(const SpawnContext& context);

// The process-wide environment children get: the fixed PATH and the
// locale/terminal variables of the parent, taken once on first use.
const std::vector<std::string>& FilteredEnvironment();

// The fixed PATH followed by the locale/terminal entries of `environment`, a
// null-terminated block as in environ.
std::vector<std::string> FilterEnvironment(const char* const* environment);

}  // namespace qel::tools
