#include "flywheel/rules_json.h"

#include <algorithm>
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

void append_escape(std::string& out, char c) {
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
      append_unit(out, static_cast<unsigned char>(c));
  }
}

// Whether a JSON text holds it as it is.
constexpr bool is_plain(char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; }

void append_string(std::string& out, std::string_view text) {
  out += '"';
  for (;;) {
    const auto plain =
        static_cast<std::size_t>(std::ranges::find_if_not(text, is_plain) - text.begin());
    out.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) break;
    const std::string_view character = text::first_character(text);
    if (character.size() == 1) {
      append_escape(out, character[0]);
    } else {
      append_escaped(out, text::code_point(character));
    }
    text.remove_prefix(character.size());
  }
  out += '"';
}

void append_number(std::string& out, double value) {
  if (std::isnan(value)) {
    out += "NaN";
  } else if (std::isinf(value)) {
    out += value < 0 ? "-Infinity" : "Infinity";
  } else {
    out += text::shortest(value);
  }
}

// Writes the members of a rule; `separator` stands before each but the first.
void append_members(std::string& out, const LearnedRule& rule, std::string_view separator) {
  const auto next = [&](std::string_view name) -> std::string& {
    return out.append(separator).append(name);
  };
  append_string(out.append(R"("pattern": )"), rule.pattern);
  append_string(next(R"("action": )"), rule.action);
  next(R"("success_count": )") += std::to_string(rule.success_count);
  next(R"("fail_count": )") += std::to_string(rule.fail_count);
  append_number(next(R"("confidence": )"), rule.confidence);
  append_number(next(R"("last_seen": )"), rule.last_seen_s);
  append_number(next(R"("avg_heal_time_ms": )"), rule.avg_heal_time_ms);
  append_string(next(R"("source": )"), rule.source);
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
  out += "\n}";
  return out;
}

}  // namespace tarvomeldric
