#include "semantic/json_pieces.h"

#include <re2/re2.h>

#include <string_view>

#include "checks.h"

namespace tarvomeldric::fuzz {
namespace {

std::string_view found(const RE2& pattern, std::string_view text) {
  re2::StringPiece piece;
  return RE2::PartialMatch(text, pattern, &piece) ? std::string_view(piece) : std::string_view();
}

}  // namespace

void check_json_pieces(std::string_view input) {
  static const RE2 braces(R"((\{[^{}]*\}))", RE2::Latin1);
  static const RE2 brackets(R"((?s)(\[.*\]))", RE2::Latin1);
  require(innermost_braces(input) == found(braces, input), "braces");
  require(widest_brackets(input) == found(brackets, input), "brackets");
}

}  // namespace tarvomeldric::fuzz
