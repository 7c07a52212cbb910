#include "semantic/json_pieces.h"

#include <cstddef>

namespace tarvomeldric {

std::string_view innermost_braces(std::string_view text) {
  std::size_t open = std::string_view::npos;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '{') open = at;
    if (text[at] != '}') continue;
    if (open != std::string_view::npos) return text.substr(open, at - open + 1);
  }
  return {};
}

std::string_view widest_brackets(std::string_view text) {
  const std::size_t open = text.find('[');
  const std::size_t close = text.rfind(']');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return {};
  return text.substr(open, close - open + 1);
}

}  // namespace tarvomeldric
