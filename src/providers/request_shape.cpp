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
  const std::string lowered = text::lower(shown);
  const bool marked = std::ranges::any_of(
      kSecretMarkers, [&](std::string_view marker) { return text::contains(lowered, marker); });
  const bool has_key =
      text::length(api_key) >= kShortestKey && text::contains(failure_text, api_key);
  return std::string(marked || has_key ? kRedacted : shown);
}

std::string status_message(long status, std::string_view body) {
  return "HTTP " + std::to_string(status) + ": " + std::string(text::first(body, kShownBody));
}

std::string timeout_message(std::string_view timeout, std::string_view provider_name) {
  return "Timeout after " + std::string(timeout) + "s calling " + std::string(provider_name);
}

}  // namespace tarvomeldric
