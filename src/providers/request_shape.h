#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvomeldric {

// What a request asks for, by its `api_type`; it decides the body's fields and where the answer is.
enum class RequestKind { kChat, kEmbeddings, kImages, kAudio };

RequestKind request_kind(std::string_view api_type);

// The path below a provider's base URL; unlisted kinds go where chat goes.
std::string_view endpoint_path(std::string_view api_type);

// Every header of a request, in order. Anthropic's key travels in a header of its own.
std::vector<std::pair<std::string, std::string>> request_headers(std::string_view provider_name,
                                                                 std::string_view base_url,
                                                                 std::string_view api_key);

// The part of a failure's text that may be shown: its first 150 characters, or "[REDACTED]" when
// they speak of a credential, or contain the provider's own key.
std::string shown_failure(std::string_view failure_text, std::string_view api_key);

// The body that the provider itself sent is quoted as it came.
std::string status_message(long status, std::string_view body);
std::string timeout_message(std::string_view timeout, std::string_view provider_name);

}  // namespace tarvomeldric
