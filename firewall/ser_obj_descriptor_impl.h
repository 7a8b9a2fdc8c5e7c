// Descriptors of serialisable records, declared as a list of (field name,
// member) pairs:
//
//   SerObjDescriptorImpl descriptor{"ns::PortRange",
//       Field{"start", &PortRange::first}, Field{"end", &PortRange::last}};
//
// A record becomes SerValue::Fields in the listed order. Reading it back looks
// fields up by name, so order does not matter and unknown fields are left
// aside; a missing field is absent when it is optional and refused when not.
// A nested record is converted through its own descriptor, found by
// DescriptorOf<Record>().
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "oro/result.h"
#include "oro/storage.h"
#include "qel_common/ip_address.h"

namespace qel::firewall::serialization {

// What is wrong with a value and where: `path` is built from the inside out
// as the conversion unwinds ("rules[1].remotePortRange.start").
struct Problem {
  std::string path;
  std::string what;

  // Puts a field name or "[index]" in front of the path.
  void Within(const std::string& step) {
    if (!path.empty() && path.front() != '[') path.insert(path.begin(), '.');
    path.insert(0, step);
  }
  std::string Text() const { return path.empty() ? what : path + ": " + what; }
};

// Typed access to a record's descriptor, for records nested in others.
template <class Record>
class RecordDescriptor : public oro::SerObjDescriptor {
 public:
  virtual oro::SerValue Encode(const Record& record) const = 0;
  // Fills `record` field by field; on false it may be half filled.
  virtual bool Decode(const oro::SerValue& value, Record& record, Problem& problem) const = 0;

  oro::SerValue ToValue(const void* record) const final { return Encode(*static_cast<const Record*>(record)); }

  oro::result_t FromValue(const oro::SerValue& value, void* record, std::string* problem) const final {
    // Decoded aside, so that a refused value leaves the caller's record as
    // it was.
    Record decoded{};
    Problem found;
    if (!Decode(value, decoded, found)) {
      if (problem) *problem = found.Text();
      return oro::errInvalidArgument;
    }
    *static_cast<Record*>(record) = std::move(decoded);
    return oro::errOk;
  }
};

// Defined, one specialisation per record, next to the records' descriptors.
template <class Record>
const RecordDescriptor<Record>& DescriptorOf();

// Conversion of one field's value. The primary template handles records.
template <class T>
struct Codec {
  static oro::SerValue To(const T& value) { return DescriptorOf<T>().Encode(value); }
  static bool From(const oro::SerValue& value, T& out, Problem& problem) {
    return DescriptorOf<T>().Decode(value, out, problem);
  }
};

template <class T>
  requires std::unsigned_integral<T> && (!std::same_as<T, bool>)
struct Codec<T> {
  static oro::SerValue To(T value) { return {static_cast<std::uint64_t>(value)}; }
  static bool From(const oro::SerValue& value, T& out, Problem& problem) {
    std::uint64_t number = 0;
    if (const auto* u = std::get_if<std::uint64_t>(&value.value)) {
      number = *u;
    } else if (const auto* i = std::get_if<std::int64_t>(&value.value); i && *i >= 0) {
      number = static_cast<std::uint64_t>(*i);
    } else {
      problem.what = std::holds_alternative<std::int64_t>(value.value) ? "negative" : "not a number";
      return false;
    }
    if (number > std::numeric_limits<T>::max()) {
      problem.what = "out of range (" + std::to_string(number) + " > " +
                     std::to_string(static_cast<std::uint64_t>(std::numeric_limits<T>::max())) + ")";
      return false;
    }
    out = static_cast<T>(number);
    return true;
  }
};

template <class T>
  requires std::is_enum_v<T>
struct Codec<T> {
  using Number = std::underlying_type_t<T>;
  static oro::SerValue To(T value) { return Codec<Number>::To(static_cast<Number>(value)); }
  static bool From(const oro::SerValue& value, T& out, Problem& problem) {
    Number number{};
    if (!Codec<Number>::From(value, number, problem)) return false;
    out = static_cast<T>(number);
    return true;
  }
};

template <>
struct Codec<std::string> {
  static oro::SerValue To(const std::string& value) { return {value}; }
  static bool From(const oro::SerValue& value, std::string& out, Problem& problem) {
    const auto* text = std::get_if<std::string>(&value.value);
    if (!text) {
      problem.what = "not a text";
      return false;
    }
    out = *text;
    return true;
  }
};

// Addresses are stored as their text ("10.77.0.2", "fd77::2").
template <>
struct Codec<tools::IpAddress> {
  static oro::SerValue To(const tools::IpAddress& value) { return {value.ToString()}; }
  static bool From(const oro::SerValue& value, tools::IpAddress& out, Problem& problem) {
    std::string text;
    if (!Codec<std::string>::From(value, text, problem)) return false;
    try {
      out = tools::ParseIpAddress(text);
      return true;
    } catch (const tools::AddressParseError&) {
      problem.what = "not an IP address (\"" + text + "\")";
      return false;
    }
  }
};

template <class T>
struct Codec<std::optional<T>> {
  static oro::SerValue To(const std::optional<T>& value) { return value ? Codec<T>::To(*value) : oro::SerValue{}; }
  static bool From(const oro::SerValue& value, std::optional<T>& out, Problem& problem) {
    if (std::holds_alternative<oro::SerValue::Null>(value.value)) {
      out.reset();
      return true;
    }
    T present{};
    if (!Codec<T>::From(value, present, problem)) return false;
    out = std::move(present);
    return true;
  }
};

template <class T>
struct Codec<std::vector<T>> {
  static oro::SerValue To(const std::vector<T>& items) {
    oro::SerValue::List list;
    list.reserve(items.size());
    for (const auto& item : items) list.push_back(Codec<T>::To(item));
    return {std::move(list)};
  }
  static bool From(const oro::SerValue& value, std::vector<T>& out, Problem& problem) {
    const auto* list = std::get_if<oro::SerValue::List>(&value.value);
    if (!list) {
      problem.what = "not a list";
      return false;
    }
    std::vector<T> items(list->size());
    for (std::size_t i = 0; i < list->size(); ++i) {
      if (!Codec<T>::From((*list)[i], items[i], problem)) {
        problem.Within("[" + std::to_string(i) + "]");
        return false;
      }
    }
    out = std::move(items);
    return true;
  }
};

template <class T>
inline constexpr bool kIsOptional = false;
template <class T>
inline constexpr bool kIsOptional<std::optional<T>> = true;

// One field of a record: the name it is stored under and its member.
template <class Record, class Member>
struct Field {
  const char* name;
  Member Record::*member;
};

template <class Record, class... Members>
class SerObjDescriptorImpl final : public RecordDescriptor<Record> {
 public:
  explicit SerObjDescriptorImpl(const char* typeName, Field<Record, Members>... fields)
      : m_typeName(typeName), m_fields(fields...) {}

  const char* TypeName() const noexcept override { return m_typeName; }

  std::vector<std::string> FieldNames() const override {
    return std::apply([](const auto&... field) { return std::vector<std::string>{field.name...}; }, m_fields);
  }

  oro::SerValue Encode(const Record& record) const override {
    oro::SerValue::Fields fields;
    fields.reserve(sizeof...(Members));
    std::apply(
        [&](const auto&... field) {
          (fields.emplace_back(field.name, Codec<Members>::To(record.*(field.member))), ...);
        },
        m_fields);
    return {std::move(fields)};
  }

  bool Decode(const oro::SerValue& value, Record& record, Problem& problem) const override {
    const auto* fields = std::get_if<oro::SerValue::Fields>(&value.value);
    if (!fields) {
      problem.what = "not a set of fields";
      return false;
    }
    return std::apply([&](const auto&... field) { return (DecodeField(*fields, field, record, problem) && ...); },
                      m_fields);
  }

 private:
  template <class Member>
  static bool DecodeField(const oro::SerValue::Fields& fields, const Field<Record, Member>& field, Record& record,
                          Problem& problem) {
    const oro::SerValue* stored = nullptr;
    for (const auto& [name, value] : fields) {
      if (name == field.name) {
        stored = &value;
        break;
      }
    }
    if (!stored) {
      if constexpr (kIsOptional<Member>) return true;
      problem.what = "missing";
      problem.Within(field.name);
      return false;
    }
    if (!Codec<Member>::From(*stored, record.*(field.member), problem)) {
      problem.Within(field.name);
      return false;
    }
    return true;
  }

  const char* m_typeName;
  std::tuple<Field<Record, Members>...> m_fields;
};

// Deduces the record and member types from the fields.
template <class Record, class... Members>
SerObjDescriptorImpl(const char*, Field<Record, Members>...) -> SerObjDescriptorImpl<Record, Members...>;

}  // namespace qel::firewall::serialization
