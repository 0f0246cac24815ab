#include "platform/waiter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "platform/expectation.h"

namespace lumo::test {
namespace {

using namespace std::chrono_literals;

TEST(Waiter, CompletesWhenAnotherThreadFulfils) {
  auto first = std::make_shared<Expectation>("first");
  auto second = std::make_shared<Expectation>("second");
  std::jthread fulfiller([=] {
    second->fulfill();
    first->fulfill();
  });
  EXPECT_EQ(Waiter::waitForExpectations({first, second}, 60s), WaiterResult::Completed);
}

// An unfulfilled expectation times out, also under a bound of zero; fulfilled ones (or none)
// complete at once.
TEST(Waiter, TimesOutOnlyWhileAnExpectationIsUnfulfilled) {
  auto done = std::make_shared<Expectation>();
  auto never = std::make_shared<Expectation>();
  done->fulfill();
  done->fulfill();
  EXPECT_EQ(Waiter::waitForExpectations({done, never}, 20ms), WaiterResult::TimedOut);
  EXPECT_EQ(Waiter::waitForExpectations({never}, 0s), WaiterResult::TimedOut);
  EXPECT_EQ(Waiter::waitForExpectations({done}, 0s), WaiterResult::Completed);
  EXPECT_EQ(Waiter::waitForExpectations({}, 0s), WaiterResult::Completed);
}

TEST(Waiter, AFulfilmentAfterTheTimeOutIsHarmless) {
  auto late = std::make_shared<Expectation>("late");
  std::jthread fulfiller;
  {
    EXPECT_EQ(Waiter::waitForExpectations({late}, 1ms), WaiterResult::TimedOut);
    // The waiter has moved on; the completion still holds the expectation.
    fulfiller = std::jthread([late] { late->fulfill(); });
  }
  fulfiller.join();
  EXPECT_TRUE(late->isFulfilled());
  EXPECT_EQ(Waiter::waitForExpectations({late}, 0s), WaiterResult::Completed);
}

}  // namespace
}  // namespace lumo::test
