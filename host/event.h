// A portable auto-reset event (the wake event of the shell).
#pragma once
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace host {

class AutoResetEvent {
 public:
  // Notified under the lock: a waiter that sees the state cannot return
  // (and the event's owner end, destroying it) while this still touches it.
  void set() {
    std::lock_guard guard(lock_);
    state_ = true;
    cv_.notify_one();
  }
  // Wait until set or the timeout passes; returns true when it was set.
  bool wait_ms(unsigned ms) {
    std::unique_lock guard(lock_);
    const bool got = cv_.wait_for(guard, std::chrono::milliseconds(ms), [&] { return state_; });
    state_ = false;
    return got;
  }

 private:
  std::mutex lock_;
  std::condition_variable cv_;
  bool state_ = false;
};

}  // namespace host
