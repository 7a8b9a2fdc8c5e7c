// The JSON type of the host's requests, replies and event lines. Keys keep
// the order they were written in, so that a reply reads the same every time.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace qel::host {

using Json = nlohmann::ordered_json;

// One line of compact JSON. Text from the kernel or from a client need not
// be valid UTF-8; a bad byte is written as U+FFFD rather than failing the
// line.
inline std::string JsonLine(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace qel::host
