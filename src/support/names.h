#pragma once

#include <array>
#include <span>
#include <string_view>

namespace tarvomeldric {

// Names that stand in the program's text.
using Names = std::span<const std::string_view>;

template <class... Name>
constexpr std::array<std::string_view, sizeof...(Name)> names(Name... name) {
  return {name...};
}

}  // namespace tarvomeldric
