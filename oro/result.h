// Result codes of the component framework.
#pragma once

#include <cstdint>

namespace oro {

// Unsigned 32-bit result code: 0 success, 1 "False" (success with a negative
// answer); a code with the top bit set is a failure.
using result_t = std::uint32_t;

inline constexpr bool Succeeded(result_t r) noexcept { return static_cast<std::int32_t>(r) >= 0; }
inline constexpr bool Failed(result_t r) noexcept { return !Succeeded(r); }

// The codes this module produces. Their texts come from ResultText().
inline constexpr result_t errOk = 0x00000000;
inline constexpr result_t errFalse = 0x00000001;
inline constexpr result_t errNoInterface = 0x80000001;
inline constexpr result_t errNoMemory = 0x80000041;
inline constexpr result_t errNotImplemented = 0x80000043;
inline constexpr result_t errInvalidArgument = 0x80000046;
inline constexpr result_t errUnexpected = 0x8000004b;
inline constexpr result_t errNotFound = 0x8000004c;
inline constexpr result_t errAlreadyExists = 0x80000067;
inline constexpr result_t errInvalidState = 0x8000006a;
inline constexpr result_t errClassNotFound = 0x80000100;
inline constexpr result_t errUnknownException = 0x80000150;
inline constexpr result_t errTimeout = 0x80000221;
// errno values below 65536 without a dedicated code map onto this base.
inline constexpr result_t errSystemBase = 0x80060000;
inline constexpr result_t errSystemGeneric = 0x8006ffff;

// Human-readable text of a result code ("Interface not supported", ...).
const char* ResultText(result_t r) noexcept;

// Maps an errno value onto a result code.
result_t ResultFromErrno(int err) noexcept;

}  // namespace oro

#define ORO_SUCCEEDED(r) (::oro::Succeeded(r))
#define ORO_FAILED(r) (::oro::Failed(r))
