// The error of a packet rule or zone list that the rule compiler cannot
// compile, naming the rule, the field and the value.
#pragma once

#include <cstddef>
#include <string>

#include "oro/exception.h"

namespace qel::firewall {

// A packet rule (or a zone list) that cannot be compiled. what() reads e.g.
// "packet rule 2 (ssh), remoteAddress '10.0.0.300': Invalid format of ip address".
class RuleCompileError : public oro::Exception {
 public:
  // ruleIndex is npos for errors in a zone list.
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
  RuleCompileError(std::size_t ruleIndex, std::string ruleName, std::string field, std::string value,
                   std::string reason);

  std::size_t RuleIndex() const noexcept { return m_ruleIndex; }
  const std::string& RuleName() const noexcept { return m_ruleName; }
  const std::string& Field() const noexcept { return m_field; }
  const std::string& Value() const noexcept { return m_value; }
  const std::string& Reason() const noexcept { return m_reason; }

 private:
  std::size_t m_ruleIndex;
  std::string m_ruleName;
  std::string m_field;
  std::string m_value;
  std::string m_reason;
};

}  // namespace qel::firewall
