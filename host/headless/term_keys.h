// Keys from a terminal's byte stream: escape sequences become the console's
// extended key codes, UTF-8 becomes code page 437, Ctrl+C is a break.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/cp437.h"
#include "screen/keyqueue.h"

namespace host {

class TermKeyDecoder {
 public:
  // How long a lone Esc waits for the rest of a sequence before it counts as
  // the Esc key.
  static constexpr int kEscTimeoutMs = 50;

  void feed(const unsigned char* p, std::size_t n, std::vector<screen::KeyEntry>* out);
  // An Esc (or the start of a sequence) waits for more bytes.
  bool pending() const { return seq_len_ > 0; }
  // The time-out passed: a lone Esc is the Esc key; Esc and one more byte
  // of an unfinished sequence are dropped.
  void flush(std::vector<screen::KeyEntry>* out);

 private:
  void byte(unsigned char b, std::vector<screen::KeyEntry>* out);
  void plain(unsigned char b, std::vector<screen::KeyEntry>* out);
  void finish_sequence(unsigned char final_byte, std::vector<screen::KeyEntry>* out);

  unsigned char seq_[32] = {};
  std::size_t seq_len_ = 0;
  bool after_cr_ = false;
  Utf8Decoder utf8_;
};

}  // namespace host
