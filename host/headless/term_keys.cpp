// Terminal key decoding. The sequences covered are those of xterm and its
// descendants (VT220 "~" keys, SS3 and CSI cursor keys with or without
// modifier parameters) and the Linux console's F1-F5.
#include "host/headless/term_keys.h"

namespace host {

using screen::KeyEntry;

namespace {

void key(std::uint16_t code, std::vector<KeyEntry>* out) { out->push_back({code, 0}); }

// The "ESC [ n ~" keys by n.
std::uint16_t tilde_key(unsigned n) {
  switch (n) {
    case 1: case 7: return screen::kKeyHome;
    case 2: return screen::kKeyInsert;
    case 3: return screen::kKeyDelete;
    case 4: case 8: return screen::kKeyEnd;
    case 5: return screen::kKeyPageUp;
    case 6: return screen::kKeyPageDown;
    case 11: case 12: case 13: case 14: case 15: return static_cast<std::uint16_t>(screen::kKeyF1 + (n - 11));
    case 17: case 18: case 19: case 20: case 21: return static_cast<std::uint16_t>(screen::kKeyF1 + 5 + (n - 17));
    case 23: return screen::kKeyF11;
    case 24: return screen::kKeyDebugger;  // F12
    default: return 0;
  }
}

// The final byte of "ESC [ ... X" or "ESC O X" for cursor keys and F1-F4.
std::uint16_t letter_key(unsigned char f) {
  switch (f) {
    case 'A': return screen::kKeyUp;
    case 'B': return screen::kKeyDown;
    case 'C': return screen::kKeyRight;
    case 'D': return screen::kKeyLeft;
    case 'H': return screen::kKeyHome;
    case 'F': return screen::kKeyEnd;
    case 'P': case 'Q': case 'R': case 'S': return static_cast<std::uint16_t>(screen::kKeyF1 + (f - 'P'));
    default: return 0;
  }
}

}  // namespace

void TermKeyDecoder::feed(const unsigned char* p, std::size_t n, std::vector<KeyEntry>* out) {
  for (std::size_t i = 0; i < n; ++i) byte(p[i], out);
}

void TermKeyDecoder::flush(std::vector<KeyEntry>* out) {
  if (seq_len_ == 1) key(screen::kKeyEsc, out);
  seq_len_ = 0;
}

void TermKeyDecoder::byte(unsigned char b, std::vector<KeyEntry>* out) {
  if (seq_len_ == 0) {
    if (b == 27) {
      seq_[seq_len_++] = b;
      return;
    }
    plain(b, out);
    return;
  }
  if (seq_len_ == 1) {
    if (b == '[' || b == 'O') {
      seq_[seq_len_++] = b;
      return;
    }
    seq_len_ = 0;
    if (b == 27) {  // Esc typed twice: the first one stands alone
      key(screen::kKeyEsc, out);
      seq_[seq_len_++] = b;
      return;
    }
    plain(b, out);  // Alt+key: the key itself, as the window gives it
    return;
  }
  if (seq_[1] == 'O') {
    seq_len_ = 0;
    if (const std::uint16_t k = letter_key(b)) key(k, out);
    return;
  }
  // CSI: parameters and intermediates, then a final byte. "ESC [ [ A".."E"
  // are the Linux console's F1-F5.
  if (seq_len_ == 2 && b == '[') {
    seq_[seq_len_++] = b;
    return;
  }
  if (seq_len_ == 3 && seq_[2] == '[') {
    seq_len_ = 0;
    if (b >= 'A' && b <= 'E') key(static_cast<std::uint16_t>(screen::kKeyF1 + (b - 'A')), out);
    return;
  }
  if (b >= 0x20 && b <= 0x3F) {
    if (seq_len_ < sizeof seq_) seq_[seq_len_++] = b;
    else seq_len_ = 0;  // runaway sequence: forget it
    return;
  }
  finish_sequence(b, out);
  seq_len_ = 0;
}

void TermKeyDecoder::finish_sequence(unsigned char final_byte, std::vector<KeyEntry>* out) {
  unsigned first = 0;
  for (std::size_t i = 2; i < seq_len_ && seq_[i] >= '0' && seq_[i] <= '9'; ++i)
    first = first * 10 + (seq_[i] - '0');
  std::uint16_t k = 0;
  if (final_byte == '~') k = tilde_key(first);
  else k = letter_key(final_byte);  // modifier parameters ("1;5A") are not reported
  if (k) key(k, out);
}

void TermKeyDecoder::plain(unsigned char b, std::vector<KeyEntry>* out) {
  char32_t cps[2];
  if (b < 128) {
    if (utf8_.finish(cps)) out->push_back({0, '?'});  // a sequence broken by this byte
  }
  if (b == '\n' && after_cr_) {
    after_cr_ = false;  // CR LF (pasted text) is one Enter
    return;
  }
  after_cr_ = b == '\r';
  if (b == 3) {
    key(screen::kKeyEsc, out);  // Ctrl+C breaks, as Ctrl+Break does in the window
  } else if (b == '\r' || b == '\n') {
    out->push_back({0, 13});
  } else if (b == 127 || b == 8) {
    out->push_back({0, 8});  // Backspace
  } else if (b < 128) {
    out->push_back({0, b});  // TAB, Ctrl+letter and printable ASCII
  } else {
    for (int k = 0, m = utf8_.feed(b, cps); k < m; ++k) {
      if (cps[k] == 0xFFFD) {
        out->push_back({0, '?'});
        continue;
      }
      const int c = unicode_to_cp437(cps[k]);
      if (c >= 0) out->push_back({0, static_cast<std::uint16_t>(c)});
    }
  }
}

}  // namespace host
