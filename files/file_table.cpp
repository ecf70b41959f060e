// File numbers, opening and closing, and the byte access shared by the file
// statements and functions.
#include "files/file_table.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/errors.h"
#include "core/program.h"
#include "values/arrays.h"
#include "values/eval.h"
#include "values/variables.h"

namespace files {

namespace {

FileSlot slots[kMaxFiles + 1];  // index 0 unused

// The system-side buffer only sees whole blocks of ours.
constexpr std::size_t kStreamBuffer = 1 << 16;

bool fail(const char* m) {
  core::raise(m);
  return false;
}

bool same_name(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x >= 'a' && x <= 'z') x -= 32;
    if (y >= 'a' && y <= 'z') y -= 32;
    if ((x == '\\' || x == '/') && (y == '\\' || y == '/')) continue;
    if (x != y) return false;
  }
  return true;
}

// The directory part of a name exists (or there is none): tells "Path not
// found" from the other reasons an open fails.
bool parent_exists(const std::string& name) {
  const std::size_t sep = name.find_last_of("\\/");
  if (sep == std::string::npos || sep == 0) return true;
  return host::path_kind(name.substr(0, sep)) == 2;
}

// A FIELD variable keeps pointing into its file's record buffer; when the
// buffer goes, every such variable becomes the empty string instead of a
// dangling reference.
void detach_fields(const char* lo, const char* hi) {
  values::Descriptor* table = values::descriptor_table();
  const std::uint32_t count = values::descriptor_count();
  auto detach = [lo, hi](values::StringDesc* s) {
    if (s->ptr >= lo && s->ptr < hi) *s = values::StringDesc{0, 0, nullptr};
  };
  for (std::uint32_t i = 0; i < count; ++i) {
    values::Descriptor& d = table[i];
    if (d.type != values::kString) continue;
    if (!d.is_array()) {
      values::StringDesc s;
      std::memcpy(&s, d.value, sizeof s);
      detach(&s);
      std::memcpy(d.value, &s, sizeof s);
      continue;
    }
    auto* block = static_cast<std::uint8_t*>(d.array_block());
    if (!block) continue;
    const int dims = values::array_dims(&d);
    auto* e = reinterpret_cast<values::StringDesc*>(block + 8 + 8 * dims);
    for (std::uint64_t k = 0, n = values::array_count(&d); k < n; ++k) detach(e + k);
  }
}

}  // namespace

const char* fault_message(host::FileFault f) {
  switch (f) {
    case host::FileFault::none: return "";
    case host::FileFault::not_found: return "File not found";
    case host::FileFault::path_not_found: return "Path not found";
    case host::FileFault::exists: return "File already exists";
    case host::FileFault::denied: return "Permission denied";
    case host::FileFault::not_empty: return "Directory not empty";
    case host::FileFault::in_use: return "File in use";
    case host::FileFault::disk_full: return "Disk full";
    case host::FileFault::other: break;
  }
  return "Disk I/O error";
}

FileSlot* any_slot(std::int64_t n) {
  if (n < 1 || n > kMaxFiles) {
    core::raise("Bad file number");
    return nullptr;
  }
  return &slots[n];
}

FileSlot* open_slot(std::int64_t n, std::uint8_t modes) {
  FileSlot* s = any_slot(n);
  if (!s) return nullptr;
  if (s->mode == kClosed) {
    core::raise("Bad file number");
    return nullptr;
  }
  if (!(s->mode & modes)) {
    core::raise("Bad file mode");
    return nullptr;
  }
  return s;
}

bool parse_file_number(const core::Token*& t, std::int64_t* n) {
  if (t->kind == '#') ++t;
  if (!values::eval_int64(t, n)) return false;
  if (*n < 1 || *n > kMaxFiles) return fail("Bad file number");
  return true;
}

bool file_name_value(const core::Token*& t, std::string* out) {
  values::Value v;
  if (!values::eval(t, &v)) return false;
  if (v.type != values::kString) return fail("Type mismatch");
  return core::check_file_name(v.s.ptr, v.s.len, out);
}

bool open_file(std::int64_t n, std::uint8_t mode, const std::string& name, std::uint32_t reclen,
               host::Share share) {
  FileSlot* s = any_slot(n);
  if (!s) return false;
  if (s->mode != kClosed) return fail("File already open");
  // One writer per file: a file open for OUTPUT or APPEND cannot be opened
  // again, and nothing open can be opened for writing.
  const bool writes = mode == kOutput || mode == kAppend;
  for (int i = 1; i <= kMaxFiles; ++i) {
    const FileSlot& o = slots[i];
    if (o.mode != kClosed && same_name(o.name, name) && (writes || o.mode == kOutput || o.mode == kAppend))
      return fail("File already open");
  }
  const int kind = host::path_kind(name);
  if (kind == 2) return fail("Permission denied");
  if (mode == kInput && kind == 0) return fail(parent_exists(name) ? "File not found" : "Path not found");
  const char* how = mode == kInput ? "rb" : mode == kOutput ? "wb" : mode == kAppend ? "ab" : kind ? "r+b" : "w+b";
  host::FileFault fault;
  std::FILE* f = host::open_file_shared(name, how, share, &fault);
  if (!f) {
    if (fault == host::FileFault::in_use) return fail("Permission denied");  // another opener's clause
    if (!parent_exists(name)) return fail("Path not found");
    return fail(mode == kInput && host::path_kind(name) == 0 ? "File not found" : "Permission denied");
  }
  std::setvbuf(f, nullptr, _IOFBF, kStreamBuffer);
  if (mode == kRandom) s->record = static_cast<char*>(std::calloc(reclen, 1));
  else s->buf = static_cast<char*>(std::malloc(kBufferBytes));
  if (!s->record && !s->buf) {
    host::release_sharing(f);
    std::fclose(f);
    return fail("Out of memory");
  }
  s->f = f;
  s->mode = mode;
  s->name = name;
  s->column = 0;
  s->reclen = reclen;
  s->last_record = 0;
  s->past_end = false;
  s->write_failed = false;
  s->pos = s->len = 0;
  return true;
}

bool close_file(std::int64_t n) {
  FileSlot* s = any_slot(n);
  if (!s) return false;
  if (s->mode == kClosed) return true;
  bool ok = s->mode == kInput || flush_output(*s);
  ok = !s->write_failed && ok;
  host::release_sharing(s->f);
  if (std::fclose(s->f) != 0) ok = false;
  std::free(s->buf);
  if (s->record) {
    detach_fields(s->record, s->record + s->reclen);
    std::free(s->record);
  }
  *s = FileSlot{};
  if (!ok) return fail("Disk I/O error");
  return true;
}

void close_all() {
  // Failures have no statement to report to here (END, RUN, thread end):
  // every file is closed regardless.
  const bool silent = core::err.silent;
  core::err.silent = true;
  for (int i = 1; i <= kMaxFiles; ++i) (void)close_file(i);
  core::err.silent = silent;
}

void flush_all() {
  for (int i = 1; i <= kMaxFiles; ++i)
    if (slots[i].mode != kClosed && slots[i].mode != kInput && flush_output(slots[i])) std::fflush(slots[i].f);
}

bool open_name(const std::string& name) {
  for (int i = 1; i <= kMaxFiles; ++i)
    if (slots[i].mode != kClosed && same_name(slots[i].name, name)) return true;
  return false;
}

bool in_record_buffer(const char* p) {
  for (int i = 1; i <= kMaxFiles; ++i) {
    const FileSlot& s = slots[i];
    if (s.record && p >= s.record && p < s.record + s.reclen) return true;
  }
  return false;
}

bool flush_output(FileSlot& s) {
  if (s.len == 0 || !s.buf) return true;
  const bool ok = std::fwrite(s.buf, 1, s.len, s.f) == s.len;
  s.len = 0;
  if (!ok) s.write_failed = true;
  return ok;
}

std::int64_t position(FileSlot& s) {
  const std::int64_t at = host::tell_file(s.f);
  if (s.mode == kInput) return at - static_cast<std::int64_t>(s.len - s.pos);
  return at + (s.mode == kRandom ? 0 : s.len);
}

namespace {

bool fill(FileSlot& s) {
  if (s.pos < s.len) return true;
  s.pos = 0;
  s.len = static_cast<std::uint32_t>(std::fread(s.buf, 1, kBufferBytes, s.f));
  return s.len > 0;
}

}  // namespace

std::size_t read_bytes(FileSlot& s, char* out, std::size_t n) {
  std::size_t done = 0;
  const std::size_t have = std::min<std::size_t>(n, s.len - s.pos);
  std::memcpy(out, s.buf + s.pos, have);
  s.pos += static_cast<std::uint32_t>(have);
  done = have;
  if (done < n) done += std::fread(out + done, 1, n - done, s.f);
  return done;
}

// Ctrl-Z is left unread: the file keeps ending there.
int read_byte(FileSlot& s) {
  if (!fill(s) || s.buf[s.pos] == 0x1A) return -1;
  return static_cast<unsigned char>(s.buf[s.pos++]);
}

int peek_byte(FileSlot& s) {
  if (!fill(s) || s.buf[s.pos] == 0x1A) return -1;
  return static_cast<unsigned char>(s.buf[s.pos]);
}

bool read_line(FileSlot& s, std::string* out) {
  out->clear();
  if (peek_byte(s) < 0) return false;
  while (fill(s)) {
    const char* p = s.buf + s.pos;
    const char* e = s.buf + s.len;
    const char* q = p;
    while (q < e && *q != 13 && *q != 10 && *q != 0x1A) ++q;
    out->append(p, static_cast<std::size_t>(q - p));
    s.pos += static_cast<std::uint32_t>(q - p);
    if (q == e) continue;
    if (*q == 0x1A) break;
    ++s.pos;
    if (*q == 13 && peek_byte(s) == 10) ++s.pos;
    break;
  }
  return true;
}

bool check_write(FileSlot& s) {
  if (!s.write_failed && !std::ferror(s.f)) return true;
  s.write_failed = true;
  std::clearerr(s.f);
  return fail("Disk I/O error");
}

}  // namespace files
