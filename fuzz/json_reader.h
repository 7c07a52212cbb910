#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarvomeldric::fuzz {

// As much of JSON as rules are written in: objects, strings, numbers. Strict, and written without a
// look at the writer.
struct Json {
  std::u32string text;
  std::string number;                 // its letters
  std::vector<std::u32string> names;  // of an object's members, whose values are
  std::vector<Json> members;
};

// Throws `Broken` for what is no such document, and for a byte that is not ASCII.
Json read_json(std::string_view text);

}  // namespace tarvomeldric::fuzz
