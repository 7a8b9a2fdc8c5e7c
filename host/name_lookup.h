// One blocking look-up of a host name, the way the system's resolver does
// it. The host's name resolver runs it on a thread of its own, so that a
// resolver that hangs costs a thread and never the caller's time-out; tests
// hand in a look-up of their own.
#pragma once

#include <string>
#include <vector>

#include "oro/result.h"

namespace qel::host {

struct NameLookupAnswer {
  oro::result_t result = oro::errOk;
  std::vector<std::string> addresses;  // texts, "10.0.0.1", "fd00::1"
};

class NameLookup {
 public:
  virtual ~NameLookup() = default;
  // May block as long as the system's resolver takes; called on a thread
  // that nobody waits for once the caller's time-out has passed.
  virtual NameLookupAnswer Lookup(const std::string& host) = 0;
};

}  // namespace qel::host
