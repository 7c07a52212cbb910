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

std::vector<std::pair<std::string, std::string>> request_headers(std::string_view provider_name,
                                                                 std::string_view base_url,
                                                                 std::string_view api_key) {
  const std::string version = kVersion;
  std::vector<std::pair<std::string, std::string>> headers{
      {"Content-Type", "application/json"},
      {"User-Agent", "TarvoMeldric/" + version},
      {"X-TarvoMeldric-Version", version},
  };
  if (is_anthropic(provider_name, base_url)) {
    headers.emplace_back("x-api-key", api_key);
    headers.emplace_back("anthropic-version", "2023-06-01");
  } else {
    headers.emplace_back("Authorization", "Bearer " + std::string(api_key));
  }
  return headers;
}

std::string shown_failure(std::string_view failure_text, std::string_view api_key) {
  const std::string_view shown = text::first(failure_text, kShownFailure);
  const bool secret = speaks_of_credentials(shown) || holds_key(failure_text, api_key);
  return std::string(secret ? kRedacted : shown);
}

std::string status_message(long status, std::string_view body) {
  return "HTTP " + std::to_string(status) + ": " + std::string(text::first(body, kShownBody));
}

std::string timeout_message(std::string_view timeout, std::string_view provider_name) {
  return "Timeout after " + std::string(timeout) + "s calling " + std::string(provider_name);
}

}  // namespace tarvomeldric
