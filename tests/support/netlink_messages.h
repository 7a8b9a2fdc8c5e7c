// Hand-made netlink buffers for tests of netlink parsing: messages with a
// 4-byte nfnetlink header and attributes, laid out byte by byte as the
// kernel does (4-byte alignment), without the library under test.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace qel::test {

class NetlinkMessages {
 public:
  // nfnetlink log subsystem (4), message type "packet" (0).
  static constexpr std::uint16_t kLoggedPacket = 0x0400;

  // Starts a message; the nfnetlink header names `group` (big-endian).
  NetlinkMessages& Message(std::uint16_t type, std::uint16_t group, std::uint32_t sequence = 0,
                           std::uint32_t portId = 0) {
    Align();
    m_start = m_bytes.size();
    Put32(0);  // length, grown by what follows
    Put16(type);
    Put16(0);  // flags
    Put32(sequence);
    Put32(portId);
    m_bytes.push_back(2);  // AF_INET
    m_bytes.push_back(0);  // version
    Put16(htons(group));
    return Close();
  }

  // Starts a message of another family: `header` (a tcmsg, an nlmsgerr, ...)
  // follows the netlink header as it is.
  NetlinkMessages& MessageWithHeader(std::uint16_t type, std::uint16_t flags, const void* header,
                                     std::size_t headerSize, std::uint32_t sequence = 0, std::uint32_t portId = 0) {
    Align();
    m_start = m_bytes.size();
    Put32(0);  // length, grown by what follows
    Put16(type);
    Put16(flags);
    Put32(sequence);
    Put32(portId);
    PutRaw(header, headerSize);
    return Close();
  }

  NetlinkMessages& Attribute(std::uint16_t type, const void* data, std::size_t size) {
    Align();
    Put16(static_cast<std::uint16_t>(4 + size));
    Put16(type);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    m_bytes.insert(m_bytes.end(), bytes, bytes + size);
    Align();
    return Close();
  }
  NetlinkMessages& Attribute(std::uint16_t type, const std::string& text) {
    return Attribute(type, text.c_str(), text.size() + 1);
  }
  // A 32-bit number in network order, as NFULA_SEQ.
  NetlinkMessages& BigEndian32(std::uint16_t type, std::uint32_t value) {
    const std::uint32_t wire = htonl(value);
    return Attribute(type, &wire, sizeof wire);
  }

  const std::uint8_t* Data() const { return m_bytes.data(); }
  std::size_t Size() const { return m_bytes.size(); }
  std::vector<std::uint8_t>& Bytes() { return m_bytes; }

 private:
  void Put16(std::uint16_t value) { PutRaw(&value, sizeof value); }
  void Put32(std::uint32_t value) { PutRaw(&value, sizeof value); }
  void PutRaw(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    m_bytes.insert(m_bytes.end(), bytes, bytes + size);
  }
  void Align() { m_bytes.resize((m_bytes.size() + 3) & ~std::size_t{3}); }
  NetlinkMessages& Close() {
    const auto length = static_cast<std::uint32_t>(m_bytes.size() - m_start);
    std::memcpy(&m_bytes[m_start], &length, sizeof length);
    return *this;
  }

  std::vector<std::uint8_t> m_bytes;
  std::size_t m_start = 0;
};

}  // namespace qel::test
