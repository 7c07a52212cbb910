#include "support/task.h"

#include <gtest/gtest.h>

#include <memory>

namespace tarvomeldric {
namespace {

Task<void> run(std::shared_ptr<int> owned, bool to_the_end) {
  ++*owned;
  if (!to_the_end) co_await std::suspend_always();
  throw *owned;
}
Task<void> forward(std::shared_ptr<int> owned, bool to_the_end) { co_await run(owned, to_the_end); }

TEST(Task, RunsOnlyWhenAwaitedAndItsExceptionReachesTheAwaiter) {
  const auto owned = std::make_shared<int>(0);
  { auto dropped = run(owned, true); }
  EXPECT_EQ(*owned, 0);
  EXPECT_THROW(run_blocking(forward(owned, true)), int);
  EXPECT_EQ(*owned, 1);
}

TEST(Task, DestroyingAnUnfinishedOneReleasesWhatItsFramesOwn) {
  const auto owned = std::make_shared<int>(0);
  {
    auto task = forward(owned, false);
    task.start();
    EXPECT_TRUE(!task.done() && owned.use_count() > 2);
  }
  EXPECT_EQ(owned.use_count(), 1);
}

}  // namespace
}  // namespace tarvomeldric
