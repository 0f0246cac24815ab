#pragma once

#include <cstdint>
#include <memory>

namespace lumo {

// The waits and sleeps of a visual test. Every blocking wait for the server's answer and every
// whole-second sleep of the retry loop goes through one policy, so tests can shorten them.
// The default policy is exactly the protocol's: 60 seconds for each answer, real whole-second
// sleeps, elapsed time on the steady clock. Implementations must be callable from any thread.
class WaitPolicy {
 public:
  static constexpr double kServerAnswerSeconds = 60.0;

  virtual ~WaitPolicy() = default;

  // The policy every controller starts with.
  static std::shared_ptr<const WaitPolicy> standard();

  // Bound of each wait for a server answer, in seconds.
  virtual double serverAnswerSeconds() const { return kServerAnswerSeconds; }
  // Blocks the calling thread for `seconds` whole seconds.
  virtual void sleepSeconds(std::int64_t seconds) const;
  // A monotonic time in seconds; only differences are meaningful.
  virtual double nowSeconds() const;
};

}  // namespace lumo
