#include "qel_common/string_conv.h"

#include <algorithm>
#include <cstdint>

namespace qel::tools {
namespace {

constexpr char32_t kReplacement = 0xfffd;

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xc0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3f));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xe0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (c & 0x3f));
  } else {
    out += static_cast<char>(0xf0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3f));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (c & 0x3f));
  }
}

void AppendUtf16(std::u16string& out, char32_t c) {
  if (c < 0x10000) {
    out += static_cast<char16_t>(c);
  } else {
    c -= 0x10000;
    out += static_cast<char16_t>(0xd800 + (c >> 10));
    out += static_cast<char16_t>(0xdc00 + (c & 0x3ff));
  }
}

// Decodes one UTF-8 sequence starting at text[i]; advances i.
char32_t DecodeUtf8(std::string_view text, std::size_t& i) {
  const auto byte = [&](std::size_t k) { return static_cast<std::uint8_t>(text[k]); };
  const std::uint8_t lead = byte(i++);
  if (lead < 0x80) return lead;
  int extra;
  char32_t c;
  char32_t min;
  if ((lead & 0xe0) == 0xc0) {
    extra = 1, c = lead & 0x1f, min = 0x80;
  } else if ((lead & 0xf0) == 0xe0) {
    extra = 2, c = lead & 0x0f, min = 0x800;
  } else if ((lead & 0xf8) == 0xf0) {
    extra = 3, c = lead & 0x07, min = 0x10000;
  } else {
    return kReplacement;
  }
  for (int k = 0; k < extra; ++k) {
    if (i >= text.size() || (byte(i) & 0xc0) != 0x80) return kReplacement;
    c = (c << 6) | (byte(i++) & 0x3f);
  }
  if (c < min || c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff)) return kReplacement;
  return c;
}

}  // namespace

std::string ToUtf8(std::u16string_view text) {
  // Settings are nearly all ASCII, which converts unit for unit.
  if (std::all_of(text.begin(), text.end(), [](char16_t c) { return c < 0x80; })) {
    return std::string(text.begin(), text.end());
  }
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xd800 && c <= 0xdbff && i + 1 < text.size() && text[i + 1] >= 0xdc00 && text[i + 1] <= 0xdfff) {
      c = 0x10000 + ((c - 0xd800) << 10) + (text[++i] - 0xdc00);
    } else if (c >= 0xd800 && c <= 0xdfff) {
      c = kReplacement;
    }
    AppendUtf8(out, c);
  }
  return out;
}

std::u16string ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) AppendUtf16(out, DecodeUtf8(text, i));
  return out;
}

}  // namespace qel::tools
