// The token record: one per token of a line, stepped through at a fixed size.
//
//   offset  0  kind     u8   token kind (kToken* below, a keyword value, or a punctuation character)
//           1  type     u8   numeric literals: type code 1..5
//           2  column   u16  offset of the token's first character (terminator: past the scan)
//           4  payload  40   identifier name + suffix + NUL | i64 | f64 | {const char*, u32}
//          48  cache    3 x {u64, u32}  zeroed by the tokenizer; the evaluator's and JIT's
//
// The payload is raw bytes at offset 4, so it is read and written through the
// accessors (memcpy), never through a misaligned pointer.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace core {

enum : std::uint8_t {
  kTokEnd = 0,
  kTokNumber = 1,
  kTokString = 2,
  kTokIdent = 3,
  kTokAcceptColon = 0x18,
};

constexpr int kMaxTokens = 127;
constexpr int kMaxNameChars = 37;

struct CacheSlot {
  std::uint64_t a;
  std::uint32_t b;
};

struct Token {
  std::uint8_t kind;
  std::uint8_t type;
  std::uint16_t column;
  unsigned char payload[40];
  CacheSlot cache[3];

  std::int64_t i64() const { std::int64_t v; std::memcpy(&v, payload, 8); return v; }
  double f64() const { double v; std::memcpy(&v, payload, 8); return v; }
  void set_i64(std::int64_t v) { std::memcpy(payload, &v, 8); }
  void set_f64(double v) { std::memcpy(payload, &v, 8); }
  const char* name() const { return reinterpret_cast<const char*>(payload); }
  const char* str_ptr() const { const char* p; std::memcpy(&p, payload, sizeof p); return p; }
  std::uint32_t str_len() const { std::uint32_t n; std::memcpy(&n, payload + 8, 4); return n; }
  void set_str(const char* p, std::uint32_t n) { std::memcpy(payload, &p, sizeof p); std::memcpy(payload + 8, &n, 4); }
};
static_assert(sizeof(Token) == 96, "token records are 96 bytes");
static_assert(offsetof(Token, payload) == 4 && offsetof(Token, cache) == 48, "token layout");

}  // namespace core
