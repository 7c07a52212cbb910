#include "providers/request_shape.h"

#include <gtest/gtest.h>

#include "providers/models.h"

namespace tarvomeldric {
namespace {

TEST(Models, AreResolvedByProviderDowngradedAlongItsChainAndHintAtAFamily) {
  EXPECT_EQ(resolve_model("openai", "gpt-4-turbo"), "gpt-4o-mini");
  EXPECT_EQ(resolve_model("groq", ""), "deepseek-chat");
  EXPECT_EQ(downgraded_model("google", "gemini-1.5-pro"), "gemini-2.0-flash");
  EXPECT_FALSE(downgraded_model("openai", "gpt-3.5-turbo"));
  EXPECT_FALSE(downgraded_model("deepseek", "deepseek-reasoner"));
  EXPECT_EQ(model_to_error_hint("Nvidia/deepseek-r1"), "model_request:nvidia");
  EXPECT_EQ(model_to_error_hint("chatgpt-4o"), "model_request:unknown");
}

TEST(RequestShape, FailureTextShowsNoCredential) {
  EXPECT_EQ(shown_failure("?KEY=1", Endpoint{.api_key = "sk-12345"}), "[REDACTED]");
  EXPECT_EQ(shown_failure("a bearer", Endpoint{.api_key = "sk-12345"}), "a bearer");
  Endpoint gated;
  gated.extra_query["code"] = "abc/d+efg=";
  EXPECT_EQ(shown_failure("no way to http://h/?code=abc%2Fd%2befg%3D", gated), "[REDACTED]");
  EXPECT_EQ(shown_failure("100%", gated), "100%");
  EXPECT_EQ(shown_failure("a word", Endpoint{.api_key = "word"}),
            "a word");  // too short to be a key
}

}  // namespace
}  // namespace tarvomeldric
