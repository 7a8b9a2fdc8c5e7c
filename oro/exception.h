// The framework's exceptions. They never cross an interface boundary: the
// boundary turns them into result codes.
#pragma once

#include <stdexcept>
#include <string>

#include "oro/result.h"

namespace oro {

// An exception that carries the result code it stands for.
class Exception : public std::runtime_error {
 public:
  Exception(result_t code, const std::string& what) : std::runtime_error(what), m_code(code) {}
  result_t Code() const noexcept { return m_code; }

 private:
  result_t m_code;
};

// Thrown by GetInterface() when the locator cannot provide an interface.
class GetInterfaceException : public Exception {
 public:
  explicit GetInterfaceException(result_t code) : Exception(code, "Can't get interface") {}
};

}  // namespace oro
