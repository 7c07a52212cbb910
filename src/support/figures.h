#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tarvomeldric {

// What a read-out says: named values in a fixed order, some of them read-outs themselves.
//
//   Figures{{"active", 3}, {"max", 10}, {"circuit", Figures{{"state", "open"}}}}
struct Figure;
using Figures = std::vector<Figure>;

struct Figure {
  using Value = std::variant<bool, std::int64_t, double, std::string, Figures>;

  Figure(std::string figure_name, Value figure_value)
      : name(std::move(figure_name)), value(std::move(figure_value)) {}

  std::string name;
  Value value;
};

}  // namespace tarvomeldric
