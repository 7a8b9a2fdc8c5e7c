// The product's registry of features and the technologies behind them.
#pragma once

#include <cstdint>

#include "oro/object.h"

namespace qel::tools {

struct IFeatureTechsAggregator : oro::IObject {
  static constexpr oro::iid_t iid = oro::iid::IFeatureTechsAggregator;
  virtual oro::result_t OpenGroup(std::uint32_t group) noexcept = 0;
  virtual oro::result_t SetFeature(std::uint32_t group, std::uint32_t feature) noexcept = 0;
  virtual oro::result_t CloseGroup(std::uint32_t group) noexcept = 0;
};

}  // namespace qel::tools
