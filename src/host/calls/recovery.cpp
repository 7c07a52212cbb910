#include "host/calls/recovery.h"

#include "diagnosis/recovery_table.h"
#include "host/interpreter/helpers.h"
#include "host/records/argument.h"

namespace tarvomeldric::host {
namespace {

std::string category_text(nb::handle diagnosis) {
  const nb::object category = nb::getattr(diagnosis, "category");
  return text_form(attribute_or(category, "value", category));
}

double delay_of(const RecoverySuggestion& suggestion, nb::handle diagnosis) {
  if (suggestion.delay_s) return *suggestion.delay_s;
  const nb::object retry_after_s = attribute_or(diagnosis, "retry_after", nb::none());
  const double given =
      retry_after_s.is_none() ? 0.0 : convert_argument<double>(retry_after_s, "retry_after");
  return given != 0 ? given : 1.0;
}

}  // namespace

RecoveryAction suggest_recovery(nb::handle diagnosis, const std::optional<std::string>& provider) {
  const nb::object levels = helper(Helper::kRecoveryLevel);
  const std::string category = category_text(diagnosis);
  const RecoverySuggestion& suggestion = recovery_for(category);
  nb::dict metadata;
  put(metadata, "category", from_utf8(category));
  put(metadata, "sub_category", attribute_or(diagnosis, "sub_category", from_utf8("")));
  RecoveryAction action;
  action.level = levels.attr(suggestion.level);
  action.action = suggestion.action;
  action.target = provider && !provider->empty() ? *provider : "default";
  action.delay_s = delay_of(suggestion, diagnosis);
  action.metadata = metadata;
  return action;
}

}  // namespace tarvomeldric::host
