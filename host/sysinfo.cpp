// SYSTEMINFO$(n) and BATTERYPERCENT: one line of text per index, composed
// from the facts the platform gives (host/sysinfo.h), the processor's CPUID
// and the interpreter's own state. SMBIOS structure parsing lives here too,
// since both platforms hand over the same raw table.
#include "host/sysinfo.h"

#include <cstdio>
#include <cstring>

#include "core/errors.h"
#include "host/cp437.h"
#include "host/cpu.h"
#include "host/packed.h"
#include "host/platform.h"
#include "host/ui.h"
#include "jit/jit.h"
#include "screen/framebuffer.h"

namespace host {

int parfor_cap = 0;
int parfor_last_workers = 0;

namespace {

// 1536 -> "1.5 KB", sizes in the binary units that disks and memory use.
std::string size_text(std::uint64_t bytes) {
  static const char* const units[] = {"bytes", "KB", "MB", "GB", "TB", "PB"};
  if (bytes < 1024) return std::to_string(bytes) + " bytes";
  double v = static_cast<double>(bytes);
  int u = 0;
  while (v >= 1024 && u < 5) {
    v /= 1024;
    ++u;
  }
  char buf[32];
  // Whole numbers stay whole: caches read "32 KB", not "32.0 KB".
  if (v == static_cast<double>(static_cast<std::uint64_t>(v))) std::snprintf(buf, sizeof buf, "%.0f %s", v, units[u]);
  else std::snprintf(buf, sizeof buf, "%.1f %s", v, units[u]);
  return buf;
}

std::string join(const std::vector<std::string>& parts, const char* sep) {
  std::string out;
  for (const std::string& p : parts) out += (out.empty() ? "" : sep) + p;
  return out;
}

// Empty strings (absent fields) are skipped when joined with blanks.
std::string joined_fields(std::initializer_list<std::string> fields) {
  std::vector<std::string> kept;
  for (const std::string& s : fields)
    if (!s.empty()) kept.push_back(s);
  return join(kept, " ");
}

const char* drive_kind_name(int kind) {
  switch (kind) {
    case 2: return "removable";
    case 3: return "fixed";
    case 4: return "network";
    case 5: return "CD-ROM";
    case 6: return "RAM disk";
    default: return "unknown";
  }
}

unsigned capacity() {
  const unsigned n = logical_processors();
  return n < 1 ? 1 : n > 32 ? 32 : n;
}

std::string os_line() {
  const std::string os = os_description();
  return "OS: " + (os.empty() ? std::string("unknown") : os);
}

std::string cores_line() {
  const unsigned physical = physical_cores();
  std::string line = "Cores: ";
  if (physical) line += std::to_string(physical) + " physical, ";
  return line + std::to_string(logical_processors()) + " logical";
}

std::string caches_line() {
  std::vector<std::string> parts;
  for (const CacheLevel& c : cpu_caches()) {
    std::string name = "L" + std::to_string(c.level);
    if (c.kind != 'u') name += c.kind;
    parts.push_back(name + " " + size_text(c.bytes));
  }
  return "Caches: " + (parts.empty() ? std::string("not reported") : join(parts, ", "));
}

std::string memory_line() {
  std::uint64_t total, available;
  if (!memory_status(&total, &available)) return "Memory: not reported";
  return "Memory: " + size_text(total) + " total, " + size_text(available) + " available";
}

std::string display_line() {
  std::string line = "Display: ";
  line += (!ui || ui->headless()) ? "headless" : "window";
  line += ", framebuffer " + std::to_string(screen::fb.width) + "x" + std::to_string(screen::fb.height);
  const std::vector<DisplayMode> modes = ui ? ui->video_modes() : std::vector<DisplayMode>{};
  if (modes.empty()) return line + ", no video modes";
  line += ", " + std::to_string(modes.size()) + " video mode" + (modes.size() == 1 ? "" : "s");
  const DisplayMode& big = modes.back();
  return line + " up to " + std::to_string(big.first) + "x" + std::to_string(big.second);
}

std::string simd_line() {
  const SimdInfo& s = simd_info();
  if (s.avx2_usable) return "SIMD: AVX2 usable for JIT (SSE2 baseline)";
  if (s.avx2_hardware) return "SIMD: SSE2; AVX2 hardware present, YMM state unavailable";
  return "SIMD: SSE2; AVX2 hardware unavailable";
}

std::string parfor_line() {
  return "PARFOR capacity: " + std::to_string(capacity()) + " incl. caller; cap " +
         (parfor_cap ? std::to_string(parfor_cap) : std::string("auto")) + " (max 32); last " +
         (parfor_last_workers ? std::to_string(parfor_last_workers) : std::string("none"));
}

std::string drives_line() {
  std::vector<std::string> parts;
  for (const DriveFacts& d : drive_facts()) {
    std::string p = d.root + " " + drive_kind_name(d.kind);
    if (d.total) p += " " + size_text(d.total) + " (" + size_text(d.free) + " free)";
    parts.push_back(p);
  }
  return "Drives: " + (parts.empty() ? std::string("none reported") : join(parts, ", "));
}

std::string disks_line() {
  std::vector<std::string> parts;
  for (const DiskFacts& d : disk_facts()) {
    std::string p = d.name + " " + size_text(d.bytes);
    if (d.rotational == 0) p += " SSD";
    else if (d.rotational == 1) p += " HDD";
    if (!d.model.empty()) p += " " + d.model;
    parts.push_back(p);
  }
  return "Disks: " + (parts.empty() ? std::string("none reported") : join(parts, ", "));
}

std::string firmware_line() {
  FirmwareFacts f;
  if (!firmware_facts(&f)) return "Firmware: not reported";
  std::string line = "Firmware: ";
  line += f.smbios_major ? "SMBIOS " + std::to_string(f.smbios_major) + "." + std::to_string(f.smbios_minor)
                         : std::string("SMBIOS");
  if (!f.bios_vendor.empty() || !f.bios_version.empty()) {
    line += "; BIOS " + joined_fields({f.bios_vendor, f.bios_version});
    if (!f.bios_date.empty()) line += " (" + f.bios_date + ")";
  }
  if (!f.maker.empty() || !f.product.empty()) line += "; system " + joined_fields({f.maker, f.product});
  return line;
}

std::string battery_line() {
  bool charging = false;
  const int pct = battery_percent(&charging);
  if (pct < 0) return "Battery: none";
  return "Battery: " + std::to_string(pct) + "%" + (charging ? ", charging" : "");
}

std::string executable_line() {
  const PackedImage& p = packed_image();
  if (!p.packed) return "Executable: interpreter";
  return std::string("Executable: standalone program, ") +
         (p.bank_length ? "GM bank embedded (" + size_text(p.bank_length) + ")" : "no GM bank embedded");
}

}  // namespace

std::string system_info_line(int index) {
  switch (index) {
    case 0: return os_line();
    case 1: return "Processor: " + cpu_brand();
    case 2: return cores_line();
    case 3: return caches_line();
    case 4: return memory_line();
    case 5: return display_line();
    case 6: return simd_line();
    case 7: return parfor_line();
    case 8: return drives_line();
    case 9: return disks_line();
    case 10: return firmware_line();
    case 11: return jit::enabled() ? "JIT: ON" : "JIT: OFF";
    case 12: return battery_line();
    case 13: return executable_line();
    default: return std::string();
  }
}

// --- SMBIOS ---------------------------------------------------------------

void parse_smbios(const std::uint8_t* table, std::size_t length, FirmwareFacts* out) {
  std::size_t at = 0;
  while (at + 4 <= length) {
    const std::uint8_t type = table[at], formatted = table[at + 1];
    if (formatted < 4 || at + formatted > length) return;
    const std::uint8_t* head = table + at;
    // The strings follow the formatted area, each NUL-terminated, the set
    // ended by one more NUL (two NULs when there are no strings).
    std::vector<std::string> strings;
    std::size_t p = at + formatted;
    if (p + 1 < length && table[p] == 0 && table[p + 1] == 0) {
      p += 2;
    } else {
      while (p < length && table[p] != 0) {
        const std::size_t start = p;
        while (p < length && table[p] != 0) ++p;
        std::string s(reinterpret_cast<const char*>(table + start), p - start);
        std::string cp;
        strings.push_back(utf8_to_cp437(s, &cp) ? cp : s);
        ++p;
      }
      ++p;
    }
    auto field = [&](std::size_t offset) -> std::string {
      if (offset >= formatted) return std::string();
      const std::uint8_t n = head[offset];
      if (n == 0 || n > strings.size()) return std::string();
      std::string s = strings[n - 1];
      while (!s.empty() && s.back() == ' ') s.pop_back();
      return s;
    };
    if (type == 0) {
      out->bios_vendor = field(4);
      out->bios_version = field(5);
      out->bios_date = field(8);
    } else if (type == 1) {
      out->maker = field(4);
      out->product = field(5);
    } else if (type == 127) {
      return;
    }
    at = p;
  }
}

// --- the BASIC functions ---------------------------------------------------

namespace {

using values::Value;

bool f_systeminfo(const core::Token*& t, Value* out) {
  Value a;
  std::int64_t n;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_int(a, &n)) return false;
  if (n < 0 || n >= kSystemInfoLines) {
    core::raise("Illegal function call");
    return false;
  }
  const std::string line = system_info_line(static_cast<int>(n));
  return values::make_string(line.data(), line.size(), out);
}

// BATTERYPERCENT, with or without "()".
bool f_batterypercent(const core::Token*& t, Value* out) {
  Value unused;
  if (t->kind == '(' && !values::parse_args(t, &unused, 0, 0)) return false;
  bool charging;
  *out = Value::integer(battery_percent(&charging));
  return true;
}

const values::Builtin kRows[] = {
    {"SYSTEMINFO$", f_systeminfo},
    {"BATTERYPERCENT", f_batterypercent},
};

}  // namespace

const values::BuiltinGroup& sysinfo_builtins() {
  static const values::BuiltinGroup group{kRows, static_cast<int>(sizeof kRows / sizeof kRows[0])};
  return group;
}

}  // namespace host
