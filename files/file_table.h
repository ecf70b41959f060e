// The table of BASIC file numbers #1..#255 and the byte-level access every
// file statement and function shares.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/token.h"
#include "host/platform.h"

namespace files {

constexpr int kMaxFiles = 255;            // file numbers run 1..kMaxFiles
constexpr std::uint32_t kDefaultRecord = 128;
constexpr std::uint32_t kMaxRecord = 32767;
// Sequential files keep their own buffer: the interpreter hands bytes over
// one at a time, and a call into the C library per byte would cost more
// than the disk.
constexpr std::uint32_t kBufferBytes = 1 << 16;

// The numbers FILEATTR(n,1) reports; also used as masks of allowed modes.
enum Mode : std::uint8_t { kClosed = 0, kInput = 1, kOutput = 2, kRandom = 4, kAppend = 8 };

struct FileSlot {
  std::FILE* f = nullptr;
  std::uint8_t mode = kClosed;
  std::string name;             // as the program gave it (code page 437)
  std::uint32_t column = 0;     // PRINT #'s column for zones and TAB
  std::uint32_t reclen = kDefaultRecord;
  char* record = nullptr;       // the random-access record buffer (FIELD points into it)
  std::int64_t last_record = 0; // LOC of a random file: the last record read or written
  bool past_end = false;        // a GET read beyond the end of the file
  bool write_failed = false;
  char* buf = nullptr;          // sequential files: kBufferBytes
  std::uint32_t pos = 0;        // input: next unread byte in buf
  std::uint32_t len = 0;        // input: bytes in buf; output: bytes waiting to be written
  std::uint32_t width = 0;      // WIDTH #: PRINT # starts a new line at this column (0: never)
  struct Range {
    std::int64_t start, length;
  };
  std::vector<Range> locks;     // LOCK's ranges, each released by an UNLOCK naming it again
};

// The slot of an open file number, checked: "Bad file number" outside
// 1..255 or when nothing is open there, "Bad file mode" when the file's mode
// is not in `modes`. Null after raising.
FileSlot* open_slot(std::int64_t n, std::uint8_t modes);
// The slot of a number whether open or not (null and "Bad file number" outside 1..255).
FileSlot* any_slot(std::int64_t n);
// "[#]n" at t: a file number expression, range-checked.
bool parse_file_number(const core::Token*& t, std::int64_t* n);

// Open a file into a free slot; raises the open failure's message.
// `share`: OPEN's SHARED or LOCK clause (Share::all without one).
bool open_file(std::int64_t n, std::uint8_t mode, const std::string& name, std::uint32_t reclen,
               host::Share share = host::Share::all);
// Close one number (nothing happens when it is not open). False and a raised
// error when buffered bytes could not be written; the slot is free either way.
bool close_file(std::int64_t n);
// END, CLEAR, NEW, RUN, LOAD and the end of the interpreter thread.
void close_all();
// Push every buffered byte to the system (the end of each direct command).
void flush_all();
// Whether a file of this name is open (names compared as the system does: case aside).
bool open_name(const std::string& name);
// Whether p lies in the record buffer of an open random file.
bool in_record_buffer(const char* p);

// Sequential output: one byte into the buffer (the column follows it).
bool flush_output(FileSlot& s);
inline void put_byte(FileSlot& s, std::uint8_t c) {
  if (s.width && s.column >= s.width && c != 13 && c != 10) {
    // WIDTH #: the line is full; it ends here as PRINT # would end it.
    if (s.len + 2 > kBufferBytes) (void)flush_output(s);
    s.buf[s.len++] = 13;
    s.buf[s.len++] = 10;
    s.column = 0;
  }
  if (s.len == kBufferBytes) (void)flush_output(s);
  s.buf[s.len++] = static_cast<char>(c);
  s.column = c == 13 || c == 10 ? 0 : s.column + 1;
}
// The position the program sees (buffered bytes counted).
std::int64_t position(FileSlot& s);
// Up to n bytes of input, raw; returns how many there were.
std::size_t read_bytes(FileSlot& s, char* out, std::size_t n);
// LINE INPUT #: the bytes up to CR, LF or CR LF (consumed) or the end;
// false when nothing at all is left.
bool read_line(FileSlot& s, std::string* out);

// Byte access for sequential input: the next byte or -1 at the end (a
// Ctrl-Z byte ends a text file as the end does).
int read_byte(FileSlot& s);
int peek_byte(FileSlot& s);
// Checked after output statements: "Disk full" or "Disk I/O error".
bool check_write(FileSlot& s);

// The message for a failed file-system operation.
const char* fault_message(host::FileFault f);

// The name checks of every file statement (string argument, "Bad file name",
// "Illegal filename", "Path too long").
bool file_name_value(const core::Token*& t, std::string* out);

}  // namespace files
