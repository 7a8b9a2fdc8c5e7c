// Conversions between the framework's UTF-16 strings and UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace qel::tools {

// Unpaired surrogates become U+FFFD.
std::string ToUtf8(std::u16string_view text);
// Invalid UTF-8 sequences become U+FFFD.
std::u16string ToUtf16(std::string_view text);

}  // namespace qel::tools
