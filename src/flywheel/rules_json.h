#pragma once

#include <string>
#include <string_view>

#include "flywheel/learned_rule.h"
#include "flywheel/learner.h"
#include "support/ordered_map.h"

// The JSON forms of learned rules, to the letter as Python's own encoder writes them: ASCII only,
// floats in their shortest form.
namespace tarvomeldric {

// A text as a JSON string, quotes included.
std::string json_string(std::string_view text);

// One rule on one line: {"pattern": "timeout", "action": ...}
std::string rule_json(const LearnedRule& rule);

// What the members of a fleet send each other: {"key": ..., "rule": {...}, "source": ...}
std::string rule_message(std::string_view key, const LearnedRule& rule, std::string_view source);

// The rules file: one object, a member for each rule in table order, indented by two blanks.
std::string rules_file_text(const OrderedMap<RulePtr>& rules);

}  // namespace tarvomeldric
