#pragma once

#include <string_view>

// Where an answer in prose may hold a JSON document. Each is one pass, whatever the text, and
// empty when there is no such piece.
namespace tarvomeldric {

// The leftmost run in braces that holds no brace.
std::string_view innermost_braces(std::string_view text);

// From the first opening bracket to the last closing one.
std::string_view widest_brackets(std::string_view text);

}  // namespace tarvomeldric
