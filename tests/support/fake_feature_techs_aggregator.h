// A feature registry that records what it is told.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "qel_common/feature_techs_aggregator.h"
#include "qel_common/object_impl.h"

namespace qel::test {

class FakeFeatureTechsAggregator final : public ObjectImpl<FakeFeatureTechsAggregator, tools::IFeatureTechsAggregator> {
 public:
  oro::result_t OpenGroup(std::uint32_t group) noexcept override {
    return Record("OpenGroup(" + std::to_string(group) + ")");
  }
  oro::result_t SetFeature(std::uint32_t group, std::uint32_t feature) noexcept override {
    return Record("SetFeature(" + std::to_string(group) + "," + std::to_string(feature) + ")");
  }
  oro::result_t CloseGroup(std::uint32_t group) noexcept override {
    return Record("CloseGroup(" + std::to_string(group) + ")");
  }

  // "OpenGroup(2)", "SetFeature(2,3)", "CloseGroup(2)" in call order.
  std::vector<std::string> calls;
  // Calls that fail, by their text, with the code they return.
  std::map<std::string, oro::result_t> failures;

 private:
  oro::result_t Record(std::string call) {
    const auto failure = failures.find(call);
    calls.push_back(std::move(call));
    return failure == failures.end() ? oro::errOk : failure->second;
  }
};

}  // namespace qel::test
