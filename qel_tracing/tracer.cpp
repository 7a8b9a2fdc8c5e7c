#include "qel_tracing/tracer.h"

#include <cstdio>

namespace qel::tracing {

std::string FormatResult(oro::result_t result) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08x", result);
  return std::string(code) + " (" + oro::ResultText(result) + ")";
}

std::string Hex(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

std::string FormatFailedCall(std::string_view unit, int line, std::string_view expression, oro::result_t result,
                             std::string_view message) {
  std::ostringstream text;
  text << unit << '(' << line << "): (" << expression << "),(ORO_SUCCEEDED(_result)) failed: result = "
       << FormatResult(result);
  if (!message.empty()) text << ". " << message;
  return text.str();
}

std::string FormatFailedCondition(std::string_view unit, int line, std::string_view condition,
                                  std::string_view message) {
  std::ostringstream text;
  text << unit << '(' << line << "): (" << condition << ") failed: result = false";
  if (!message.empty()) text << ". " << message;
  return text.str();
}

}  // namespace qel::tracing
