// Reads the rule listing that `iptables -t <table> -S` prints for one table
// back into the rule-set model. It is the module's only view of what really
// sits in the kernel, so it stays narrow: the policy ("-P"), new-chain ("-N")
// and append ("-A") lines are understood and every other line is ignored.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// The same parse over a listing that is still being read, so that a long
// listing is parsed while the tool is still printing it. Each call is given
// the whole text read so far, which only ever grows.
class IptablesOutputParser {
 public:
  // `out` must outlive the parser and is filled as in ParseIptablesOutput.
  IptablesOutputParser(oro::ITracer* tracer, State& out);
  ~IptablesOutputParser();
  IptablesOutputParser(const IptablesOutputParser&) = delete;
  IptablesOutputParser& operator=(const IptablesOutputParser&) = delete;

  // Parses the complete lines not parsed yet; never throws. After a failure
  // the rest is ignored and Finish reports it.
  void ParseCompleteLines(std::string_view output) noexcept;
  // Parses what is left, a last line without its newline included, and
  // returns the outcome of the whole parse.
  oro::result_t Finish(std::string_view output) noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace qel::firewall
