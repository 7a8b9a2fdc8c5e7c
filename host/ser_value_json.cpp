#include "host/ser_value_json.h"

#include <set>
#include <type_traits>

namespace qel::host {
namespace {

constexpr const char* kInt = "int";
constexpr const char* kUint = "uint";
constexpr const char* kFields = "fields";

std::string Member(const std::string& path, const std::string& name) {
  return path.empty() ? name : path + "." + name;
}

std::string Item(const std::string& path, std::size_t index) {
  return (path.empty() ? "value" : path) + "[" + std::to_string(index) + "]";
}

std::string Where(const std::string& path) { return path.empty() ? "value" : path; }

class Reader {
 public:
  // Fills `out` from `json`; false with `m_problem` set when it cannot.
  bool Read(const Json& json, const std::string& path, oro::SerValue& out) {
    switch (json.type()) {
      case Json::value_t::null:
        out.value = oro::SerValue::Null{};
        return true;
      case Json::value_t::boolean:
        out.value = json.get<bool>();
        return true;
      case Json::value_t::string:
        out.value = json.get<std::string>();
        return true;
      case Json::value_t::array:
        return ReadList(json, path, out);
      case Json::value_t::object:
        return ReadTagged(json, path, out);
      default:
        return Fail(Where(path) + ": a bare number (write {\"int\": N} or {\"uint\": N})");
    }
  }

  const std::string& Problem() const { return m_problem; }

 private:
  bool Fail(std::string problem) {
    m_problem = std::move(problem);
    return false;
  }

  bool ReadList(const Json& json, const std::string& path, oro::SerValue& out) {
    oro::SerValue::List list;
    list.reserve(json.size());
    for (std::size_t i = 0; i < json.size(); ++i) {
      if (!Read(json[i], Item(path, i), list.emplace_back())) return false;
    }
    out.value = std::move(list);
    return true;
  }

  bool ReadTagged(const Json& json, const std::string& path, oro::SerValue& out) {
    if (json.size() != 1) {
      return Fail(Where(path) + ": an object needs exactly one key of int, uint, fields");
    }
    const std::string& tag = json.begin().key();
    const Json& inner = json.begin().value();
    if (tag == kInt) {
      if (inner.is_number_integer() && (!inner.is_number_unsigned() || inner.get<std::uint64_t>() <= INT64_MAX)) {
        out.value = inner.get<std::int64_t>();
        return true;
      }
      return Fail(Member(path, kInt) + ": not an integer from -2^63 to 2^63-1");
    }
    if (tag == kUint) {
      if (inner.is_number_unsigned()) {
        out.value = inner.get<std::uint64_t>();
        return true;
      }
      return Fail(Member(path, kUint) + ": not an integer from 0 to 2^64-1");
    }
    if (tag == kFields) return ReadFields(inner, Member(path, kFields), out);
    return Fail(Where(path) + ": unknown key '" + tag + "' (int, uint or fields)");
  }

  bool ReadFields(const Json& json, const std::string& path, oro::SerValue& out) {
    if (!json.is_object()) return Fail(path + ": not an object");
    oro::SerValue::Fields fields;
    fields.reserve(json.size());
    for (const auto& [name, inner] : json.items()) {
      auto& field = fields.emplace_back(name, oro::SerValue{});
      if (!Read(inner, Member(path, name), field.second)) return false;
    }
    out.value = std::move(fields);
    return true;
  }

  std::string m_problem;
};

bool IsUtf8(const std::string& text) {
  try {
    (void)Json(text).dump();
    return true;
  } catch (const Json::type_error&) {
    return false;
  }
}

std::string Unstorable(const oro::SerValue& value, const std::string& path) {
  if (const auto* text = std::get_if<std::string>(&value.value)) {
    if (!IsUtf8(*text)) return Where(path) + ": text is not valid UTF-8";
  } else if (const auto* list = std::get_if<oro::SerValue::List>(&value.value)) {
    for (std::size_t i = 0; i < list->size(); ++i) {
      if (auto found = Unstorable((*list)[i], Item(path, i)); !found.empty()) return found;
    }
  } else if (const auto* fields = std::get_if<oro::SerValue::Fields>(&value.value)) {
    std::set<std::string_view> seen;
    for (const auto& [name, inner] : *fields) {
      if (!IsUtf8(name)) return Where(path) + ": a field name is not valid UTF-8";
      if (!seen.insert(name).second) return Member(path, name) + ": field named twice";
      if (auto found = Unstorable(inner, Member(path, name)); !found.empty()) return found;
    }
  }
  return "";
}

}  // namespace

Json SerValueToJson(const oro::SerValue& value) {
  return std::visit(
      [](const auto& v) -> Json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, oro::SerValue::Null>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          return Json{{kInt, v}};
        } else if constexpr (std::is_same_v<T, std::uint64_t>) {
          return Json{{kUint, v}};
        } else if constexpr (std::is_same_v<T, oro::SerValue::List>) {
          Json list = Json::array();
          for (const auto& item : v) list.push_back(SerValueToJson(item));
          return list;
        } else if constexpr (std::is_same_v<T, oro::SerValue::Fields>) {
          Json fields = Json::object();
          for (const auto& [name, item] : v) fields[name] = SerValueToJson(item);
          return Json{{kFields, std::move(fields)}};
        } else {
          return v;
        }
      },
      value.value);
}

Outcome<oro::SerValue> SerValueFromJson(const Json& json) {
  Reader reader;
  oro::SerValue value;
  if (!reader.Read(json, "", value)) return Outcome<oro::SerValue>::Error(reader.Problem());
  return value;
}

std::string UnstorablePart(const oro::SerValue& value) { return Unstorable(value, ""); }

}  // namespace qel::host
