#pragma once

#include <array>

namespace tarvomeldric {

// A rule that every learner starts from.
struct BootstrapRule {
  const char* pattern;
  const char* action;
  int success_count;
  int fail_count;
  double confidence;  // success_count / (success_count + fail_count), to three decimals
};

// What a learner knows before it has seen any traffic. On equal confidence the earlier row advises.
// clang-format off
inline constexpr std::array<BootstrapRule, 84> kBootstrapRules{{
    {"rate_limit", "failover:deepseek", 85, 5, 0.944},
    {"rate_limit", "retry:wait", 72, 18, 0.8},
    {"rate_limit", "failover:openai", 68, 12, 0.85},
    {"rate_limit", "failover:dashscope", 60, 15, 0.8},
    {"rate_limit", "failover:anthropic", 55, 10, 0.846},
    {"rate_limit", "failover:azure", 48, 12, 0.8},
    {"rate_limit", "failover:google", 45, 10, 0.818},
    {"rate_limit:openai", "failover:azure", 70, 8, 0.897},
    {"rate_limit:openai", "failover:deepseek", 65, 10, 0.867},
    {"rate_limit:azure", "failover:openai", 62, 12, 0.838},
    {"rate_limit:azure", "failover:deepseek", 58, 14, 0.806},
    {"rate_limit:anthropic", "failover:openai", 60, 10, 0.857},
    {"rate_limit:anthropic", "downgrade:haiku", 72, 8, 0.9},
    {"rate_limit:google", "failover:openai", 55, 10, 0.846},
    {"rate_limit:dashscope", "failover:deepseek", 60, 8, 0.882},
    {"rate_limit:dashscope", "failover:openai", 50, 12, 0.806},
    {"rate_limit:deepseek", "failover:openai", 58, 10, 0.853},
    {"rate_limit:deepseek", "failover:dashscope", 52, 12, 0.813},
    {"timeout", "failover:deepseek", 65, 8, 0.89},
    {"timeout", "retry:brief", 50, 20, 0.714},
    {"timeout", "failover:openai", 55, 10, 0.846},
    {"timeout", "failover:anthropic", 48, 12, 0.8},
    {"timeout", "failover:dashscope", 42, 10, 0.808},
    {"timeout:openai", "failover:azure", 52, 10, 0.839},
    {"timeout:azure", "failover:openai", 48, 12, 0.8},
    {"timeout:anthropic", "downgrade:haiku", 55, 8, 0.873},
    {"auth_error", "skip_provider", 95, 1, 0.99},
    {"auth_error", "failover:deepseek", 78, 5, 0.94},
    {"auth_error", "failover:openai", 72, 8, 0.9},
    {"auth_error", "failover:anthropic", 80, 5, 0.941},
    {"auth_error:openai", "skip_provider", 92, 2, 0.979},
    {"auth_error:azure", "skip_provider", 90, 3, 0.968},
    {"auth_error:google", "skip_provider", 88, 4, 0.957},
    {"auth_error:dashscope", "skip_provider", 85, 5, 0.944},
    {"quota_exceeded", "skip_provider", 90, 2, 0.978},
    {"quota_exceeded", "failover:deepseek", 70, 8, 0.897},
    {"quota_exceeded", "failover:openai", 65, 10, 0.867},
    {"quota_exceeded:openai", "skip_provider", 92, 2, 0.979},
    {"quota_exceeded:azure", "failover:openai", 58, 12, 0.829},
    {"quota_exceeded:dashscope", "failover:deepseek", 55, 10, 0.846},
    {"model_not_found", "downgrade_model", 78, 12, 0.867},
    {"model_not_found", "failover:openai", 65, 10, 0.867},
    {"model_not_found", "failover:deepseek", 60, 12, 0.833},
    {"model_not_found", "failover:anthropic", 55, 10, 0.846},
    {"model_not_found:openai", "failover:azure", 62, 8, 0.886},
    {"model_not_found:azure", "failover:openai", 58, 10, 0.853},
    {"model_not_found:anthropic", "downgrade:haiku", 68, 8, 0.895},
    {"model_not_found:google", "failover:openai", 52, 10, 0.839},
    {"model_not_found:dashscope", "failover:deepseek", 55, 8, 0.873},
    {"model_not_found:deepseek", "failover:openai", 50, 10, 0.833},
    {"server_error", "retry:brief", 55, 25, 0.688},
    {"server_error", "failover:deepseek", 58, 12, 0.829},
    {"server_error", "failover:openai", 52, 15, 0.776},
    {"server_error", "failover:dashscope", 45, 18, 0.714},
    {"server_error", "failover:anthropic", 48, 14, 0.774},
    {"server_error", "failover:azure", 42, 15, 0.737},
    {"server_error:anthropic_overload", "downgrade:haiku", 72, 8, 0.9},
    {"server_error:anthropic_overload", "failover:openai", 58, 12, 0.829},
    {"server_error:openai_realtime", "failover:openai_chat", 65, 8, 0.89},
    {"server_error:openai_degradation", "failover:anthropic", 55, 10, 0.846},
    {"server_error:azure_responses", "failover:azure_chat", 60, 10, 0.857},
    {"server_error:dashscope", "failover:deepseek", 52, 12, 0.813},
    {"connection_error", "failover:deepseek", 70, 10, 0.875},
    {"connection_error", "failover:openai", 62, 12, 0.838},
    {"connection_error", "retry:brief", 40, 25, 0.615},
    {"connection_error", "failover:anthropic", 55, 12, 0.821},
    {"connection_error", "failover:dashscope", 48, 14, 0.774},
    {"connection_error", "failover:azure", 45, 15, 0.75},
    {"connection_error:ssl", "skip_provider", 82, 5, 0.943},
    {"connection_error:dns", "retry:brief", 58, 15, 0.795},
    {"validation_error", "skip_provider", 88, 3, 0.967},
    {"validation_error", "downgrade_model", 45, 20, 0.692},
    {"validation_error:context_length", "downgrade_model", 62, 15, 0.805},
    {"validation_error:context_length", "failover:openai", 55, 12, 0.821},
    {"validation_error:mcp_tool", "skip_provider", 78, 5, 0.94},
    {"validation_error:tool_call", "retry:brief", 50, 20, 0.714},
    {"validation_error:binary_response", "failover:openai", 65, 8, 0.89},
    {"validation_error:schema", "downgrade_model", 48, 15, 0.762},
    {"validation_error:reasoning", "failover:openai", 52, 10, 0.839},
    {"validation_error:azure_batch", "skip_provider", 75, 5, 0.938},
    {"unknown", "retry:brief", 30, 40, 0.429},
    {"unknown", "failover:deepseek", 35, 25, 0.583},
    {"unknown", "failover:openai", 32, 28, 0.533},
    {"unknown", "skip_provider", 25, 30, 0.455},
}};
// clang-format on

}  // namespace tarvomeldric
