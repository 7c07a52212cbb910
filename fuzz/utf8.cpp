#include "utf8.h"

#include <cstddef>

namespace tarvomeldric::fuzz {

std::optional<std::u32string> decoded(std::string_view bytes) {
  std::u32string text;
  while (!bytes.empty()) {
    const auto lead = static_cast<unsigned char>(bytes[0]);
    const std::size_t size = lead < 0x80   ? 1
                             : lead < 0xC0 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                                           : 4;
    if (size == 0 || lead > 0xF4 || bytes.size() < size) return std::nullopt;
    char32_t c = size == 1 ? lead : lead & (0x7FU >> size);
    for (char next : bytes.substr(1, size - 1)) {
      if ((static_cast<unsigned char>(next) & 0xC0U) != 0x80) return std::nullopt;
      c = (c << 6) | (static_cast<unsigned char>(next) & 0x3FU);
    }
    constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < least[size] || c > 0x10FFFF) return std::nullopt;
    append(text, c);
    bytes.remove_prefix(size);
  }
  return text;
}

void append(std::u32string& text, char32_t code_point) {
  const bool low = code_point >= 0xDC00 && code_point <= 0xDFFF;
  if (low && !text.empty() && text.back() >= 0xD800 && text.back() <= 0xDBFF) {
    text.back() = 0x10000 + ((text.back() - 0xD800) << 10) + (code_point - 0xDC00);
  } else {
    text += code_point;
  }
}

}  // namespace tarvomeldric::fuzz
