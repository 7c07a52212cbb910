#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvomeldric::fuzz {

// The code points of UTF-8, lone surrogates included; nothing for bytes that are no text.
std::optional<std::u32string> decoded(std::string_view bytes);

// Appends a code point; the second one of a pair of surrogates makes one character with the first.
void append(std::u32string& text, char32_t code_point);

}  // namespace tarvomeldric::fuzz
