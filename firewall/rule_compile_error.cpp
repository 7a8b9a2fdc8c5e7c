#include "firewall/rule_compile_error.h"

#include <utility>

namespace qel::firewall {
namespace {

std::string CompileErrorText(std::size_t ruleIndex, const std::string& ruleName, const std::string& field,
                             const std::string& value, const std::string& reason) {
  std::string text;
  if (ruleIndex != RuleCompileError::npos) text = "packet rule " + std::to_string(ruleIndex) + " (" + ruleName + "), ";
  return text + field + " '" + value + "': " + reason;
}

}  // namespace

RuleCompileError::RuleCompileError(std::size_t ruleIndex, std::string ruleName, std::string field, std::string value,
                                   std::string reason)
    : oro::Exception(oro::errInvalidArgument, CompileErrorText(ruleIndex, ruleName, field, value, reason)),
      m_ruleIndex(ruleIndex),
      m_ruleName(std::move(ruleName)),
      m_field(std::move(field)),
      m_value(std::move(value)),
      m_reason(std::move(reason)) {}

}  // namespace qel::firewall
