#include "flywheel/rules_json.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "checks.h"
#include "json_reader.h"
#include "utf8.h"

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
    const std::size_t end = rest_.find('\xFF');
    std::string value(rest_.substr(0, end));
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
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
  rule->last_seen = values.number<double>();
  rule->avg_heal_time_ms = values.number<double>();
  return rule;
}

void require_text(const std::u32string& read, std::string_view written) {
  const auto expected = decoded(written);
  require(!expected || read == *expected, "a text is read back");
}

void require_number(const Json& read, std::int64_t written) {
  require(read.number == std::to_string(written), "a count is read back");
}

void require_number(const Json& read, double written) {
  if (std::isnan(written)) return require(read.number == "NaN", "a NaN is read back");
  if (std::isinf(written)) {
    return require(read.number == (written > 0 ? "Infinity" : "-Infinity"), "infinity");
  }
  double value = 0;
  const char* end = read.number.data() + read.number.size();
  require(std::from_chars(read.number.data(), end, value).ptr == end, "a number is a number");
  require(std::bit_cast<std::uint64_t>(value) == std::bit_cast<std::uint64_t>(written),
          "a number is read back");
  require(read.number.find_first_of(".e") != std::string::npos, "a float is no whole number");
}

void require_rule(const Json& read, const LearnedRule& rule) {
  require(read.members.size() == 8, "eight members");
  std::size_t next = 0;
  const auto member = [&](std::string_view name) -> const Json& {
    require(read.names[next] == std::u32string(name.begin(), name.end()),
            "the members stand in order");
    return read.members[next++];
  };
  require_text(member("pattern").text, rule.pattern);
  require_text(member("action").text, rule.action);
  require_number(member("success_count"), rule.success_count);
  require_number(member("fail_count"), rule.fail_count);
  require_number(member("confidence"), rule.confidence);
  require_number(member("last_seen"), rule.last_seen);
  require_number(member("avg_heal_time_ms"), rule.avg_heal_time_ms);
  require_text(member("source").text, rule.source);
}

void require_message(const Json& read, std::string_view key, const LearnedRule& rule) {
  require(read.members.size() == 3, "three members");
  require_text(read.members[0].text, key);
  require_rule(read.members[1], rule);
  require_text(read.members[2].text, rule.source);
}

}  // namespace

void check_rules_json(std::string_view input) {
  OrderedMap<RulePtr> rules;
  for (Values values(input); !values.empty();) {
    const RulePtr rule = rule_of(values);
    const std::string key = rule_key(rule->pattern, rule->action);
    rules[key] = rule;
    require_rule(read_json(rule_json(*rule)), *rule);
    require_message(read_json(rule_message(key, *rule, rule->source)), key, *rule);
  }
  const Json file = read_json(rules_file_text(rules));
  require(file.members.size() == rules.size(), "every rule is in the file");
  std::size_t next = 0;
  for (const auto& [key, rule] : rules) {
    require_text(file.names[next], key);
    require_rule(file.members[next++], *rule);
  }
}

}  // namespace tarvomeldric::fuzz
