#include "flywheel/rules_json.h"

#include <re2/re2.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "checks.h"

namespace tarvomeldric::fuzz {
namespace {

// The input, cut into values: eight bytes make a number, a text ends at a byte 0xFF.
class Values {
 public:
  explicit Values(std::string_view bytes) : rest_(bytes) {}

  bool empty() const { return rest_.empty(); }
  template <class T>
  T number() {
    T value{};
    const std::size_t size = std::min(sizeof value, rest_.size());
    std::memcpy(&value, rest_.data(), size);
    rest_.remove_prefix(size);
    return value;
  }
  std::string text() {
    const std::size_t size = std::min(rest_.find('\xFF'), rest_.size());
    std::string value(rest_.substr(0, size));
    rest_.remove_prefix(std::min(size + 1, rest_.size()));
    return value;
  }

 private:
  std::string_view rest_;
};

RulePtr rule_of(Values& values) {
  auto rule = std::make_shared<LearnedRule>();
  rule->pattern = values.text();
  rule->action = values.text();
  rule->source = values.text();
  rule->success_count = values.number<std::int64_t>();
  rule->fail_count = values.number<std::int64_t>();
  rule->confidence = values.number<double>();
  rule->last_seen_s = values.number<double>();
  rule->avg_heal_time_ms = values.number<double>();
  return rule;
}

// The forms as expressions: whatever the bytes of a text were, it is printable ASCII in quotes.
const std::string kText = R"re("(?:[ !#-\[\]-~]|\\["\\bfnrt]|\\u[0-9a-f]{4})*")re";
const std::string kCount = R"(-?\d+)";
const std::string kFloat = R"((?:-?\d+\.\d+|-?\d(?:\.\d+)?e[+-]\d{2,3}|NaN|-?Infinity))";

std::string members(const std::string& between) {
  std::string all = R"("pattern": )" + kText;
  for (const auto& [name, value] : {std::pair("action", kText),
                                    {"success_count", kCount},
                                    {"fail_count", kCount},
                                    {"confidence", kFloat},
                                    {"last_seen", kFloat},
                                    {"avg_heal_time_ms", kFloat},
                                    {"source", kText}}) {
    all.append(between).append("\"").append(name).append("\": ").append(value);
  }
  return all;
}

const std::string kRule = R"(\{)" + members(", ") + R"(\})";
const std::string kMessage =
    R"(\{"key": )" + kText + R"(, "rule": )" + kRule + R"(, "source": )" + kText + R"(\})";
const std::string kEntry = "\n  " + kText + ": \\{\n    " + members(",\n    ") + "\n  \\}";
const std::string kFile = R"(\{\}|\{)" + kEntry + "(?:," + kEntry + ")*\n\\}";

}  // namespace

void check_rules_json(std::string_view input) {
  static const RE2 one_rule(kRule, RE2::Latin1), message(kMessage, RE2::Latin1);
  static const RE2 file(kFile, RE2::Latin1);
  OrderedMap<RulePtr> rules;
  for (Values values(input); !values.empty();) {
    const RulePtr rule = rule_of(values);
    const std::string key = rule_key(rule->pattern, rule->action);
    rules[key] = rule;
    require(RE2::FullMatch(rule_json(*rule), one_rule), "a rule in its form");
    require(RE2::FullMatch(rule_message(key, *rule, rule->source), message),
            "a message in its form");
  }
  const std::string text = rules_file_text(rules);
  require(RE2::FullMatch(text, file), "a file in its form");
  const auto lines = static_cast<std::size_t>(std::ranges::count(text, '\n'));
  require(lines == (rules.empty() ? 0 : 10 * rules.size() + 1), "every rule is in the file");
}

}  // namespace tarvomeldric::fuzz
