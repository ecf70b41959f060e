// The key queue between the UI thread (producer) and the interpreter (consumer),
// with software key repeat. One entry is two u16: key code and character.
#pragma once
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace screen {

// Extended key codes (0 means an ordinary character).
enum KeyCode : std::uint16_t {
  kKeyUp = 1, kKeyDown, kKeyRight, kKeyLeft, kKeyHome, kKeyEnd, kKeyInsert, kKeyDelete,
  kKeyPageUp, kKeyPageDown,
  kKeyF1 = 11,  // F1..F10 are 11..20
  kKeyF11 = 21,
  kKeyDebugger = 22,  // F12: never reaches INKEY$
  kKeyEsc = 23,       // break request
  kKeyReset = 24,     // Ctrl+Shift+L at the Ready prompt
};
enum : std::uint16_t { kModShift = 0x100, kModCtrl = 0x200, kModAlt = 0x400 };

struct KeyEntry {
  std::uint16_t code;
  std::uint16_t ch;
};

// PC scan code that INKEY$ returns after CHR$(0) for an extended code; 0 for none.
int scan_code_for(std::uint16_t code);

class KeyQueue {
 public:
  static constexpr std::uint32_t kStartCapacity = 512;
  KeyQueue();
  ~KeyQueue();
  KeyQueue(const KeyQueue&) = delete;
  KeyQueue& operator=(const KeyQueue&) = delete;

  // UI thread. A key that cannot be stored (growth failed) is dropped.
  void push(std::uint16_t code, std::uint16_t ch);
  // UI thread, for keys from a key-down: honours the software repeat override
  // (auto-repeats dropped, the key recorded as held). Returns false if dropped.
  bool push_keydown(std::uint16_t code, std::uint16_t ch, int host_key, bool is_repeat);
  // The held key went up: cancel software repeat.
  void key_released(int host_key);

  // Interpreter: block until a key arrives. False when the window is closing
  // (the stop flag is set, or headless input ended with the queue empty).
  bool wait(KeyEntry* out);
  // Non-blocking take.
  bool take(KeyEntry* out);
  // INKEY$: a take that paces a program doing nothing but asking again. Once
  // empty polls have followed each other closely for 10 ms, each one waits
  // up to kIdlePollWaitMs for a key (a key ends the wait at once), so a wait
  // loop no longer burns a whole core.
  static constexpr int kIdlePollWaitMs = 2;
  bool poll(KeyEntry* out);
  bool empty();
  // Break polling: remove the first Esc entry if one is queued (other keys
  // stay, in order, for the program's next read).
  bool take_break();
  // An Esc is waiting (not taken): compiled loops ask this between polls.
  bool has_break();
  void clear();
  void signal();  // wake a waiting reader (F12, shutdown)

  // Headless: stdin has ended; once the queue is drained the reader sees closing.
  void set_input_ended();
  bool input_ended() const { return input_ended_.load(); }

  // KEYREPEAT delayMs,rateHz / KEYREPEAT DEFAULT.
  void set_repeat(std::uint32_t delay_ms, std::uint32_t rate_hz);
  void repeat_default();
  bool repeat_override() const { return repeat_on_.load(); }

  std::atomic<std::uint32_t> debugger_request{0};
  std::atomic<std::uint32_t> modifier_reporting{0};
  // Set while the Ready prompt or the line editor waits (Ctrl+V paste, Ctrl+Shift+L).
  std::atomic<std::uint32_t> editor_waiting{0};
  std::atomic<std::uint32_t> ready_prompt_waiting{0};
  // Terminal sessions: Ctrl+D (character 4) at an empty Ready prompt ends
  // the input, as the end of a piped stdin does.
  std::atomic<std::uint32_t> eof_key{0};

  std::uint32_t capacity() const { return capacity_; }

 private:
  bool take_locked(KeyEntry* out);
  std::mutex lock_;
  std::condition_variable event_;
  bool signalled_ = false;  // auto-reset event state
  std::uint32_t* entries_;
  std::uint32_t static_entries_[kStartCapacity];
  std::uint32_t capacity_ = kStartCapacity;
  std::uint32_t head_ = 0, tail_ = 0;
  std::atomic<bool> input_ended_{false};
  // INKEY$ pacing: when the current run of closely spaced empty polls began,
  // and when the last one was.
  std::chrono::steady_clock::time_point idle_since_{}, last_empty_poll_{};
  // Software repeat.
  std::atomic<bool> repeat_on_{false};
  bool repeat_armed_ = false;
  int held_key_ = 0;
  std::uint32_t repeat_entry_ = 0;
  std::uint64_t repeat_due_ = 0;
  std::uint32_t delay_ms_ = 500, rate_hz_ = 30;
};

// Never destroyed: the input reader is a detached thread blocked in read(),
// which may still push a key (or report the end of input) while the process
// runs its exit handlers.
extern KeyQueue& keys;

}  // namespace screen
