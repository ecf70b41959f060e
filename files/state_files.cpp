// Crash-safe persistence: STATEWRITE/STATELOAD, FILECOPY/FILECOMMIT and
// SESSIONLOCK.
//
// Every file here reaches its final name the same way: written in full to a
// temporary file beside it, forced to the disk, then renamed over the old
// one. A crash at any moment leaves either the old file or the new one under
// the name, never a mixture.
//
// State file: "TAMBRIL STATE\r\n\x1A" (16 bytes), u64 body length, body,
// u32 CRC-32 of everything before it. Body: u8 OPTION BASE, 26 bytes of
// default types (A..Z), the variable image of var_image.h.
#include <cstring>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/statements.h"
#include "files/file_statements.h"
#include "files/file_table.h"
#include "files/state_files.h"
#include "files/var_image.h"
#include "host/platform.h"
#include "screen/snapshot.h"
#include "values/eval.h"
#include "values/variables.h"

namespace files {

namespace {

constexpr char kMagic[16] = {'T', 'A', 'M', 'B', 'R', 'I', 'L', ' ', 'S', 'T', 'A', 'T', 'E', '\r', '\n', 0x1A};
constexpr const char* kDamaged = "State file damaged";

bool fail(const char* m) {
  core::raise(m);
  return false;
}

bool end_of_statement(const Token* t) {
  if (core::at_statement_end(t)) return true;
  return fail("Syntax error");
}

std::vector<void*> locks;

// Copy a whole file into bytes.
bool read_all(const std::string& name, std::string* out) {
  if (host::path_kind(name) != 1) return fail("File not found");
  std::FILE* f = host::open_file(name, "rb");
  if (!f) return fail("Permission denied");
  const std::int64_t len = host::file_length(f);
  if (len < 0) {
    std::fclose(f);
    return fail("Disk I/O error");
  }
  out->resize(static_cast<std::size_t>(len));
  const bool ok = std::fread(out->data(), 1, out->size(), f) == out->size();
  std::fclose(f);
  if (!ok) return fail("Disk I/O error");
  return true;
}

bool staged_name(const std::string& target, std::string* out) {
  *out = target + ".STG";
  if (out->size() > 4095) return fail("Path too long");
  return true;
}

}  // namespace

bool write_durably(const std::string& name, const std::string& bytes) {
  if (name.size() + 4 > 4095) return fail("Path too long");
  bool created;
  const host::FileFault r = host::write_file_replacing(name, bytes.data(), bytes.size(), &created);
  if (r == host::FileFault::none) return true;
  if (created && r == host::FileFault::disk_full) return fail("Disk I/O error");
  return fail(fault_message(r));
}

void release_session_locks() {
  for (void* l : locks) host::unlock_file(l);
  locks.clear();
}

// STATEWRITE f$: every scalar and array of the program, atomically.
void stmt_statewrite(const Token*& t) {
  ++t;
  std::string name;
  if (!file_name_value(t, &name) || !end_of_statement(t)) return;
  std::string body;
  body.push_back(static_cast<char>(values::option_base));
  for (char c = 'A'; c <= 'Z'; ++c) body.push_back(static_cast<char>(values::default_type(c)));
  body += encode_variables(nullptr);
  std::string file(kMagic, sizeof kMagic);
  const std::uint64_t len = body.size();
  file.append(reinterpret_cast<const char*>(&len), sizeof len);
  file += body;
  const std::uint32_t crc = screen::crc32(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
  file.append(reinterpret_cast<const char*>(&crc), sizeof crc);
  (void)write_durably(name, file);
}

// STATELOAD f$: the file is checked whole before anything changes; then the
// variables are replaced by the saved ones (open files stay open).
void stmt_stateload(const Token*& t) {
  ++t;
  std::string name, file;
  if (!file_name_value(t, &name) || !end_of_statement(t) || !read_all(name, &file)) return;
  constexpr std::size_t head = sizeof kMagic + 8;
  if (file.size() < head + 4 + 27 || std::memcmp(file.data(), kMagic, sizeof kMagic) != 0) {
    core::raise("Not a state file");
    return;
  }
  std::uint64_t len;
  std::memcpy(&len, file.data() + sizeof kMagic, sizeof len);
  std::uint32_t crc;
  std::memcpy(&crc, file.data() + file.size() - 4, 4);
  if (len != file.size() - head - 4 ||
      crc != screen::crc32(reinterpret_cast<const std::uint8_t*>(file.data()), file.size() - 4)) {
    core::raise(kDamaged);
    return;
  }
  const std::uint8_t base = static_cast<std::uint8_t>(file[head]);
  const std::string image = file.substr(head + 27, len - 27);
  if (base > 1 || !decode_variables(image, false, kDamaged)) {
    if (!core::err.flag) core::raise(kDamaged);
    return;
  }
  values::clear_variables();
  values::option_base = base;
  for (int i = 0; i < 26; ++i) {
    const std::uint8_t ty = static_cast<std::uint8_t>(file[head + 1 + i]);
    if (ty >= values::kInteger && ty <= values::kString)
      values::set_default_type(static_cast<char>('A' + i), static_cast<char>('A' + i), ty);
  }
  (void)decode_variables(image, true, kDamaged);
}

// FILECOPY src$, dst$: src is copied to a staging file beside dst (dst$ +
// ".STG"), on disk when the statement ends; dst itself is untouched until
// FILECOMMIT.
void stmt_filecopy(const Token*& t) {
  ++t;
  std::string from, to, staged, bytes;
  if (!file_name_value(t, &from) || !values::expect(t, ',', "Syntax error") || !file_name_value(t, &to) ||
      !end_of_statement(t) || !staged_name(to, &staged) || !read_all(from, &bytes))
    return;
  (void)write_durably(staged, bytes);
}

// FILECOMMIT dst$: the staged copy replaces dst in one step.
void stmt_filecommit(const Token*& t) {
  ++t;
  std::string to, staged;
  if (!file_name_value(t, &to) || !end_of_statement(t) || !staged_name(to, &staged)) return;
  if (host::path_kind(staged) != 1) {
    core::raise("No staged copy");
    return;
  }
  const host::FileFault r = host::replace_file(staged, to);
  if (r != host::FileFault::none) core::raise(fault_message(r));
}

// SESSIONLOCK f$ takes the lock file f$ + ".LCK" (refused while another
// program holds it); SESSIONLOCK alone releases this program's locks.
void stmt_sessionlock(const Token*& t) {
  ++t;
  if (core::at_statement_end(t)) {
    release_session_locks();
    return;
  }
  std::string name;
  if (!file_name_value(t, &name) || !end_of_statement(t)) return;
  name += ".LCK";
  if (name.size() > 4095) {
    core::raise("Path too long");
    return;
  }
  void* lock = host::lock_file(name);
  if (!lock) {
    core::raise(host::path_kind(name) == 1 ? "Session locked by another program" : "Path not found");
    return;
  }
  locks.push_back(lock);
}

}  // namespace files
