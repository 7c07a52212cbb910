#include "providers/request_shape.h"

#include <algorithm>
#include <array>

#include "support/text.h"
#include "support/version.h"

namespace tarvomeldric {
namespace {

// The kinds that have a path of their own.
constexpr std::array<std::pair<std::string_view, std::string_view>, 5> kEndpoints{{
    {"chat", "/chat/completions"},
    {"completions", "/completions"},
    {"embeddings", "/embeddings"},
    {"images/generations", "/images/generations"},
    {"audio/transcriptions", "/audio/transcriptions"},
}};

constexpr std::array<std::string_view, 5> kSecretMarkers{"key=", "secret=", "token=", "bearer ",
                                                         "authorization"};
constexpr std::size_t kShownFailure = 150;  // characters
constexpr std::size_t kShownBody = 200;     // characters
constexpr std::size_t kShortestKey = 8;     // a shorter key would redact ordinary words
constexpr std::string_view kRedacted = "[REDACTED]";

bool is_anthropic(std::string_view provider_name, std::string_view base_url) {
  return provider_name == "anthropic" || text::contains(base_url, "anthropic");
}

// HTTP has no such space, so a library may refuse it: the line feed of a key from a file, the blank
// after "Bearer" where there is no key.
std::string without_trailing_space(const std::string& value) {
  return value.substr(0, value.find_last_not_of(" \t\r\n\v\f") + 1);
}

bool speaks_of_credentials(std::string_view shown) {
  const std::string lowered = text::lower(shown);
  return std::ranges::any_of(
      kSecretMarkers, [&](std::string_view marker) { return text::contains(lowered, marker); });
}

// What a failure's text would show as it is, whichever way it quotes the rest.
bool is_plain(char c) { return c > ' ' && c < 0x7F && c != '\'' && c != '"' && c != '\\'; }

// Whether a text holds the key, or any stretch of it that is long enough to matter: an HTTP library
// quotes a key that it cannot send with the offending characters escaped.
bool holds_key(std::string_view text, std::string_view api_key) {
  if (text::length(api_key) < kShortestKey) return false;
  if (text::contains(text, api_key)) return true;
  for (auto at = api_key.begin(); at != api_key.end();) {
    const auto from = std::find_if(at, api_key.end(), is_plain);
    at = std::find_if_not(from, api_key.end(), is_plain);
    const std::string_view stretch(from, at);
    if (stretch.size() >= kShortestKey && text::contains(text, stretch)) return true;
  }
  return false;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lowered = static_cast<char>(c | 0x20);
  return lowered >= 'a' && lowered <= 'f' ? lowered - 'a' + 10 : -1;
}

// A text in which URLs are spelled out: "%2B" is "+".
std::string percent_decoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escape = text[i] == '%' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 &&
                        hex_digit(text[i + 2]) >= 0;
    decoded +=
        escape ? static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2])) : text[i];
    if (escape) i += 2;
  }
  return decoded;
}

}  // namespace

RequestKind request_kind(std::string_view api_type) {
  if (api_type == "embeddings") return RequestKind::kEmbeddings;
  if (api_type.starts_with("images")) return RequestKind::kImages;
  if (api_type.starts_with("audio")) return RequestKind::kAudio;
  return RequestKind::kChat;
}

std::string_view endpoint_path(std::string_view api_type) {
  for (const auto& [kind, path] : kEndpoints) {
    if (kind == api_type) return path;
  }
  return kEndpoints.front().second;
}

Headers request_headers(const Endpoint& endpoint) {
  const std::string version = kVersion;
  Headers headers{
      {"Content-Type", "application/json"},
      {"User-Agent", "TarvoMeldric/" + version},
      {"X-TarvoMeldric-Version", version},
  };
  if (is_anthropic(endpoint.name, endpoint.base_url)) {
    headers.emplace_back("x-api-key", endpoint.api_key);
    headers.emplace_back("anthropic-version", "2023-06-01");
  } else {
    headers.emplace_back("Authorization", "Bearer " + endpoint.api_key);
  }
  for (const auto& [extra, value] : endpoint.extra_headers) {
    const std::string lowered = text::lower(extra);
    std::erase_if(headers, [&](const auto& ours) { return text::lower(ours.first) == lowered; });
    headers.emplace_back(extra, value);
  }
  for (auto& [name, value] : headers) value = without_trailing_space(value);
  return headers;
}

std::string shown_failure(std::string_view failure_text, const Endpoint& endpoint) {
  const std::string_view shown = text::first(failure_text, kShownFailure);
  const std::string decoded = percent_decoded(failure_text);
  const auto holds = [&](const auto& entry) {
    return holds_key(failure_text, entry.second) || holds_key(decoded, entry.second);
  };
  const bool secret = speaks_of_credentials(shown) || holds_key(failure_text, endpoint.api_key) ||
                      std::ranges::any_of(endpoint.extra_headers, holds) ||
                      std::ranges::any_of(endpoint.extra_query, holds);
  return std::string(secret ? kRedacted : shown);
}

std::string status_message(long status, std::string_view body) {
  return "HTTP " + std::to_string(status) + ": " + std::string(text::first(body, kShownBody));
}

std::string timeout_message(std::string_view timeout, std::string_view provider_name) {
  return "Timeout after " + std::string(timeout) + "s calling " + std::string(provider_name);
}

}  // namespace tarvomeldric
