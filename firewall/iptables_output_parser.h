// Reads the rule listing that `iptables -t <table> -S` prints for one table
// back into the rule-set model. It is the module's only view of what really
// sits in the kernel, so it stays narrow: the policy ("-P"), new-chain ("-N")
// and append ("-A") lines are understood and every other line is ignored.
#pragma once

#include <string_view>

#include "firewall/rule_model.h"
#include "oro/result.h"
#include "oro/tracer.h"

namespace qel::firewall {

// Appends the chains and rules of `output` to `out`, which the caller passes
// empty. A built-in chain keeps its policy as its last rule; rules of chains
// the listing never declared are dropped. On a malformed line (traced at
// error level) returns errUnexpected and leaves in `out` what the earlier
// lines produced; memory exhaustion yields errNoMemory. `tracer` may be null.
oro::result_t ParseIptablesOutput(oro::ITracer* tracer, std::string_view output, State& out);

}  // namespace qel::firewall
