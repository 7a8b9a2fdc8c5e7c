#include "qel_common/exception_result.h"

#include "oro/exception.h"

namespace qel {

oro::result_t ResultFromException(const std::exception_ptr& e) noexcept {
  try {
    std::rethrow_exception(e);
  } catch (const oro::Exception& ex) {
    return ex.Code();
  } catch (const std::nested_exception& nested) {
    if (nested.nested_ptr()) return ResultFromException(nested.nested_ptr());
  } catch (...) {
  }
  return oro::errUnknownException;
}

std::string ExceptionText(const std::exception_ptr& e) noexcept {
  try {
    std::rethrow_exception(e);
  } catch (const std::exception& ex) {
    return ex.what();
  } catch (...) {
  }
  return "unknown exception";
}

}  // namespace qel
