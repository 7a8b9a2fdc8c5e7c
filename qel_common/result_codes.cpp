#include <cerrno>

#include "oro/result.h"

namespace oro {

const char* ResultText(result_t r) noexcept {
  switch (r) {
    case errOk: return "Success";
    case errFalse: return "False";
    case errNoInterface: return "Interface not supported";
    case errNoMemory: return "Out of memory";
    case errNotImplemented: return "Not implemented";
    case errInvalidArgument: return "Invalid argument";
    case errUnexpected: return "Unexpected error";
    case errNotFound: return "Not found";
    case errAlreadyExists: return "Already exists";
    case errInvalidState: return "Invalid state";
    case errClassNotFound: return "Class not found";
    case errUnknownException: return "Unknown exception";
    case errTimeout: return "Timeout";
    default: break;
  }
  if ((r & 0xffff0000u) == errSystemBase) return "System error";
  return Succeeded(r) ? "Success" : "Failure";
}

result_t ResultFromErrno(int err) noexcept {
  switch (err) {
    case 0: return errOk;
    case EEXIST: return errAlreadyExists;
    case ENOENT: return errNotFound;
    case ENOMEM: return errNoMemory;
    case EINVAL: return errInvalidArgument;
    case ETIMEDOUT: return errTimeout;
    default: break;
  }
  if (err > 0 && err < 65536) return errSystemBase + static_cast<result_t>(err);
  return errSystemGeneric;
}

}  // namespace oro
