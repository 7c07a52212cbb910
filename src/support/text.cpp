#include "support/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace tarvomeldric::text {
namespace {

LowerHook lower_hook = nullptr;

constexpr std::size_t kLongestCharacter = 4;

constexpr char ascii_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}
// Without an early end, so that the compiler can look at many characters at a time.
bool is_ascii(std::string_view text) {
  unsigned seen = 0;
  for (char c : text) seen |= static_cast<unsigned char>(c);
  return seen < 0x80;
}
constexpr bool is_continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

constexpr bool is_space(std::uint32_t c) {
  return (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x20) || c == 0x85 || c == 0xA0 ||
         c == 0x1680 || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F ||
         c == 0x205F || c == 0x3000;
}

std::string_view last_character(std::string_view text) {
  std::size_t n = 1;
  const std::size_t most = std::min(text.size(), kLongestCharacter);
  while (n < most && is_continuation(text[text.size() - n])) ++n;
  return text.substr(text.size() - n);
}

}  // namespace

std::uint32_t code_point(std::string_view character) {
  const auto lead = static_cast<unsigned char>(character[0]);
  std::uint32_t c = lead < 0x80 ? lead : lead & (0x3FU >> (character.size() - 1));
  for (char next : character.substr(1)) c = (c << 6) | (static_cast<unsigned char>(next) & 0x3FU);
  return c;
}

std::string_view first_character(std::string_view text) {
  std::size_t n = 1;
  const std::size_t most = std::min(text.size(), kLongestCharacter);
  while (n < most && is_continuation(text[n])) ++n;
  return text.substr(0, n);
}

void install_lower_hook(LowerHook hook) { lower_hook = hook; }

std::string lower(std::string_view text) {
  if (!is_ascii(text) && lower_hook) return lower_hook(text);
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), ascii_lower);
  return lowered;
}

std::string_view strip(std::string_view text) {
  while (!text.empty() && is_space(code_point(first_character(text)))) {
    text.remove_prefix(first_character(text).size());
  }
  while (!text.empty() && is_space(code_point(last_character(text)))) {
    text.remove_suffix(last_character(text).size());
  }
  return text;
}

std::size_t length(std::string_view text) {
  return text.size() -
         static_cast<std::size_t>(std::count_if(text.begin(), text.end(), is_continuation));
}

std::string_view first(std::string_view text, std::size_t characters) {
  if (text.size() <= characters) return text;
  std::size_t at = 0;
  for (std::size_t seen = 0; at < text.size(); ++at) {
    if (!is_continuation(text[at]) && seen++ == characters) break;
  }
  return text.substr(0, at);
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::string shortest(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  std::array<char, 400> buffer;
  const double size = std::fabs(value);
  const bool scientific = size != 0 && (size < 1e-4 || size >= 1e16);
  const auto format = scientific ? std::chars_format::scientific : std::chars_format::fixed;
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, format).ptr;
  std::string written(buffer.data(), end);
  if (!scientific && !contains(written, ".")) written += ".0";
  return written;
}

std::string fixed(double value, int digits) {
  if (std::isnan(value)) return "nan";
  std::array<char, 400> buffer;
  const int n = std::snprintf(buffer.data(), buffer.size(), "%.*f", digits, value);
  return std::string(buffer.data(), static_cast<std::size_t>(n));
}

}  // namespace tarvomeldric::text
