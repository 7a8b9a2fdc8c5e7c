// The framework's event publisher.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "oro/object.h"

namespace oro {

// One event of the product's event model: a kind and named properties, texts
// or numbers, in the order they were added.
struct Event {
  using Value = std::variant<std::string, std::int64_t>;
  std::string kind;
  std::vector<std::pair<std::string, Value>> properties;

  Event& Add(std::string name, std::string value) {
    properties.emplace_back(std::move(name), std::move(value));
    return *this;
  }
  Event& Add(std::string name, std::int64_t value) {
    properties.emplace_back(std::move(name), value);
    return *this;
  }
};

struct IEventPublisher : IObject {
  static constexpr iid_t iid = iid::IEventPublisher;
  // May be called from any thread.
  virtual result_t PublishEvent(Event&& event) noexcept = 0;
};

}  // namespace oro
