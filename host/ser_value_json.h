// Stored values in JSON, one to one. JSON cannot tell a signed from an
// unsigned integer, nor an ordered set of keyed fields from an object, so
// those are written tagged:
//   null, true/false, "text", [ ... ]  as themselves
//   int64                              {"int": -5}
//   uint64                             {"uint": 5}
//   Fields                             {"fields": {"name": VALUE, ...}} in order
// Reading refuses anything else, naming where it is ("fields.clients[2]").
#pragma once

#include <string>

#include "host/json.h"
#include "host/outcome.h"
#include "oro/storage.h"

namespace qel::host {

Json SerValueToJson(const oro::SerValue& value);
Outcome<oro::SerValue> SerValueFromJson(const Json& json);

// Empty when JSON can hold `value` as it is, else what it cannot hold and
// where: a field named twice in one Fields (a JSON object keeps one of
// them), text that is not valid UTF-8.
std::string UnstorablePart(const oro::SerValue& value);

}  // namespace qel::host
