#include "flywheel/rules_json.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "support/text.h"

namespace tarvomeldric {
namespace {

void append_unit(std::string& out, std::uint32_t unit) {
  std::array<char, 8> escape;
  std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(unit & 0xFFFFU));
  out += escape.data();
}

void append_escaped(std::string& out, std::uint32_t code_point) {
  if (code_point < 0x10000) return append_unit(out, code_point);
  append_unit(out, 0xD800 + ((code_point - 0x10000) >> 10));
  append_unit(out, 0xDC00 + ((code_point - 0x10000) & 0x3FF));
}

void append_ascii(std::string& out, char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\f':
      out += "\\f";
      return;
    case '\b':
      out += "\\b";
      return;
    default:
      break;
  }
  if (c < ' ' || c > '~') return append_unit(out, static_cast<unsigned char>(c));
  out += c;
}

void append_string(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const std::string_view character = text::first_character(text);
    if (character.size() == 1) {
      append_ascii(out, character[0]);
    } else {
      append_escaped(out, text::code_point(character));
    }
    text.remove_prefix(character.size());
  }
  out += '"';
}

std::string json_number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value < 0 ? "-Infinity" : "Infinity";
  return text::shortest(value);
}

// Writes the members of a rule; `separator` stands before each but the first.
void append_members(std::string& out, const LearnedRule& rule, std::string_view separator) {
  const auto name = [&](const char* member) { out.append("\"").append(member).append("\": "); };
  name("pattern");
  append_string(out, rule.pattern);
  out += separator;
  name("action");
  append_string(out, rule.action);
  out += separator;
  name("success_count");
  out += std::to_string(rule.success_count);
  out += separator;
  name("fail_count");
  out += std::to_string(rule.fail_count);
  out += separator;
  name("confidence");
  out += json_number(rule.confidence);
  out += separator;
  name("last_seen");
  out += json_number(rule.last_seen);
  out += separator;
  name("avg_heal_time_ms");
  out += json_number(rule.avg_heal_time_ms);
  out += separator;
  name("source");
  append_string(out, rule.source);
}

constexpr std::size_t kTypicalRuleSize = 320;

}  // namespace

std::string json_string(std::string_view text) {
  std::string out;
  append_string(out, text);
  return out;
}

std::string rule_json(const LearnedRule& rule) {
  std::string out = "{";
  append_members(out, rule, ", ");
  return out + "}";
}

std::string rule_message(std::string_view key, const LearnedRule& rule, std::string_view source) {
  return "{\"key\": " + json_string(key) + ", \"rule\": " + rule_json(rule) +
         ", \"source\": " + json_string(source) + "}";
}

std::string rules_file_text(const OrderedMap<RulePtr>& rules) {
  if (rules.empty()) return "{}";
  std::string out = "{";
  out.reserve(rules.size() * kTypicalRuleSize);
  const char* separator = "\n  ";
  for (const auto& [key, rule] : rules) {
    out += separator;
    append_string(out, key);
    out += ": {\n    ";
    append_members(out, *rule, ",\n    ");
    out += "\n  }";
    separator = ",\n  ";
  }
  return out + "\n}";
}

}  // namespace tarvomeldric
