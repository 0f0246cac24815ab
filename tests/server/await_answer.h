#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

#include "lumo/error.h"
#include "platform/expectation.h"
#include "platform/waiter.h"

namespace lumo::test {

// Long enough for a sanitizer build on a busy machine; every answer comes far sooner.
constexpr std::chrono::seconds kAnswerBound{20};

// Runs one connector call and blocks until its handler has run; returns the record it got.
template <typename Record, typename Call>
std::shared_ptr<Record> await(Call call) {
  auto done = std::make_shared<Expectation>("server answer");
  auto mutex = std::make_shared<std::mutex>();
  auto result = std::make_shared<std::shared_ptr<Record>>();
  call([done, mutex, result](std::shared_ptr<Record> record, std::optional<Error> error) {
    EXPECT_FALSE(error) << error->localizedDescription();
    std::lock_guard lock(*mutex);
    *result = std::move(record);
    done->fulfill();
  });
  EXPECT_EQ(Waiter::waitForExpectations({done}, kAnswerBound), WaiterResult::Completed);
  std::lock_guard lock(*mutex);
  return *result;
}

}  // namespace lumo::test
