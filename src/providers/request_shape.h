#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "providers/provider_config.h"

namespace tarvomeldric {

// What a request asks for, by its `api_type`; it decides the body's fields and where the answer is.
enum class RequestKind { kChat, kEmbeddings, kImages, kAudio };

RequestKind request_kind(std::string_view api_type);

// The path below a provider's base URL; unlisted kinds go where chat goes.
std::string_view endpoint_path(std::string_view api_type);

// Every header of a request, in order, without white space at the ends of values. Anthropic's key
// travels in a header of its own. An extra header takes the place of one of ours with its name.
using Headers = std::vector<std::pair<std::string, std::string>>;
Headers request_headers(const Endpoint& endpoint);

// The part of a failure's text that may be shown: its first 150 characters, or "[REDACTED]" when
// they speak of a credential, or the text holds the provider's own key or an extra header's or
// query parameter's value.
std::string shown_failure(std::string_view failure_text, const Endpoint& endpoint);

// The body that the provider itself sent is quoted as it came.
std::string status_message(long status, std::string_view body);
std::string timeout_message(std::string_view timeout, std::string_view provider_name);

}  // namespace tarvomeldric
