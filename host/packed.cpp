// Standalone images: detection of an appended program at start-up, loading
// it into the program store, and CREATEEXE, which writes such an image.
#include "host/packed.h"

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "core/errors.h"
#include "core/exec.h"
#include "core/program.h"
#include "core/statements.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/console.h"
#include "values/eval.h"

namespace host {

namespace {

constexpr char kTrailerMagic[] = "TAMBRIL2-PACKED!";  // 16 bytes, no terminator in the file
constexpr char kBankFileName[] = "TAMBRIL_GM.QZGM";
constexpr std::uint64_t kEntryBytes = 24;

std::uint32_t get32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}
std::uint64_t get64(const std::uint8_t* p) { return get32(p) | static_cast<std::uint64_t>(get32(p + 4)) << 32; }
void put32(std::string& s, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) s += static_cast<char>(v >> (8 * i));
}
void put64(std::string& s, std::uint64_t v) {
  put32(s, static_cast<std::uint32_t>(v));
  put32(s, static_cast<std::uint32_t>(v >> 32));
}

bool read_at(std::FILE* f, std::uint64_t offset, void* out, std::size_t n) {
  if (offset > static_cast<std::uint64_t>(INT64_MAX) || !seek_file(f, static_cast<std::int64_t>(offset))) return false;
  return std::fread(out, 1, n, f) == n;
}

PackedImage detected;
std::string detected_path;

}  // namespace

PackedImage examine_image(std::FILE* f) {
  PackedImage img;
  const std::int64_t size = f ? file_length(f) : -1;
  if (size < 0) return img;
  const std::uint64_t file_size = static_cast<std::uint64_t>(size);
  img.interpreter_length = file_size;
  std::uint8_t trailer[kTrailerBytes];
  if (file_size < kTrailerBytes || !read_at(f, file_size - kTrailerBytes, trailer, sizeof trailer)) return img;
  if (std::memcmp(trailer, kTrailerMagic, 16) != 0) return img;
  const std::uint64_t length = get64(trailer + 16);
  if (length < 8 || length > file_size - kTrailerBytes) return img;
  const std::uint64_t start = file_size - kTrailerBytes - length;
  std::uint8_t head[8];
  if (!read_at(f, start, head, sizeof head)) return img;

  PackedImage found = img;
  found.payload = true;
  found.payload_start = start;
  found.payload_length = length;
  found.interpreter_length = start;
  if (std::memcmp(head, "BAS2", 4) == 0) {
    // The older form: the whole payload is the program block.
    found.packed = true;
    found.program_offset = start;
    found.program_length = length;
    return found;
  }
  if (std::memcmp(head, "QZP3", 4) != 0) return img;
  const std::uint32_t count = get32(head + 4);
  if (count < 1 || count > kMaxContainerEntries || 8 + kEntryBytes * count > length) return img;
  std::uint8_t entries[kEntryBytes * kMaxContainerEntries];
  if (!read_at(f, start + 8, entries, kEntryBytes * count)) return img;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint8_t* e = entries + kEntryBytes * i;
    const std::uint64_t offset = get64(e + 8), block = get64(e + 16);
    if (offset > length || block > length - offset) return img;  // one stray entry spoils the container
    if (std::memcmp(e, "BAS2", 4) == 0) {  // the last entry of each tag wins
      found.program_offset = start + offset;
      found.program_length = block;
    } else if (std::memcmp(e, "QZGM", 4) == 0) {
      found.bank_offset = block ? start + offset : 0;
      found.bank_length = block;
    }
  }
  found.packed = found.program_length >= 8;
  return found;
}

bool detect_packed_program(const std::string& exe_path) {
  static bool done = false;
  if (!done && !exe_path.empty()) {
    done = true;
    if (std::FILE* f = open_native_file(exe_path, "rb")) {
      detected = examine_image(f);
      detected_path = exe_path;
      std::fclose(f);
    }
  }
  return detected.packed;
}

const PackedImage& packed_image() { return detected; }

bool load_program_block(std::FILE* f, std::uint64_t offset, std::uint64_t length) {
  std::uint8_t head[8];
  if (length < 8 || !read_at(f, offset, head, sizeof head)) return false;
  const std::uint32_t count = get32(head + 4);
  if (std::memcmp(head, "BAS2", 4) != 0 || count > core::kMaxLines) return false;
  core::program_clear();
  core::clear_run_state();
  std::uint64_t left = length - 8;
  std::uint32_t stored = 0;
  // One cache invalidation at the end instead of one per line.
  ++core::program.loading;
  const bool was_silent = core::err.silent;
  core::err.silent = true;
  while (stored < count && left >= 8) {
    std::uint8_t rec[8];
    char body[core::kMaxBody];
    if (std::fread(rec, 1, sizeof rec, f) != sizeof rec) break;
    const std::uint32_t number = get32(rec), n = get32(rec + 4);
    if (number > 4294967294u || n > core::kMaxBody || n > left - 8) break;
    if (std::fread(body, 1, n, f) != n) break;
    if (!core::store_line(number, body, n)) break;
    left -= 8 + n;
    ++stored;
  }
  core::err.silent = was_silent;
  if (--core::program.loading == 0 && core::program.invalidate_pending) {
    core::program.invalidate_pending = false;
    core::invalidate_caches();
  }
  core::program.modified = false;
  return stored == count && left == 0;
}

bool load_packed_program() {
  if (!detected.packed || detected.program_length < 8) return false;
  std::FILE* f = open_native_file(detected_path, "rb");
  if (!f) return false;
  const bool ok = load_program_block(f, detected.program_offset, detected.program_length);
  std::fclose(f);
  return ok;
}

std::string program_block() {
  std::string block = "BAS2";
  put32(block, core::program.lines);
  for (std::uint32_t i = 0; i < core::program.lines; ++i) {
    const std::uint32_t n = core::line_body_length(i);
    put32(block, core::line_index[i].number);
    put32(block, n);
    block.append(core::line_body(i), n);
  }
  return block;
}

bool embedded_gm_bank(EmbeddedBank* out) {
  if (!detected.payload || detected.bank_length == 0) return false;
  out->path = detected_path;
  out->offset = detected.bank_offset;
  out->length = detected.bank_length;
  return true;
}

// --- CREATEEXE ----------------------------------------------------------

namespace {

bool fail(const char* message) {
  core::raise(message);
  return false;
}

struct FileCloser {
  void operator()(std::FILE* f) const {
    if (f) std::fclose(f);
  }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// The bank a new executable gets: the one this executable carries, else
// TAMBRIL_GM.QZGM in the current directory, where BASIC file names resolve. The
// copy beside the interpreter is deliberately not taken: what goes into the
// user's program is what the user put next to it.
struct BankSource {
  File file;
  std::uint64_t offset = 0, length = 0;
};
bool choose_bank(const PackedImage& running, BankSource* bank) {
  if (running.payload && running.bank_length > 0) {
    bank->offset = running.bank_offset;
    bank->length = running.bank_length;
    return true;
  }
  if (path_kind(kBankFileName) != 1) return false;
  File f(open_file(kBankFileName, "rb"));
  const std::int64_t n = f ? file_length(f.get()) : -1;
  if (n <= 0) return false;
  bank->file = std::move(f);
  bank->length = static_cast<std::uint64_t>(n);
  return true;
}

// Copies `length` bytes at `offset` of `from` to the end of `to`.
bool copy_bytes(std::FILE* from, std::uint64_t offset, std::uint64_t length, std::FILE* to, std::uint8_t* buffer,
                std::size_t buffer_size) {
  if (!seek_file(from, static_cast<std::int64_t>(offset))) return fail("Disk I/O error");
  while (length > 0) {
    const std::size_t n = length < buffer_size ? static_cast<std::size_t>(length) : buffer_size;
    if (std::fread(buffer, 1, n, from) != n) return fail("Disk I/O error");
    if (std::fwrite(buffer, 1, n, to) != n) return fail("Disk I/O error");
    length -= n;
  }
  return true;
}

bool write_image(const std::string& name, bool with_bank, bool* banked) {
  const std::string exe_path = executable_path();
  File exe(exe_path.empty() ? nullptr : open_native_file(exe_path, "rb"));
  if (!exe) return fail("File not found");
  // The running file is examined again: only its interpreter part is copied,
  // never a payload it carries itself.
  const PackedImage running = examine_image(exe.get());
  BankSource bank;
  *banked = with_bank && choose_bank(running, &bank);

  constexpr std::size_t kBufferSize = 1 << 20;
  std::unique_ptr<std::uint8_t[]> buffer(new (std::nothrow) std::uint8_t[kBufferSize]);
  std::string block, head;
  try {
    block = program_block();
    const std::uint32_t count = *banked ? 2 : 1;
    const std::uint64_t program_at = 8 + kEntryBytes * count;
    head = "QZP3";
    put32(head, count);
    head += "BAS2";
    put32(head, 0);
    put64(head, program_at);
    put64(head, block.size());
    if (*banked) {
      head += "QZGM";
      put32(head, 0);
      put64(head, program_at + block.size());
      put64(head, bank.length);
    }
  } catch (const std::bad_alloc&) {
    return fail("Out of memory");
  }
  if (!buffer) return fail("Out of memory");

  File out(create_executable_file(name));
  if (!out) return fail("Bad file name");
  bool ok = copy_bytes(exe.get(), 0, running.interpreter_length, out.get(), buffer.get(), kBufferSize) &&
            (std::fwrite(head.data(), 1, head.size(), out.get()) == head.size() || fail("Disk I/O error")) &&
            (std::fwrite(block.data(), 1, block.size(), out.get()) == block.size() || fail("Disk I/O error"));
  if (ok && *banked)
    ok = copy_bytes(bank.file ? bank.file.get() : exe.get(), bank.offset, bank.length, out.get(), buffer.get(),
                    kBufferSize);
  if (ok) {
    std::string trailer(kTrailerMagic, 16);
    put64(trailer, head.size() + block.size() + (*banked ? bank.length : 0));
    ok = std::fwrite(trailer.data(), 1, trailer.size(), out.get()) == trailer.size() || fail("Disk I/O error");
  }
  if (std::fclose(out.release()) != 0 && ok) ok = fail("Disk I/O error");
  // Half an executable would start as the bare interpreter: better none.
  if (!ok) (void)delete_file(name);
  return ok;
}

}  // namespace

void stmt_createexe(const core::Token*& t) {
  ++t;
  if (core::exec.line != core::kDirect) return (void)fail("Illegal direct");
  if (core::program.lines == 0) return (void)fail("No program");
  values::Value v;
  if (!values::eval(t, &v)) return;
  if (v.type != values::kString) return (void)fail("Type mismatch");
  std::string name;
  if (!core::check_file_name(v.s.ptr, v.s.len, &name)) return;
  bool with_bank = true;
  if (t->kind == core::kTokIdent && std::strcmp(t->name(), "NOGM") == 0) {
    with_bank = false;
    ++t;
  }
  if (!core::at_statement_end(t)) return (void)fail("Syntax Error");
  const std::size_t slash = name.find_last_of("\\/");
  const std::size_t dot = name.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) name += executable_extension();
  if (name.size() > 4095) return (void)fail("Path too long");
  bool banked = false;
  if (!write_image(name, with_bank, &banked)) return;
  screen::put_line(("Created " + name + (banked ? " (Tambril GM bank embedded)" : " (no GM bank embedded)")).c_str());
}

}  // namespace host
