#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Texts are UTF-8; a lone surrogate of Python's text is carried as its three-byte form. Bytes
// that are no UTF-8 are safe everywhere, and come out as some characters or other.
namespace tarvomeldric::text {

// Lower-cases beyond ASCII the way Python does. Without a hook such characters stay as they are.
using LowerHook = std::string (*)(std::string_view);
void install_lower_hook(LowerHook hook);

std::string lower(std::string_view text);

// Without the white space at both ends; every character that Python counts as white space counts.
std::string_view strip(std::string_view text);

// Characters, not bytes.
std::size_t length(std::string_view text);
std::string_view first(std::string_view text, std::size_t characters);

// The first character of a text that is not empty, and the code point of one character.
std::string_view first_character(std::string_view text);
std::uint32_t code_point(std::string_view character);

bool contains(std::string_view text, std::string_view part);

// The shortest decimal that reads back to the same double, laid out as Python writes a float:
// 0.1, 2.0, 1e-05, 1e+16, inf, -inf, nan.
std::string shortest(double value);
// With exactly `digits` digits after the point.
std::string fixed(double value, int digits);

}  // namespace tarvomeldric::text
