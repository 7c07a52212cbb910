#pragma once

#include <stdexcept>
#include <string_view>

// What must hold of everything that reads text from outside, one check for each kind of input. A
// check returns for any bytes at all, or throws `Broken`. The fuzzers search for bytes on which it
// does not return; the C++ tests run it on the corpus.
namespace tarvomeldric::fuzz {

struct Broken : std::logic_error {
  using std::logic_error::logic_error;
};

inline void require(bool holds, const char* what) {
  if (!holds) throw Broken(what);
}

// An error text, with its status in front if it has one ("529 overloaded"): is the diagnosis the
// one that a walk over the table, row by row, comes to?
void check_diagnosis(std::string_view input);

// Fields of rules, as raw bytes: has what is written of them its form, ASCII only? That it is to
// the letter what Python's encoder writes is for `rules_file.py` to say.
void check_rules_json(std::string_view input);

// An answer in prose: are the pieces found that the regular expressions for them find?
void check_json_pieces(std::string_view input);

// A streamed reply, cut at the bytes 0xFF: are the events the same however it is cut, and of a text
// those that an expression finds?
void check_event_stream(std::string_view input);

}  // namespace tarvomeldric::fuzz
