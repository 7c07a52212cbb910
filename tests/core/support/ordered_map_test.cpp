#include "support/ordered_map.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace tarvomeldric {
namespace {

using Listed = std::vector<std::pair<std::string, int>>;

Listed listed(const OrderedMap<int>& map) { return {map.begin(), map.end()}; }

TEST(OrderedMap, KeepsTheOrderOfFirstInsertionWhateverIsErased) {
  std::mt19937 random(7);
  OrderedMap<int> map;
  Listed expected;
  for (int step = 0; step < 5000; ++step) {
    const std::string key = std::to_string(random() % 60);
    const auto known = std::ranges::find(expected, key, &Listed::value_type::first);
    if (random() % 2 == 0) {
      map[key] = step;
      known != expected.end() ? void(known->second = step) : void(expected.emplace_back(key, step));
    } else {
      EXPECT_EQ(map.erase(key), known != expected.end());
      if (known != expected.end()) expected.erase(known);
    }
    ASSERT_EQ(listed(map), expected);
  }
  EXPECT_EQ(listed(OrderedMap<int>(map)), expected);
  std::ranges::reverse(expected);
  Listed backwards;
  for (auto entry = map.end(); entry != map.begin();) backwards.emplace_back(*--entry);
  EXPECT_EQ(backwards, expected);
}

TEST(OrderedMap, StaysTheSameUnderAWalkThatErasesAndLeavesValuesWhereTheyAre) {
  OrderedMap<int> map;
  int* first = &(map["0"] = 0);
  for (int i = 1; i < 100; ++i) map[std::to_string(i)] = i;
  int seen = 0;
  for (auto entry = map.begin(); entry != map.end(); ++seen) {
    const std::string key = entry->first;
    ++entry;
    if (key != "0") map.erase(key);
  }
  EXPECT_EQ(seen, 100);
  EXPECT_EQ(map.find("0"), first);
  for (int i = 0; i < 100; ++i) map["new " + std::to_string(i)] = i;
  EXPECT_EQ(map.find("0"), first);
  EXPECT_EQ(map.size(), 101);
}

}  // namespace
}  // namespace tarvomeldric
