#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include "lumo/error.h"
#include "platform/expectation.h"
#include "platform/waiter.h"

namespace lumo::test {

// What one completion handler was given, and the thread it ran on.
template <typename Value>
struct Reply {
  Value value{};
  std::optional<Error> error;
  std::thread::id thread;
};

// Makes one asynchronous call: `send` is given the handler. Waits at most `bound` for the
// handler (long enough for a sanitizer build on a busy machine; answers come far sooner),
// which must run on the client's worker, not on this thread.
template <typename Value, typename Send>
Reply<Value> awaitReply(Send send, std::chrono::seconds bound = std::chrono::seconds(20)) {
  auto done = std::make_shared<Expectation>();
  auto reply = std::make_shared<Reply<Value>>();
  send([done, reply](Value value, std::optional<Error> error) {
    *reply = {std::move(value), std::move(error), std::this_thread::get_id()};
    done->fulfill();
  });
  EXPECT_EQ(Waiter::waitForExpectations({done}, bound), WaiterResult::Completed);
  EXPECT_NE(reply->thread, std::this_thread::get_id()) << "handlers run on the worker";
  return *reply;
}

}  // namespace lumo::test
