#include "firewall/conntrack_probe.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "qel_common/unique_fd.h"

namespace qel::firewall {
namespace {

std::atomic<bool> g_isSuitableConntrack{false};

// The kernel's revision query record: the match name and the revision asked
// for, 30 bytes without padding.
struct RevisionQuery {
  char name[29];
  std::uint8_t revision;
};
static_assert(sizeof(RevisionQuery) == 30);

constexpr int kRawProtocol = 255;
constexpr int kIpLevel = 0;
constexpr int kGetMatchRevision = 66;
constexpr char kMatchName[] = "conntrack";
constexpr std::uint8_t kDirectionAwareRevision = 3;

std::string ErrorText(int error) { return std::generic_category().message(error); }

bool QueryConntrackRevision(const tracing::Tracer& tracer) {
  const tools::UniqueFd socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, kRawProtocol));
  if (!socket) {
    tracer.Write(tracing::Skipped, "Cannot open socket (", ErrorText(errno), ")");
    return false;
  }
  RevisionQuery query{};
  std::strncpy(query.name, kMatchName, sizeof query.name);
  query.revision = kDirectionAwareRevision;
  socklen_t length = sizeof query;
  // A known revision answers with the highest one the kernel has, so only a
  // negative result is a refusal.
  if (::getsockopt(socket.Get(), kIpLevel, kGetMatchRevision, &query, &length) < 0) {
    tracer.Write(tracing::Skipped, kMatchName, ": revision ", static_cast<int>(kDirectionAwareRevision),
                 " not available (", ErrorText(errno), ")");
    return false;
  }
  tracer.Write(tracing::Warning, kMatchName, ": suitable");
  return true;
}

}  // namespace

bool ProbeConntrackRevision(const tracing::Tracer& tracer) {
  const bool suitable = QueryConntrackRevision(tracer);
  tracer.Write(tracing::Warning, "ProbeConntrackRevision", " g_isSuitableConntrack = ", suitable ? 1 : 0);
  return suitable;
}

bool IsSuitableConntrack() noexcept { return g_isSuitableConntrack.load(std::memory_order_relaxed); }

void SetSuitableConntrack(bool suitable) noexcept { g_isSuitableConntrack.store(suitable, std::memory_order_relaxed); }

}  // namespace qel::firewall
