#include "host/rule_description_json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "qel_common/ip_address.h"

namespace qel::host {
namespace {

using namespace firewall;

// Thrown while one description is read and caught before
// RuleDescriptionFromJson returns: it carries the key that is wrong.
struct KeyError {
  std::string key;
  std::string reason;
};

[[noreturn]] void Fail(const std::string& key, const std::string& reason) { throw KeyError{key, reason}; }

// A value quoted in an error, cut short: a client's 60 KiB string should
// not come back whole in the reply.
std::string Shown(const Json& value) {
  constexpr std::size_t kMaxShown = 40;
  const std::string text = JsonLine(value);
  return text.size() <= kMaxShown ? text : text.substr(0, kMaxShown - 3) + "...";
}

// The fields each kind has beyond the conditions, to tell a client that put
// "queue" on an access rule which kind the key belongs to.
struct KindFields {
  const char* kind;
  std::vector<const char*> keys;
};
const std::array<KindFields, kActionKindCount> kKindFields = {{
    {"raw", {"target", "arguments"}},
    {"access", {"action"}},
    {"queue", {"queue"}},
    {"mark", {"assignMark"}},
    {"divert", {"divertToPort", "assignMark"}},
    {"nat-action", {"action"}},
    {"connmark", {"assignCtmark", "assignCtmask"}},
    {"connmark-save", {"nfMask", "ctMask"}},
    {"connmark-restore", {"nfMask", "ctMask"}},
    {"nflog", {"nflogGroup", "nflogPrefix", "nflogThreshold"}},
    {"isolation", {"action"}},
    {"bypass", {}},
}};

bool IsFieldOfSomeKind(const std::string& key) {
  return std::any_of(kKindFields.begin(), kKindFields.end(), [&](const KindFields& kind) {
    return std::find(kind.keys.begin(), kind.keys.end(), key) != kind.keys.end();
  });
}

// --- Reading -------------------------------------------------------------------

// The keys of one object, each read at most once; what is left at the end is
// not a key of this description.
class FieldReader {
 public:
  explicit FieldReader(const Json& object) : m_object(object) {}

  const Json* Find(const std::string& key) {
    const auto it = m_object.find(key);
    if (it == m_object.end()) return nullptr;
    m_read.insert(key);
    return &*it;
  }

  const Json& Require(const std::string& key, const std::string& kind) {
    const Json* value = Find(key);
    if (!value) Fail(key, "missing (kind " + kind + " needs it)");
    return *value;
  }

  void RejectUnread(const std::string& kind) const {
    for (const auto& [key, value] : m_object.items()) {
      if (m_read.count(key)) continue;
      if (IsFieldOfSomeKind(key)) Fail(key, "not a field of kind " + kind);
      Fail(key, "unknown key");
    }
  }

 private:
  const Json& m_object;
  std::set<std::string> m_read;
};

template <class T>
T Unsigned(const std::string& key, const Json& value) {
  constexpr auto max = std::numeric_limits<T>::max();
  const bool fits = (value.is_number_unsigned() && value.get<std::uint64_t>() <= max) ||
                    (value.is_number_integer() && value.get<std::int64_t>() >= 0 &&
                     static_cast<std::uint64_t>(value.get<std::int64_t>()) <= max);
  if (!fits) Fail(key, "expected an integer from 0 to " + std::to_string(max) + ", got " + Shown(value));
  return static_cast<T>(value.get<std::uint64_t>());
}

std::string String(const std::string& key, const Json& value) {
  if (!value.is_string()) Fail(key, "expected a string, got " + Shown(value));
  return value.get<std::string>();
}

// [first, last]
template <class T>
std::pair<T, T> Pair(const std::string& key, const Json& value, const char* shape) {
  if (!value.is_array() || value.size() != 2) Fail(key, std::string("expected ") + shape + ", got " + Shown(value));
  return {Unsigned<T>(key, value[0]), Unsigned<T>(key, value[1])};
}

// One of a few words, as the printed form writes them.
template <class E, std::size_t N>
E Word(const std::string& key, const Json& value, const std::array<std::pair<const char*, E>, N>& words) {
  const std::string text = String(key, value);
  std::string choices;
  for (const auto& [word, e] : words) {
    if (text == word) return e;
    choices += (choices.empty() ? "" : ", ") + std::string(word);
  }
  Fail(key, "'" + text.substr(0, 40) + "' is not one of " + choices);
}

constexpr std::array<std::pair<const char*, Side>, 2> kSides = {{{"incoming", Side::Incoming},
                                                                  {"outgoing", Side::Outgoing}}};
constexpr std::array<std::pair<const char*, ConnState>, 3> kConnStates = {
    {{"NEW", ConnState::New}, {"ESTABLISHED", ConnState::Established}, {"NEW,ESTABLISHED", ConnState::NewEstablished}}};
constexpr std::array<std::pair<const char*, ConnDirection>, 2> kConnDirections = {
    {{"ORIGINAL", ConnDirection::Original}, {"REPLY", ConnDirection::Reply}}};
constexpr std::array<std::pair<const char*, AddressType>, 1> kAddressTypes = {{{"LOCAL", AddressType::Local}}};

tools::IpNetwork Network(const std::string& key, const Json& value) {
  const std::string text = String(key, value);
  try {
    return tools::ParseIpNetwork(text);
  } catch (const tools::AddressParseError& e) {
    Fail(key, "'" + text.substr(0, 60) + "': " + e.what());
  }
}

// 16 or [16, 255]: a value alone is its own mask.
MarkMatch Mark(const std::string& key, const Json& value) {
  if (value.is_array()) {
    const auto [mark, mask] = Pair<std::uint32_t>(key, value, "a mark or [mark, mask]");
    return MarkMatch{mark, mask};
  }
  if (!value.is_number()) Fail(key, "expected a mark or [mark, mask], got " + Shown(value));
  return MarkMatch{Unsigned<std::uint32_t>(key, value), std::nullopt};
}

// A condition that is written under its key, or under "! key" when negated;
// giving both is giving one condition twice.
template <class T, class Read>
std::optional<T> Negatable(FieldReader& fields, const std::string& key, Read read) {
  const std::string negatedKey = "! " + key;
  const Json* plain = fields.Find(key);
  const Json* negated = fields.Find(negatedKey);
  if (plain && negated) Fail(negatedKey, "the same condition as " + key + "; give one of them");
  if (!plain && !negated) return std::nullopt;
  return read(negated ? negatedKey : key, negated ? *negated : *plain, negated != nullptr);
}

template <class T, class Read>
void Optional(FieldReader& fields, const std::string& key, std::optional<T>& out, Read read) {
  if (const Json* value = fields.Find(key)) out = read(key, *value);
}

void ReadConditions(FieldReader& f, RuleDescription& d) {
  if (const Json* side = f.Find("side")) d.side = Word("side", *side, kSides);
  Optional(f, "proto", d.protocol, Unsigned<std::uint8_t>);
  Optional(f, "remote", d.remote, Network);
  Optional(f, "local", d.local, Network);
  d.iface = Negatable<InterfaceMatch>(f, "iface", [](const std::string& key, const Json& value, bool negated) {
    return InterfaceMatch{String(key, value), negated};
  });
  const auto ports = [](const std::string& key, const Json& value) {
    const auto [first, last] = Pair<std::uint16_t>(key, value, "[first, last]");
    return tools::PortRange{first, last};
  };
  Optional(f, "remotePorts", d.remotePorts, ports);
  Optional(f, "localPorts", d.localPorts, ports);
  Optional(f, "classid", d.classid, Unsigned<std::uint32_t>);
  Optional(f, "mark", d.mark, Mark);
  Optional(f, "! mark", d.excludeMark, Mark);
  Optional(f, "excludeRemoteEndpoint", d.excludeRemoteEndpoint, String);
  Optional(f, "excludeRemote", d.excludeRemote, String);
  Optional(f, "ctstate", d.ctstate,
           [](const std::string& key, const Json& value) { return Word(key, value, kConnStates); });
  Optional(f, "ctdir", d.ctdir,
           [](const std::string& key, const Json& value) { return Word(key, value, kConnDirections); });
  const auto addrtype = [](const std::string& key, const Json& value, bool negated) {
    return AddrtypeMatch{Word(key, value, kAddressTypes), negated};
  };
  d.remoteAddrtype = Negatable<AddrtypeMatch>(f, "remoteAddrtype", addrtype);
  d.localAddrtype = Negatable<AddrtypeMatch>(f, "localAddrtype", addrtype);
  Optional(f, "ctmark", d.ctmark, Mark);
  Optional(f, "! ctmark", d.excludeCtmark, Mark);
  d.tcpFlags = Negatable<TcpFlagsMatch>(f, "tcp-flags", [](const std::string& key, const Json& value, bool negated) {
    const auto [mask, comparison] = Pair<std::uint8_t>(key, value, "[mask, comparison]");
    return TcpFlagsMatch{mask, comparison, negated};
  });
}

// The fields of each kind, after the conditions.
class KindReader {
 public:
  KindReader(FieldReader& fields, std::string kind) : m_fields(fields), m_kind(std::move(kind)) {}

  void operator()(RawAction& a) {
    a.target = String("target", Required("target"));
    if (const Json* arguments = m_fields.Find("arguments")) {
      if (!arguments->is_array()) Fail("arguments", "expected an array of strings, got " + Shown(*arguments));
      std::vector<std::string> words;
      for (const Json& word : *arguments) words.push_back(String("arguments", word));
      a.arguments = Tokens(words);
    }
  }
  void operator()(AccessAction& a) { a.action = U32("action"); }
  void operator()(QueueAction& a) { a.queue = Unsigned<std::uint16_t>("queue", Required("queue")); }
  void operator()(MarkAction& a) { a.assignMark = U32("assignMark"); }
  void operator()(DivertAction& a) {
    a.divertToPort = Unsigned<std::uint16_t>("divertToPort", Required("divertToPort"));
    Optional(m_fields, "assignMark", a.assignMark, Unsigned<std::uint32_t>);
  }
  void operator()(NatAction& a) { a.action = U32("action"); }
  void operator()(ConnmarkAction& a) {
    a.assignCtmark = U32("assignCtmark");
    a.assignCtmask = U32("assignCtmask");
  }
  void operator()(ConnmarkSaveAction& a) {
    a.nfMask = U32("nfMask");
    a.ctMask = U32("ctMask");
  }
  void operator()(ConnmarkRestoreAction& a) {
    a.nfMask = U32("nfMask");
    a.ctMask = U32("ctMask");
  }
  void operator()(NflogAction& a) {
    a.nflogGroup = Unsigned<std::uint16_t>("nflogGroup", Required("nflogGroup"));
    Optional(m_fields, "nflogPrefix", a.nflogPrefix, String);
    if (const Json* threshold = m_fields.Find("nflogThreshold")) {
      a.nflogThreshold = Unsigned<std::uint16_t>("nflogThreshold", *threshold);
    }
  }
  void operator()(IsolationAction& a) { a.action = U32("action"); }
  void operator()(BypassAction&) {}

 private:
  const Json& Required(const std::string& key) { return m_fields.Require(key, m_kind); }
  std::uint32_t U32(const std::string& key) { return Unsigned<std::uint32_t>(key, Required(key)); }

  FieldReader& m_fields;
  std::string m_kind;
};

RuleAction ReadAction(FieldReader& fields, std::string& kindWord) {
  std::string kinds;
  for (const auto& kind : kKindFields) kinds += (kinds.empty() ? "" : ", ") + std::string(kind.kind);
  const Json* kind = fields.Find("kind");
  if (!kind) Fail("kind", "missing (one of " + kinds + ")");
  kindWord = String("kind", *kind);
  for (std::size_t index = 0; index < kKindFields.size(); ++index) {
    if (kindWord != kKindFields[index].kind) continue;
    RuleAction action = MakeAction(index);
    std::visit(KindReader(fields, kindWord), action);
    return action;
  }
  Fail("kind", "'" + kindWord.substr(0, 40) + "' is not one of " + kinds);
}

// --- Writing -------------------------------------------------------------------

Json MarkJson(const MarkMatch& mark) {
  return mark.mask ? Json::array({mark.value, *mark.mask}) : Json(mark.value);
}

template <class T, std::size_t N>
const char* WordOf(T value, const std::array<std::pair<const char*, T>, N>& words) {
  for (const auto& [word, e] : words) {
    if (e == value) return word;
  }
  return "";
}

// Under the key, or "! key" when negated.
std::string KeyOf(const char* key, bool negated) { return negated ? std::string("! ") + key : std::string(key); }

void WriteConditions(const RuleDescription& d, Json& out) {
  out["side"] = WordOf(d.side, kSides);
  if (d.protocol) out["proto"] = *d.protocol;
  if (d.remote) out["remote"] = d.remote->ToString();
  if (d.local) out["local"] = d.local->ToString();
  if (d.iface) out[KeyOf("iface", d.iface->negated)] = d.iface->name;
  if (d.remotePorts) out["remotePorts"] = Json::array({d.remotePorts->first, d.remotePorts->last});
  if (d.localPorts) out["localPorts"] = Json::array({d.localPorts->first, d.localPorts->last});
  if (d.classid) out["classid"] = *d.classid;
  if (d.mark) out["mark"] = MarkJson(*d.mark);
  if (d.excludeMark) out["! mark"] = MarkJson(*d.excludeMark);
  if (d.excludeRemoteEndpoint) out["excludeRemoteEndpoint"] = *d.excludeRemoteEndpoint;
  if (d.excludeRemote) out["excludeRemote"] = *d.excludeRemote;
  if (d.ctstate) out["ctstate"] = WordOf(*d.ctstate, kConnStates);
  if (d.ctdir) out["ctdir"] = WordOf(*d.ctdir, kConnDirections);
  if (d.remoteAddrtype) {
    out[KeyOf("remoteAddrtype", d.remoteAddrtype->negated)] = WordOf(d.remoteAddrtype->type, kAddressTypes);
  }
  if (d.localAddrtype) {
    out[KeyOf("localAddrtype", d.localAddrtype->negated)] = WordOf(d.localAddrtype->type, kAddressTypes);
  }
  if (d.ctmark) out["ctmark"] = MarkJson(*d.ctmark);
  if (d.excludeCtmark) out["! ctmark"] = MarkJson(*d.excludeCtmark);
  if (d.tcpFlags) out[KeyOf("tcp-flags", d.tcpFlags->negated)] = Json::array({d.tcpFlags->mask, d.tcpFlags->comparison});
}

struct KindWriter {
  Json& out;

  void operator()(const RawAction& a) const {
    out["target"] = a.target;
    Json arguments = Json::array();
    for (const std::string_view word : a.arguments) arguments.push_back(std::string(word));
    out["arguments"] = std::move(arguments);
  }
  void operator()(const AccessAction& a) const { out["action"] = a.action; }
  void operator()(const QueueAction& a) const { out["queue"] = a.queue; }
  void operator()(const MarkAction& a) const { out["assignMark"] = a.assignMark; }
  void operator()(const DivertAction& a) const {
    out["divertToPort"] = a.divertToPort;
    if (a.assignMark) out["assignMark"] = *a.assignMark;
  }
  void operator()(const NatAction& a) const { out["action"] = a.action; }
  void operator()(const ConnmarkAction& a) const {
    out["assignCtmark"] = a.assignCtmark;
    out["assignCtmask"] = a.assignCtmask;
  }
  void operator()(const ConnmarkSaveAction& a) const {
    out["nfMask"] = a.nfMask;
    out["ctMask"] = a.ctMask;
  }
  void operator()(const ConnmarkRestoreAction& a) const {
    out["nfMask"] = a.nfMask;
    out["ctMask"] = a.ctMask;
  }
  void operator()(const NflogAction& a) const {
    out["nflogGroup"] = a.nflogGroup;
    if (a.nflogPrefix) out["nflogPrefix"] = *a.nflogPrefix;
    out["nflogThreshold"] = a.nflogThreshold;
  }
  void operator()(const IsolationAction& a) const { out["action"] = a.action; }
  void operator()(const BypassAction&) const {}
};

}  // namespace

Json RuleDescriptionToJson(const RuleDescription& description) {
  Json out = Json::object();
  out["kind"] = KindWord(description.action.index());
  WriteConditions(description, out);
  std::visit(KindWriter{out}, description.action);
  return out;
}

Outcome<RuleDescription> RuleDescriptionFromJson(const Json& object) {
  if (!object.is_object()) return Outcome<RuleDescription>::Error("expected an object, got " + Shown(object));
  try {
    FieldReader fields(object);
    RuleDescription description;
    std::string kind;
    description.action = ReadAction(fields, kind);
    ReadConditions(fields, description);
    fields.RejectUnread(kind);
    return description;
  } catch (const KeyError& e) {
    return Outcome<RuleDescription>::Error(e.key + ": " + e.reason);
  }
}

}  // namespace qel::host
