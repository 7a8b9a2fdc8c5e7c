// Turning an exception into a result code at an interface boundary.
#pragma once

#include <exception>
#include <string>

#include "oro/result.h"

namespace qel {

// The code of the first framework exception found in `e` or in the
// exceptions nested in it; errUnknownException when there is none.
oro::result_t ResultFromException(const std::exception_ptr& e) noexcept;

// The text of `e` (its what()), or "unknown exception".
std::string ExceptionText(const std::exception_ptr& e) noexcept;

}  // namespace qel
