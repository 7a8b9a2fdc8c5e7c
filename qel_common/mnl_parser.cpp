#include "qel_common/mnl_parser.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "qel_common/exception_result.h"

namespace qel::tools {
namespace {

using tracing::Detail;
using tracing::Error;

// A dump long enough for any logged packet (its copy range is small) and
// short enough not to flood the trace with a large buffer.
constexpr std::size_t kDumpBytesPerLine = 16;
constexpr std::size_t kDumpLineLimit = 64;

std::string HexDump(const unsigned char* bytes, std::size_t size) {
  std::string text;
  char part[24];
  const std::size_t shown = std::min(size, kDumpBytesPerLine * kDumpLineLimit);
  for (std::size_t offset = 0; offset < shown; ++offset) {
    if (offset % kDumpBytesPerLine == 0) {
      if (offset != 0) text += '\n';
      std::snprintf(part, sizeof part, "%04zx:", offset);
      text += part;
    }
    std::snprintf(part, sizeof part, " %02x", bytes[offset]);
    text += part;
  }
  if (shown < size) text += "\n...";
  return text;
}

// The length of the run of whole messages at the start of the buffer.
// libmnl compares a message's length as a signed number, so a length with
// the top bit set passes its check and the walk leaves the buffer; only
// this run is handed to it.
std::size_t WholeMessages(const void* buffer, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  std::size_t offset = 0;
  while (size - offset >= sizeof(nlmsghdr)) {
    std::uint32_t length;
    std::memcpy(&length, bytes + offset, sizeof length);
    if (length < sizeof(nlmsghdr) || length > size - offset) break;
    offset += std::min<std::size_t>(MNL_ALIGN(length), size - offset);
  }
  return offset;
}

std::optional<std::uint16_t> AttributeLimit(std::optional<unsigned long> highest) {
  if (!highest) return std::nullopt;
  return static_cast<std::uint16_t>(std::min<unsigned long>(*highest, std::numeric_limits<std::uint16_t>::max()));
}

}  // namespace

// What the C callbacks of libmnl get back to: the parser and the table of
// the message being parsed.
struct MnlParser::Context {
  const MnlParser* first;
  std::vector<const nlattr*> second;
};

MnlParser::MnlParser(oro::ITracer* tracer, Callback callback, std::optional<unsigned long> highestAttribute,
                     const Checker* checker)
    : m_tracer(oro::RefPtr<oro::ITracer>::Share(tracer)),
      m_callback(std::move(callback)),
      m_highestAttribute(AttributeLimit(highestAttribute)),
      m_checker(checker) {}

int MnlParser::Parse(const void* buffer, std::size_t size, std::uint32_t sequence,
                     std::uint32_t portId) const noexcept {
  try {
    TraceBuffer(buffer, size, sequence, portId);
  } catch (...) {
    // A dump that cannot be built costs the diagnosis, not the messages.
  }
  const mnl_cb_t perMessage = [](const nlmsghdr* message, void* data) noexcept {
    return static_cast<const MnlParser*>(data)->ParseMessage(message);
  };
  const std::size_t whole = WholeMessages(buffer, size);
  const int result =
      mnl_cb_run(buffer, whole, sequence, portId, m_callback ? perMessage : nullptr, const_cast<MnlParser*>(this));
  // Bytes too few for a header at the end are padding, as libmnl has it.
  if (result != MNL_CB_OK || size - whole < sizeof(nlmsghdr)) return result;
  try {
    m_tracer.Write(Error, "Malformed netlink message at offset ", whole, ": its length does not fit the ", size - whole,
                   " bytes left");
  } catch (...) {
  }
  return MNL_CB_ERROR;
}

int MnlParser::ParseMessage(const nlmsghdr* message) const noexcept {
  try {
    Context context{this, {}};
    if (m_highestAttribute) {
      context.second.assign(std::size_t{*m_highestAttribute} + 1, nullptr);
      if (mnl_attr_parse(
              message, sizeof(nfgenmsg),
              [](const nlattr* attr, void* data) noexcept {
                const auto context = static_cast<Context*>(data);
                return context->first->ParseAttribute(context->second.data(), attr);
              },
              &context) != MNL_CB_OK) {
        QEL_TRACE_FAILED_CONDITION(m_tracer,
                                   "mnl_attr_parse(nlh, sizeof(nfgenmsg), [](const nlattr* attr, void* data) noexcept "
                                   "{ const auto context = static_cast<Context*>(data); return "
                                   "context->first->ParseAttribute(context->second.data(), attr); }, &context) == 1",
                                   "Cannot process MNL packet");
        return MNL_CB_ERROR;
      }
    }
    return m_callback(message, AttributeTable(context.second));
  } catch (...) {
    try {
      m_tracer.Write(Detail, "Failure in callback", ": ", ExceptionText(std::current_exception()));
    } catch (...) {
    }
    return MNL_CB_ERROR;
  }
}

int MnlParser::ParseAttribute(const nlattr** table, const nlattr* attribute) const noexcept {
  try {
    const std::uint16_t type = mnl_attr_get_type(attribute);
    if (mnl_attr_type_valid(attribute, *m_highestAttribute) < 0) {
      m_tracer.Write(Error, "Invalid MNL attribute type=", type);
      return MNL_CB_ERROR;
    }
    if (!PassesCheck(attribute)) {
      QEL_TRACE_FAILED_CONDITION(m_tracer, "it == m_checker->end() || it->second(attr) >= 0",
                                 "Failure in attribute check type=" + std::to_string(type));
      return MNL_CB_ERROR;
    }
    table[type] = attribute;
    return MNL_CB_OK;
  } catch (...) {
    // A check that throws rejects its attribute: the exception must not
    // unwind through libmnl's C frames.
    try {
      m_tracer.Write(Error, "Failure in attribute check: ", ExceptionText(std::current_exception()));
    } catch (...) {
    }
    return MNL_CB_ERROR;
  }
}

bool MnlParser::PassesCheck(const nlattr* attribute) const {
  if (!m_checker) return true;
  const auto it = m_checker->find(mnl_attr_get_type(attribute));
  return it == m_checker->end() || it->second(attribute) >= 0;
}

void MnlParser::TraceBuffer(const void* buffer, std::size_t size, std::uint32_t sequence, std::uint32_t portId) const {
  if (!m_tracer.Enabled(Detail)) return;
  std::ostringstream text;
  // The constructor's signature heads the record: the dumps of every parser
  // read alike whoever built it.
  text << "qel::tools::MnlParser::MnlParser(oro::ITracer*, qel::tools::MnlParser::Callback, "
          "std::optional<long unsigned int>, const Checker*)"
       << " buf=" << buffer << " numBytes=" << size << " seq=" << sequence << " portId=" << portId << " bufDump:\n"
       << HexDump(static_cast<const unsigned char*>(buffer), size);
  m_tracer.Write(Detail, text.str());
}

}  // namespace qel::tools
