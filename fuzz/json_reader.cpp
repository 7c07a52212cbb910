#include "json_reader.h"

#include <charconv>
#include <cstdint>

#include "checks.h"
#include "utf8.h"

namespace tarvomeldric::fuzz {
namespace {

class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  Json document() {
    Json read = value();
    skip_space();
    require(rest_.empty(), "JSON: one value");
    return read;
  }

 private:
  Json value() {
    skip_space();
    if (took("{")) return object();
    Json read;
    if (took("\"")) {
      read.text = string();
    } else {
      read.number = number();
    }
    return read;
  }

  Json object() {
    Json read;
    skip_space();
    if (took("}")) return read;
    do {
      skip_space();
      require(took("\""), "JSON: a member's name");
      read.names.push_back(string());
      skip_space();
      require(took(":"), "JSON: colon");
      read.members.push_back(value());
      skip_space();
    } while (took(","));
    require(took("}"), "JSON: closing brace");
    return read;
  }

  // Behind the opening quote.
  std::u32string string() {
    std::u32string read;
    while (!took("\"")) {
      require(!rest_.empty() && rest_[0] >= ' ' && rest_[0] <= '~', "JSON: a printable character");
      if (took("\\")) {
        escaped(read);
      } else {
        read += static_cast<char32_t>(rest_[0]);
        rest_.remove_prefix(1);
      }
    }
    return read;
  }

  void escaped(std::u32string& read) {
    constexpr std::string_view letters = "\"\\/bfnrt", meant = "\"\\/\b\f\n\r\t";
    if (took("u")) return append(read, hexadecimal());
    require(!rest_.empty(), "JSON: an escape");
    const std::size_t which = letters.find(rest_[0]);
    require(which != std::string_view::npos, "JSON: a known escape");
    read += static_cast<char32_t>(meant[which]);
    rest_.remove_prefix(1);
  }

  std::uint32_t hexadecimal() {
    std::uint32_t unit = 0;
    require(rest_.size() >= 4, "JSON: four digits");
    const char* end = rest_.data() + 4;
    require(std::from_chars(rest_.data(), end, unit, 16).ptr == end, "JSON: four digits");
    rest_.remove_prefix(4);
    return unit;
  }

  // Its letters; that they are a number shows when they are converted.
  std::string number() {
    const std::string_view letters = rest_.substr(0, rest_.find_first_of(",}\n "));
    rest_.remove_prefix(letters.size());
    return std::string(letters);
  }

  void skip_space() {
    while (took(" ") || took("\n")) continue;
  }
  bool took(std::string_view expected) {
    if (!rest_.starts_with(expected)) return false;
    rest_.remove_prefix(expected.size());
    return true;
  }

  std::string_view rest_;
};

}  // namespace

Json read_json(std::string_view text) { return Reader(text).document(); }

}  // namespace tarvomeldric::fuzz
