// A value, or the reason it could not be had: text handed in from outside
// that is refused (naming the key or item that is wrong), a socket that
// cannot be opened. Such failures are ordinary here, so they travel as a
// value rather than as an exception.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace qel::host {

template <class T>
class Outcome {
 public:
  Outcome(T value) : m_state(std::move(value)) {}  // NOLINT: a value converts implicitly
  static Outcome Error(std::string reason) { return Outcome(std::in_place_index<1>, std::move(reason)); }

  bool Ok() const noexcept { return m_state.index() == 0; }
  explicit operator bool() const noexcept { return Ok(); }
  const T& Value() const& { return std::get<0>(m_state); }
  T&& Value() && { return std::get<0>(std::move(m_state)); }
  const std::string& ErrorText() const& { return std::get<1>(m_state); }

 private:
  template <std::size_t I, class A>
  Outcome(std::in_place_index_t<I> index, A&& a) : m_state(index, std::forward<A>(a)) {}

  std::variant<T, std::string> m_state;
};

}  // namespace qel::host
