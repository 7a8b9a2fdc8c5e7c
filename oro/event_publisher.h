// The framework's event publisher.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "oro/object.h"

namespace oro {

// One event of the product's event model: a kind and named text properties,
// in the order they were added.
struct Event {
  std::string kind;
  std::vector<std::pair<std::string, std::string>> properties;

  Event& Add(std::string name, std::string value) {
    properties.emplace_back(std::move(name), std::move(value));
    return *this;
  }
};

struct IEventPublisher : IObject {
  static constexpr iid_t iid = iid::IEventPublisher;
  // May be called from any thread.
  virtual result_t PublishEvent(Event&& event) noexcept = 0;
};

}  // namespace oro
