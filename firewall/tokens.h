// The words of a rule's match or target, e.g. "-p" "tcp" "--dport" "22".
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qel::firewall {

// Fixed once built and shared by every copy: a change to tens of thousands
// of rules copies each of them into the next compilation and into the
// wanted state, and such a copy is then one reference more. The words lie in
// one block, after the offsets where each ends, so that a rule's words take
// one allocation and about their own length, and comparing two lists is
// comparing two blocks. Build longer lists as a std::vector and hand it
// over whole.
class Tokens {
 public:
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using reference = std::string_view;
    using pointer = void;

    Iterator(const Tokens* tokens, std::size_t index) noexcept : m_tokens(tokens), m_index(index) {}
    std::string_view operator*() const noexcept { return (*m_tokens)[m_index]; }
    Iterator& operator++() noexcept {
      ++m_index;
      return *this;
    }
    Iterator operator++(int) noexcept { return Iterator(m_tokens, m_index++); }
    // A position in one list: the same index in another list is elsewhere.
    bool operator==(const Iterator& other) const noexcept {
      return m_tokens == other.m_tokens && m_index == other.m_index;
    }

   private:
    const Tokens* m_tokens;
    std::size_t m_index;
  };

  Tokens() noexcept = default;
  Tokens(std::initializer_list<std::string_view> tokens);
  Tokens(const std::vector<std::string>& tokens);  // NOLINT: a list of words is a Tokens

  std::size_t size() const noexcept { return m_size; }
  bool empty() const noexcept { return m_size == 0; }
  Iterator begin() const noexcept { return Iterator(this, 0); }
  Iterator end() const noexcept { return Iterator(this, m_size); }
  std::string_view operator[](std::size_t index) const noexcept {
    const std::uint32_t* ends = m_block.get();
    const std::uint32_t start = index == 0 ? 0 : ends[index - 1];
    return {Letters() + start, ends[index] - start};
  }
  std::string_view front() const noexcept { return (*this)[0]; }
  std::string_view back() const noexcept { return (*this)[m_size - 1]; }

  friend bool operator==(const Tokens& a, const Tokens& b) noexcept;

 private:
  friend Tokens SplitTokens(std::string_view text);
  friend Tokens Concat(const Tokens& first, const Tokens& second);
  class Writer;
  // Takes over a block that a Writer filled.
  Tokens(std::shared_ptr<const std::uint32_t[]> block, std::uint32_t size, std::uint32_t letters) noexcept
      : m_block(std::move(block)), m_size(size), m_letters(letters) {}
  const char* Letters() const noexcept { return reinterpret_cast<const char*>(m_block.get() + m_size); }

  std::shared_ptr<const std::uint32_t[]> m_block;  // where each word ends, then the letters
  std::uint32_t m_size = 0;
  std::uint32_t m_letters = 0;
};

// `first` followed by `second`.
Tokens Concat(const Tokens& first, const Tokens& second);

// Tokens joined with single blanks.
std::string JoinTokens(const Tokens& tokens);

// Text cut into tokens at blanks (runs of blanks count as one).
Tokens SplitTokens(std::string_view text);

}  // namespace qel::firewall
