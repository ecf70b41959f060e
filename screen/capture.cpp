// The capture sink behind the console: CR and LF become CR (CR LF in a
// file), TAB becomes blanks to the next multiple of 8, and a string capture
// grows by doubling up to its 64 MiB limit.
#include "screen/capture.h"

#include <cstdio>
#include <cstdlib>

#include "core/errors.h"
#include "host/platform.h"
#include "screen/console.h"

namespace screen {

CaptureDone capture_done = nullptr;

namespace {

constexpr std::uint64_t kFirstBuffer = 1024;

struct Capture {
  char* buf = nullptr;
  std::uint64_t size = 0, cap = 0;
  std::FILE* file = nullptr;
  // Set when the capture failed inside a statement: the rest of that
  // statement's output is dropped rather than appearing half on the screen.
  bool failed = false;
} cap;

void release() {
  std::free(cap.buf);
  if (cap.file) std::fclose(cap.file);
  cap = Capture{};
  con.capture_mode = 0;
  con.capture_col = 0;
}

void fail(const char* message) {
  std::free(cap.buf);
  cap.buf = nullptr;
  cap.size = cap.cap = 0;
  cap.failed = true;
  core::raise(message);
}

void emit(std::uint8_t c) {
  if (cap.file) {
    std::fputc(c, cap.file);
    return;
  }
  if (cap.size == cap.cap) {
    const std::uint64_t grown = cap.cap * 2;
    if (grown > kCaptureLimit) {
      fail("Capture exceeds 64 MiB; capture to a file instead");
      return;
    }
    char* p = static_cast<char*>(std::realloc(cap.buf, static_cast<std::size_t>(grown)));
    if (!p) {
      fail("Out of memory");
      return;
    }
    cap.buf = p;
    cap.cap = grown;
  }
  cap.buf[cap.size++] = static_cast<char>(c);
}

void sink(std::uint8_t c) {
  if (cap.failed) {
    if (core::err.flag) {
      // Dropped, but counted, so that PRINT's TAB and zone loops still end.
      con.capture_col = c == 13 || c == 10 ? 0 : con.capture_col + 1;
      return;
    }
    // The error was trapped: the handler's output is seen again.
    release();
    put_char(c);
    return;
  }
  switch (c) {
    case 10:
    case 13:
      emit(13);
      if (cap.file) emit(10);
      con.capture_col = 0;
      return;
    case 9: {
      const std::uint32_t n = 8 - con.capture_col % 8;
      for (std::uint32_t i = 0; i < n && !cap.failed; ++i) emit(' ');
      con.capture_col += n;
      return;
    }
    default:
      emit(c);
      ++con.capture_col;
  }
}

}  // namespace

bool capture_to_string() {
  end_capture();
  cap.buf = static_cast<char*>(std::malloc(kFirstBuffer));
  if (!cap.buf) {
    core::raise("Out of memory");
    return false;
  }
  cap.cap = kFirstBuffer;
  capture_sink = sink;
  con.capture_col = 0;
  con.capture_mode = 1;
  return true;
}

bool capture_to_file(const std::string& cp437_name) {
  end_capture();
  cap.file = host::open_file(cp437_name, "wb");
  if (!cap.file) return false;
  capture_sink = sink;
  con.capture_col = 0;
  con.capture_mode = 2;
  return true;
}

const char* capture_data() { return cap.buf ? cap.buf : ""; }
std::uint64_t capture_size() { return cap.size; }

void end_capture() {
  if (con.capture_mode == 0 && !cap.buf && !cap.file) return;
  const bool hand_over = con.capture_mode == 1 && !cap.failed && cap.buf;
  // Output goes to the screen before the text is handed over: storing it may
  // raise an error whose message must be seen.
  Capture done = cap;
  cap = Capture{};
  con.capture_mode = 0;
  con.capture_col = 0;
  if (done.file) std::fclose(done.file);
  if (hand_over && capture_done) capture_done(done.buf, done.size);
  std::free(done.buf);
}

}  // namespace screen
