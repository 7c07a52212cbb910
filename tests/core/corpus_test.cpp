#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "checks.h"

namespace tarvomeldric {
namespace {

// What the fuzzers start from, and every input on which a check once failed.
TEST(Corpus, EveryInputPassesItsCheck) {
  const std::pair<std::string, void (*)(std::string_view)> checks[] = {
      {"diagnosis", fuzz::check_diagnosis},
      {"rules_json", fuzz::check_rules_json},
      {"json_pieces", fuzz::check_json_pieces},
      {"event_stream", fuzz::check_event_stream}};
  for (const auto& [name, check] : checks) {
    for (const auto& file : std::filesystem::directory_iterator(CORPUS "/" + name)) {
      std::ifstream stream(file.path(), std::ios::binary);
      EXPECT_NO_THROW(check(std::string(std::istreambuf_iterator<char>(stream), {})))
          << file.path();
    }
  }
}

}  // namespace
}  // namespace tarvomeldric
