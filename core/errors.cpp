// Raise, ERR numbering, error printing.
#include "core/errors.h"

#include <cstdio>
#include <cstring>

#include "screen/capture.h"
#include "screen/console.h"

namespace core {

ErrorState err;
bool program_running = false;

namespace {
struct ErrorRow {
  const char* message;
  int number;
};
const ErrorRow kErrorTable[] = {
#define ERR_ROW(text, n) {text, n},
#include "core/errors.def"
#undef ERR_ROW
    {"", 0},
};

void print_text(const char* s) {
  screen::end_capture();  // an error message is always seen
  screen::ensure_left_column();
  screen::put_text(s);
}

void raise_common() {
  err.number = -1;
  err.note[0] = 0;
  err.has_message = true;
  if (!program_running) {
    err.line = 0;
    err.line_recorded = true;
    print_text(err.message);
    screen::put_char(13);
  } else {
    err.line_recorded = false;  // the run loop names the failing statement's line
    if (err.print_switch == 1) print_text(err.message);
  }
  err.flag = true;
}
}  // namespace

namespace {
thread_local ErrorHook thread_sink = nullptr;
}

void set_thread_error_sink(ErrorHook sink) { thread_sink = sink; }

void raise(const char* message) {
  if (thread_sink) {
    thread_sink(message);
    return;
  }
  if (err.silent || err.flag) return;
  if (err.hook) {
    err.hook(message);
    err.flag = true;
    return;
  }
  std::size_t n = std::strlen(message);
  if (n > sizeof err.message - 1) n = sizeof err.message - 1;
  std::memcpy(err.message, message, n);
  err.message[n] = 0;
  err.message_is_value = false;
  raise_common();
}

void raise_value(const char* text, std::size_t length) {
  if (thread_sink) {
    char copy[256];
    if (length > sizeof copy - 1) length = sizeof copy - 1;
    std::memcpy(copy, text, length);
    copy[length] = 0;
    thread_sink(copy);
    return;
  }
  if (err.silent || err.flag) return;
  if (length > sizeof err.message - 1) length = sizeof err.message - 1;
  char copy[sizeof err.message];
  std::memcpy(copy, text, length);
  copy[length] = 0;
  if (err.hook) {
    err.hook(copy);
    err.flag = true;
    return;
  }
  std::memcpy(err.message, copy, length + 1);
  err.message_is_value = true;
  raise_common();
}

void add_error_note(const char* text) {
  if (!err.flag || err.hook) return;
  std::snprintf(err.note, sizeof err.note, "%s", text);
  if (!program_running) {
    // The message went out at once: so does its note.
    screen::put_text(err.note);
    screen::put_char(13);
    err.note[0] = 0;
  }
}

int error_number_for(const char* message) {
  for (const ErrorRow* row = kErrorTable; row->message[0]; ++row)
    if (std::strcmp(row->message, message) == 0) return row->number;
  return 255;
}

std::int64_t err_number() {
  if (err.number >= 0) return err.number;
  if (!err.has_message) return 0;
  return error_number_for(err.message);
}

void error_statement(std::int64_t n) {
  if (n < 1 || n > 255) {
    raise("Illegal function call");
    return;
  }
  const bool was_set = err.flag;
  raise("User-defined error");
  if (!was_set && err.flag) err.number = n;
}

void print_stopped_error() {
  if (err.print_switch == 0) print_text(err.message);
  if (err.line != 0) {
    char buf[24];
    std::uint32_t v = err.line;
    int i = sizeof buf - 1;
    buf[i] = 0;
    do {
      buf[--i] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v);
    screen::put_text(" in ");
    screen::put_text(buf + i);
  }
  screen::put_char(13);
  if (err.note[0]) {
    screen::put_text(err.note);
    screen::put_char(13);
    err.note[0] = 0;
  }
}

void reset_errors() {
  err.flag = false;
  err.message[0] = 0;
  err.has_message = false;
  err.message_is_value = false;
  err.number = -1;
  err.line = 0;
  err.line_recorded = false;
}

}  // namespace core
