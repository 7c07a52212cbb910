#include "diagnosis/fault_patterns.h"

#include <re2/re2.h>
#include <re2/set.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarvomeldric {

// The order is the order of matching: what one provider says comes before what all of them say.
// clang-format off
const std::array<FaultPattern, kFaultPatternCount> kFaultPatterns{{
    {R"(azure.*throttle|deployments/rateLimit|throttling\.ratequota)", FaultCategory::kRateLimit, 0.95, "rate_limit:azure"},
    {R"(715-123420|555420|fraud signal)", FaultCategory::kAuthError, 0.95, "auth_error:azure"},
    {R"(deployment.*not.*found|modelnotexists)", FaultCategory::kModelNotFound, 0.9, "model_not_found:azure"},
    {R"(resource_exhausted|requests per minute|tokens per minute)", FaultCategory::kRateLimit, 0.9, "rate_limit:google"},
    {R"(google.*overloaded|gemini.*unavailable)", FaultCategory::kServerError, 0.9, "server_error:google"},
    {R"(anthropic.*overloaded|error 529|claude.*unavailable)", FaultCategory::kRateLimit, 0.95, "rate_limit:anthropic"},
    {R"(dashscope.*throttle|qwen.*rate.*limit|通义.*限流)", FaultCategory::kRateLimit, 0.9, "rate_limit:dashscope"},
    {R"(dashscope.*unavailable|qwen.*unavailable|通义.*不可用)", FaultCategory::kServerError, 0.9, "server_error:dashscope"},
    {R"(deepseek.*throttle|deepseek.*rate.*limit)", FaultCategory::kRateLimit, 0.9, "rate_limit:deepseek"},
    {R"(deepseek.*unavailable|deepseek.*overloaded)", FaultCategory::kServerError, 0.9, "server_error:deepseek"},
    {R"(openai.*overloaded|api request error|openai's api is currently)", FaultCategory::kRateLimit, 0.95, "rate_limit:openai"},
    {R"(throttling\.ratequota|deployments/rateLimit|throttled due to rate)", FaultCategory::kRateLimit, 0.95, "rate_limit:azure"},
    {R"(rate.?limit|too many requests|429)", FaultCategory::kRateLimit, 0.95, "rate_limit"},
    {R"(quota.?exceeded|请求过于频繁|请求速度超限|配额不足|额度用尽)", FaultCategory::kRateLimit, 0.9, "rate_limit"},
    {R"(slow down|request limit|request rate too high|ratequota exceeded)", FaultCategory::kRateLimit, 0.9, "rate_limit"},
    {R"(monthly spend limit|subscription quota|spend limit)", FaultCategory::kQuotaExceeded, 0.9, "quota_exceeded"},
    {R"(insufficient.?balance|余额不足|out of credits|credits? exceeded|billing.*exceeded)", FaultCategory::kQuotaExceeded, 0.95, "quota_exceeded:insufficient_balance"},
    {R"(capacity|high demand|please retry|retry after)", FaultCategory::kRateLimit, 0.8, "rate_limit"},
    {R"(x-api-key|aad login|azure ad|azuread|invalidcredential|凭证无效)", FaultCategory::kAuthError, 0.95, "auth_error:platform"},
    {R"(permission_denied|api key.*(exposed|breach|leaked|not valid))", FaultCategory::kAuthError, 0.95, "auth_error:platform"},
    {R"(unauthorized|invalid.*(key|credential)|auth.*fail|access denied|invalid token)", FaultCategory::kAuthError, 0.95, "auth_error"},
    {R"(token expired|token invalid|forbidden|401|403)", FaultCategory::kAuthError, 0.95, "auth_error"},
    {R"(billing.*(hard|soft)?\s*limit|arrearage|欠费|额度|exceeded your billing)", FaultCategory::kQuotaExceeded, 0.95, "quota_exceeded:openai"},
    {R"(deployment.*not.*found|modelnotexists|invalid deployment)", FaultCategory::kModelNotFound, 0.9, "model_not_found:azure"},
    {R"(openai gave a 404|model swapped|silent degradation|unknown model)", FaultCategory::kModelNotFound, 0.9, "model_not_found:openai"},
    {R"(api-version|resource not found)", FaultCategory::kModelNotFound, 0.85, "model_not_found:azure"},
    {R"(model.*(not found|does not exist|不可用|不存在)|invalid.*model|模型不存在)", FaultCategory::kModelNotFound, 0.95, "model_not_found"},
    {R"(overloaded_error|error 529|anthropic.*overloaded)", FaultCategory::kServerError, 0.95, "server_error:anthropic_overload"},
    {R"(websocket freeze|session frozen|realtime server error|no event fired)", FaultCategory::kServerError, 0.85, "server_error:openai_realtime"},
    {R"(status failed|background response|server error)", FaultCategory::kServerError, 0.85, "server_error:openai_background"},
    {R"(responses api.*500|azure batch.*stuck|validating)", FaultCategory::kServerError, 0.85, "server_error:azure_responses"},
    {R"(performance degraded|quality dropped|suddenly worse|instant mode|heavy mode)", FaultCategory::kServerError, 0.8, "server_error:openai_degradation"},
    {R"(internal server|server error|服务不可用|系统错误|serviceunavailable)", FaultCategory::kServerError, 0.9, "server_error"},
    {R"(bad gateway|upstream error|503|502)", FaultCategory::kServerError, 0.9, "server_error"},
    {R"(timeout|timed?\s*out|read timeout|connect timeout)", FaultCategory::kTimeout, 0.95, "timeout"},
    {R"(connection timed out|operation timed out|request timeout|408|504)", FaultCategory::kTimeout, 0.95, "timeout"},
    {R"(sslerror|certificate|name resolution|network unreachable)", FaultCategory::kConnectionError, 0.95, "connection_error:ssl"},
    {R"(connection.*(refused|reset|abort|closed)|dns|ssl|socket|network.*error)", FaultCategory::kConnectionError, 0.95, "connection_error"},
    {R"(broken pipe|eof|host unreachable|no route to host|temporarily unavailable)", FaultCategory::kConnectionError, 0.9, "connection_error"},
    {R"(context length exceeded|maximum context|too many tokens|input too long|token limit)", FaultCategory::kValidationError, 0.9, "validation_error:context_length"},
    {R"(binary function response|structured output.*fail|schema validation|additionalproperties)", FaultCategory::kValidationError, 0.85, "validation_error:schema"},
    {R"(mcp.*(tool|error|stateless)|tool call.*(missing|without))", FaultCategory::kValidationError, 0.9, "validation_error:mcp_tool"},
    {R"(reasoning_content|reasoning.*pairing|reasoning.*mismatch)", FaultCategory::kValidationError, 0.9, "validation_error:reasoning"},
    {R"(invalid argument|invalid parameters|bad request|invalid request)", FaultCategory::kValidationError, 0.9, "validation_error"},
    {R"(exceeds maximum|prompt too long|message too long)", FaultCategory::kValidationError, 0.9, "validation_error:context_length"},
}};
// clang-format on

namespace {

// The engine's `\s` knows ASCII only; a pattern's white space is Python's, which is Unicode's.
constexpr std::string_view kWhiteSpace =
    R"([\s\x{0b}\x{1c}-\x{1f}\x{85}\x{a0}\x{1680}\x{2000}-\x{200a}\x{2028}\x{2029}\x{202f}\x{205f}\x{3000}])";

std::string with_unicode_space(std::string pattern) {
  for (std::size_t at = 0; (at = pattern.find(R"(\s)", at)) != std::string::npos;) {
    pattern.replace(at, 2, kWhiteSpace);
    at += kWhiteSpace.size();
  }
  return pattern;
}

RE2::Options pattern_options() {
  RE2::Options options;
  options.set_case_sensitive(false);
  options.set_log_errors(false);
  return options;
}

// The table as one automaton, and each row alone for the text on which the automaton gives up.
class CompiledPatterns {
 public:
  CompiledPatterns() : all_(pattern_options(), RE2::UNANCHORED) {
    for (const FaultPattern& row : kFaultPatterns) {
      const std::string pattern = with_unicode_space(row.pattern);
      if (all_.Add(pattern, nullptr) < 0) std::abort();
    }
    if (!all_.Compile()) std::abort();
  }

  const FaultPattern* first(std::string_view text) const {
    thread_local std::vector<int> matched;
    RE2::Set::ErrorInfo error{};
    if (all_.Match(text, &matched, &error)) {
      return &kFaultPatterns[static_cast<std::size_t>(*std::ranges::min_element(matched))];
    }
    return error.kind == RE2::Set::kNoError ? nullptr : walk(text);
  }

 private:
  const FaultPattern* walk(std::string_view text) const {
    std::call_once(compiled_, [this] {
      for (const FaultPattern& row : kFaultPatterns) {
        alone_.push_back(std::make_unique<RE2>(with_unicode_space(row.pattern), pattern_options()));
      }
    });
    for (std::size_t i = 0; i < alone_.size(); ++i) {
      if (RE2::PartialMatch(text, *alone_[i])) return &kFaultPatterns[i];
    }
    return nullptr;
  }

  RE2::Set all_;
  // Compiled when they are first needed, which is hardly ever.
  mutable std::once_flag compiled_;
  mutable std::vector<std::unique_ptr<RE2>> alone_;
};

const CompiledPatterns& compiled() {
  // Never destroyed: a daemon thread may still diagnose while the process exits.
  static const auto* patterns = new CompiledPatterns;
  return *patterns;
}

// Ignoring case, Python takes a dotless i for an i; lower-casing leaves it as it is.
constexpr std::string_view kDotlessI = "\u0131";

std::string without_dotless_i(std::string_view text) {
  std::string replaced;
  replaced.reserve(text.size());
  for (std::size_t at; (at = text.find(kDotlessI)) != std::string_view::npos;) {
    replaced.append(text.substr(0, at)).append("i");
    text.remove_prefix(at + kDotlessI.size());
  }
  return replaced.append(text);
}

}  // namespace

const FaultPattern* first_fault_pattern(std::string_view lowered) {
  if (lowered.find(kDotlessI) == std::string_view::npos) return compiled().first(lowered);
  return compiled().first(without_dotless_i(lowered));
}

void warm_fault_patterns() {
  for (const char* typical : {
           R"(http 429: {"error": {"message": "rate limit reached for requests", "code": 429}})",
           R"(http 401: {"error": {"message": "incorrect api key provided: unauthorized"}})",
           R"(http 503: service unavailable, the server is overloaded, please try again later)",
           R"(http 404: {"error": {"message": "the model `gpt-9` does not exist"}})",
           "timeout after 8.0s calling openai",
           "connecterror: [errno 111] connection refused",
       }) {
    first_fault_pattern(typical);
  }
}

}  // namespace tarvomeldric
