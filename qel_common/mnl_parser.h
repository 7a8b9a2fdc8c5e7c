// Walks a buffer of nfnetlink messages with libmnl: each message's
// attributes are collected into a table indexed by their type, optionally
// checked, and handed with the message to a callback. Every failure is
// traced, after a dump of the buffer at detail level, so that a malformed
// message from the kernel can be read against its bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>

#include "oro/tracer.h"
#include "qel_tracing/tracer.h"

struct nlattr;
struct nlmsghdr;

namespace qel::tools {

class MnlParser {
 public:
  // A message's attributes by type, null where absent. It points into the
  // parsed buffer and lives only during the callback.
  using AttributeTable = std::span<const nlattr* const>;
  // libmnl's convention: MNL_CB_OK (1) goes on, MNL_CB_STOP (0) ends the
  // walk, MNL_CB_ERROR (-1) fails it.
  using Callback = std::function<int(const nlmsghdr* message, AttributeTable attributes)>;
  // A negative result rejects the attribute, and with it the message.
  using Checker = std::map<std::uint16_t, std::function<int(const nlattr*)>>;

  // Without `highestAttribute` no attribute is parsed and the callback gets
  // an empty table. `checker` (may be null) must outlive the parser.
  MnlParser(oro::ITracer* tracer, Callback callback, std::optional<unsigned long> highestAttribute,
            const Checker* checker);

  // Runs the messages of `buffer` through the callback, checking each
  // message's sequence number and port id as libmnl does (0 checks
  // nothing). Returns mnl_cb_run's result; never throws.
  int Parse(const void* buffer, std::size_t size, std::uint32_t sequence, std::uint32_t portId) const noexcept;

 private:
  struct Context;

  int ParseMessage(const nlmsghdr* message) const noexcept;
  int ParseAttribute(const nlattr** table, const nlattr* attribute) const noexcept;
  bool PassesCheck(const nlattr* attribute) const;
  void TraceBuffer(const void* buffer, std::size_t size, std::uint32_t sequence, std::uint32_t portId) const;

  tracing::Tracer m_tracer;
  Callback m_callback;
  std::optional<std::uint16_t> m_highestAttribute;
  const Checker* m_checker;
};

}  // namespace qel::tools
