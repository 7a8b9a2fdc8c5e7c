#include "firewall/tokens.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace qel::firewall {
namespace {

std::uint32_t Count(std::size_t n) {
  if (n > UINT32_MAX) throw std::length_error("too many words in a rule");
  return static_cast<std::uint32_t>(n);
}

template <class Words>
std::size_t LettersOf(const Words& words) {
  std::size_t letters = 0;
  for (const auto& word : words) letters += std::string_view(word).size();
  return letters;
}

}  // namespace

// Fills a new block word by word, in order, and hands it over to a Tokens,
// which from then on only reads it. One allocation holds the reference
// count, where each word ends and the letters, which follow as whole 32-bit
// units.
class Tokens::Writer {
 public:
  Writer(std::size_t size, std::size_t letters)
      : m_size(Count(size)),
        m_letterCount(Count(letters)),
        m_block(size == 0 ? nullptr : std::make_shared<std::uint32_t[]>(size + (letters + 3) / 4)),
        m_ends(m_block.get()),
        m_letters(reinterpret_cast<char*>(m_block.get() + size)) {}

  void Add(std::string_view word) noexcept {
    std::copy(word.begin(), word.end(), m_letters + m_at);
    m_at += static_cast<std::uint32_t>(word.size());
    *m_ends++ = m_at;
  }

  Tokens Finish() && noexcept { return Tokens(std::move(m_block), m_size, m_letterCount); }

 private:
  std::uint32_t m_size;
  std::uint32_t m_letterCount;
  std::shared_ptr<std::uint32_t[]> m_block;
  std::uint32_t* m_ends;
  char* m_letters;
  std::uint32_t m_at = 0;
};

Tokens::Tokens(std::initializer_list<std::string_view> tokens) {
  Writer writer(tokens.size(), LettersOf(tokens));
  for (const auto token : tokens) writer.Add(token);
  *this = std::move(writer).Finish();
}

Tokens::Tokens(const std::vector<std::string>& tokens) {
  Writer writer(tokens.size(), LettersOf(tokens));
  for (const auto& token : tokens) writer.Add(token);
  *this = std::move(writer).Finish();
}

bool operator==(const Tokens& a, const Tokens& b) noexcept {
  if (a.m_size != b.m_size || a.m_letters != b.m_letters) return false;
  if (a.m_block == b.m_block) return true;
  return std::memcmp(a.m_block.get(), b.m_block.get(), a.m_size * sizeof(std::uint32_t) + a.m_letters) == 0;
}

Tokens Concat(const Tokens& first, const Tokens& second) {
  if (second.empty()) return first;
  if (first.empty()) return second;
  Tokens::Writer writer(first.size() + second.size(), std::size_t{first.m_letters} + second.m_letters);
  for (const auto token : first) writer.Add(token);
  for (const auto token : second) writer.Add(token);
  return std::move(writer).Finish();
}

std::string JoinTokens(const Tokens& tokens) {
  std::string text;
  for (const auto& token : tokens) {
    if (!text.empty()) text += ' ';
    text += token;
  }
  return text;
}

Tokens SplitTokens(std::string_view text) {
  // Sized once: this runs for every rule the compiler and the parser build.
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != ' ' && (i == 0 || text[i - 1] == ' ')) ++count;
  }
  const std::size_t letters = text.size() - static_cast<std::size_t>(std::count(text.begin(), text.end(), ' '));
  Tokens::Writer writer(count, letters);
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t start = text.find_first_not_of(' ', pos);
    if (start == std::string_view::npos) break;
    const std::size_t end = std::min(text.find(' ', start), text.size());
    writer.Add(text.substr(start, end - start));
    pos = end;
  }
  return std::move(writer).Finish();
}

}  // namespace qel::firewall
