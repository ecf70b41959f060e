// Key queue: a ring that starts as a static array and doubles on demand.
#include "screen/keyqueue.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>

#include "host/platform.h"
#include "host/shell.h"
#include "host/ui.h"

namespace screen {

KeyQueue& keys = *new KeyQueue;

int scan_code_for(std::uint16_t code) {
  static const unsigned char kScan[22] = {0,  72, 80, 77, 75, 71, 79, 82, 83, 73, 81,
                                          59, 60, 61, 62, 63, 64, 65, 66, 67, 68, 133};
  code &= 0xFF;
  return code < 22 ? kScan[code] : 0;
}

static std::uint32_t pack(std::uint16_t code, std::uint16_t ch) {
  return static_cast<std::uint32_t>(code) | (static_cast<std::uint32_t>(ch) << 16);
}

KeyQueue::KeyQueue() : entries_(static_entries_) {}

KeyQueue::~KeyQueue() {
  if (entries_ != static_entries_) std::free(entries_);
}

void KeyQueue::push(std::uint16_t code, std::uint16_t ch) {
  {
    std::lock_guard guard(lock_);
    if ((head_ + 1) % capacity_ == tail_) {
      if (capacity_ >= 0x40000000u) return;
      const std::uint32_t grown = capacity_ * 2;
      auto* fresh = static_cast<std::uint32_t*>(std::malloc(sizeof(std::uint32_t) * grown));
      if (!fresh) return;  // the key is dropped
      std::uint32_t n = 0;
      for (std::uint32_t i = tail_; i != head_; i = (i + 1) % capacity_) fresh[n++] = entries_[i];
      // The static initial buffer is never freed.
      if (entries_ != static_entries_) std::free(entries_);
      entries_ = fresh;
      capacity_ = grown;
      tail_ = 0;
      head_ = n;
    }
    entries_[head_] = pack(code, ch);
    head_ = (head_ + 1) % capacity_;
    signalled_ = true;
  }
  event_.notify_one();
}

bool KeyQueue::push_keydown(std::uint16_t code, std::uint16_t ch, int host_key, bool is_repeat) {
  if (repeat_on_.load()) {
    if (is_repeat) return false;
    std::lock_guard guard(lock_);
    repeat_armed_ = true;
    held_key_ = host_key;
    repeat_entry_ = pack(code, ch);
    repeat_due_ = host::tick_ms() + delay_ms_;
  }
  push(code, ch);
  return true;
}

void KeyQueue::key_released(int host_key) {
  std::lock_guard guard(lock_);
  if (repeat_armed_ && held_key_ == host_key) repeat_armed_ = false;
}

bool KeyQueue::take_locked(KeyEntry* out) {
  if (head_ == tail_) return false;
  const std::uint32_t e = entries_[tail_];
  tail_ = (tail_ + 1) % capacity_;
  out->code = static_cast<std::uint16_t>(e & 0xFFFF);
  out->ch = static_cast<std::uint16_t>(e >> 16);
  if (head_ != tail_) signalled_ = true;  // entries remain: leave the event set
  return true;
}

bool KeyQueue::take(KeyEntry* out) {
  std::lock_guard guard(lock_);
  return take_locked(out);
}

bool KeyQueue::poll(KeyEntry* out) {
  using Clock = std::chrono::steady_clock;
  // Polls closer together than this are a loop that only waits for a key; a
  // game frame that does real work between its polls is never slowed. The
  // margin is wide so that a busy machine preempting the loop between two
  // polls does not break the run and start a spin again.
  constexpr auto kClose = std::chrono::milliseconds(5);
  constexpr auto kStreak = std::chrono::milliseconds(10);
  std::unique_lock guard(lock_);
  if (take_locked(out)) return true;
  auto now = Clock::now();
  if (now - last_empty_poll_ > kClose) idle_since_ = now;
  last_empty_poll_ = now;
  if (now - idle_since_ < kStreak || input_ended_.load() || host::stop_requested()) return false;
  event_.wait_for(guard, std::chrono::milliseconds(kIdlePollWaitMs), [&] {
    return head_ != tail_ || host::stop_requested() || debugger_request.load() != 0;
  });
  last_empty_poll_ = Clock::now();
  return take_locked(out);
}

bool KeyQueue::empty() {
  std::lock_guard guard(lock_);
  return head_ == tail_;
}

bool KeyQueue::has_break() {
  std::lock_guard guard(lock_);
  for (std::uint32_t i = tail_; i != head_; i = (i + 1) % capacity_)
    if ((entries_[i] & 0xFF) == kKeyEsc) return true;
  return false;
}

bool KeyQueue::take_break() {
  std::lock_guard guard(lock_);
  for (std::uint32_t i = tail_; i != head_; i = (i + 1) % capacity_) {
    if ((entries_[i] & 0xFF) != kKeyEsc) continue;
    // Close the gap: move the entries before it up by one.
    for (std::uint32_t j = i; j != tail_;) {
      const std::uint32_t prev = (j + capacity_ - 1) % capacity_;
      entries_[j] = entries_[prev];
      j = prev;
    }
    tail_ = (tail_ + 1) % capacity_;
    return true;
  }
  return false;
}

void KeyQueue::clear() {
  std::lock_guard guard(lock_);
  head_ = tail_ = 0;
}

void KeyQueue::signal() {
  {
    std::lock_guard guard(lock_);
    signalled_ = true;
  }
  event_.notify_all();
}

void KeyQueue::set_input_ended() {
  input_ended_.store(true);
  signal();
}

void KeyQueue::set_repeat(std::uint32_t delay_ms, std::uint32_t rate_hz) {
  std::lock_guard guard(lock_);
  delay_ms_ = delay_ms;
  rate_hz_ = rate_hz;
  repeat_on_.store(true);
}

void KeyQueue::repeat_default() {
  std::lock_guard guard(lock_);
  delay_ms_ = 500;
  rate_hz_ = 30;
  repeat_on_.store(false);
  repeat_armed_ = false;
}

bool KeyQueue::wait(KeyEntry* out) {
  std::unique_lock guard(lock_);
  for (;;) {
    if (debugger_request.load()) {
      *out = {kKeyDebugger, 0};
      return true;
    }
    if (take_locked(out)) return true;
    std::uint64_t due = 0;
    if (repeat_armed_) {
      const bool down = host::ui && host::ui->key_is_down(held_key_);
      const std::uint64_t now = host::tick_ms();
      if (!down) {
        repeat_armed_ = false;
      } else if (now >= repeat_due_) {
        std::uint32_t interval = rate_hz_ ? 1000 / rate_hz_ : 1000;
        if (interval < 1) interval = 1;
        repeat_due_ = now + interval;
        out->code = static_cast<std::uint16_t>(repeat_entry_ & 0xFFFF);
        out->ch = static_cast<std::uint16_t>(repeat_entry_ >> 16);
        return true;
      } else {
        due = repeat_due_;
      }
    }
    if (host::stop_requested()) return false;
    if (input_ended_.load()) {
      // Headless: every queued line has been read; this is the window closing.
      guard.unlock();  // request_stop signals this queue
      host::request_stop();
      return false;
    }
    if (signalled_) {
      signalled_ = false;
      continue;
    }
    if (due) {
      const std::uint64_t now = host::tick_ms();
      event_.wait_for(guard, std::chrono::milliseconds(due > now ? due - now : 0));
    } else {
      event_.wait(guard);
    }
    signalled_ = false;
  }
}

}  // namespace screen
