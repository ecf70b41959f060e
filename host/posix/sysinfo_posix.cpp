// System information on Linux: uname and os-release, /proc and /sys.
#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include <dirent.h>

#include "host/cp437.h"
#include "host/sysinfo.h"

namespace host {

namespace {

// The first line of a small file, trailing blanks and newline removed; empty when unreadable.
std::string first_line(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return std::string();
  while (!line.empty() && (line.back() == ' ' || line.back() == '\n' || line.back() == '\r')) line.pop_back();
  return line;
}

std::string whole_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return in ? s.str() : std::string();
}

std::string to_cp437(const std::string& utf8) {
  std::string out;
  if (utf8_to_cp437(utf8, &out)) return out;
  out.clear();
  for (unsigned char c : utf8) out += c < 128 ? static_cast<char>(c) : '?';
  return out;
}

std::vector<std::string> directory(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* d = opendir(path.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// /proc/mounts writes blanks and a few other bytes as \ooo.
std::string unescape_mount(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      const std::string oct = s.substr(i + 1, 3);
      if (oct.size() == 3 && oct.find_first_not_of("01234567") == std::string::npos) {
        out += static_cast<char>(std::strtol(oct.c_str(), nullptr, 8));
        i += 3;
        continue;
      }
    }
    out += s[i];
  }
  return out;
}

}  // namespace

std::string os_description() {
  struct utsname u;
  std::string line = uname(&u) == 0 ? std::string(u.sysname) + " " + u.release + " " + u.machine : "Linux";
  std::ifstream in("/etc/os-release");
  for (std::string l; std::getline(in, l);) {
    if (l.rfind("PRETTY_NAME=", 0) != 0) continue;
    std::string name = l.substr(12);
    if (name.size() >= 2 && (name.front() == '"' || name.front() == '\'')) name = name.substr(1, name.size() - 2);
    if (!name.empty()) line += " (" + name + ")";
    break;
  }
  return to_cp437(line);
}

unsigned physical_cores() {
  // Distinct (package, core) pairs; a machine that shows neither counts none.
  std::ifstream in("/proc/cpuinfo");
  std::set<std::pair<std::string, std::string>> cores;
  std::string package, core;
  for (std::string l; std::getline(in, l);) {
    const std::size_t colon = l.find(':');
    if (l.empty()) {
      if (!core.empty()) cores.emplace(package, core);
      package.clear();
      core.clear();
    } else if (colon != std::string::npos) {
      const std::string key = l.substr(0, l.find_last_not_of(" \t", colon - 1) + 1);
      const std::string value = colon + 2 <= l.size() ? l.substr(colon + 2) : std::string();
      if (key == "physical id") package = value;
      else if (key == "core id") core = value;
    }
  }
  if (!core.empty()) cores.emplace(package, core);
  return static_cast<unsigned>(cores.size());
}

bool memory_status(std::uint64_t* total, std::uint64_t* available) {
  std::ifstream in("/proc/meminfo");
  std::uint64_t t = 0, a = 0;
  bool have_t = false, have_a = false;
  for (std::string l; std::getline(in, l);) {
    std::istringstream s(l);
    std::string key;
    std::uint64_t kb;
    if (!(s >> key >> kb)) continue;
    if (key == "MemTotal:") t = kb * 1024, have_t = true;
    else if (key == "MemAvailable:") a = kb * 1024, have_a = true;
  }
  if (!have_t) return false;
  *total = t;
  *available = have_a ? a : 0;
  return true;
}

std::vector<DriveFacts> drive_facts() {
  // File systems on block devices, each device once (bind mounts repeat them).
  std::vector<DriveFacts> out;
  std::set<std::string> seen;
  std::ifstream in("/proc/mounts");
  for (std::string l; std::getline(in, l) && out.size() < 8;) {
    std::istringstream s(l);
    std::string device, where;
    if (!(s >> device >> where) || device.rfind("/dev/", 0) != 0 || device.rfind("/dev/loop", 0) == 0) continue;
    if (!seen.insert(device).second) continue;
    where = unescape_mount(where);
    DriveFacts d{to_cp437(where), 3, 0, 0};
    struct statvfs v;
    if (statvfs(where.c_str(), &v) == 0) {
      d.total = static_cast<std::uint64_t>(v.f_blocks) * v.f_frsize;
      d.free = static_cast<std::uint64_t>(v.f_bavail) * v.f_frsize;
    }
    const std::string dev = device.substr(5);
    const std::string base = dev.substr(0, dev.find_first_of("0123456789"));
    if (first_line("/sys/block/" + base + "/removable") == "1") d.kind = 2;
    if (dev.rfind("sr", 0) == 0) d.kind = 5;
    out.push_back(d);
  }
  if (out.empty()) {
    DriveFacts d{"/", 3, 0, 0};
    struct statvfs v;
    if (statvfs("/", &v) == 0) {
      d.total = static_cast<std::uint64_t>(v.f_blocks) * v.f_frsize;
      d.free = static_cast<std::uint64_t>(v.f_bavail) * v.f_frsize;
    }
    out.push_back(d);
  }
  return out;
}

std::vector<DiskFacts> disk_facts() {
  std::vector<DiskFacts> out;
  for (const std::string& name : directory("/sys/block")) {
    // Loop, RAM and compressed-swap devices are not disks.
    if (name.rfind("loop", 0) == 0 || name.rfind("ram", 0) == 0 || name.rfind("zram", 0) == 0 ||
        name.rfind("dm-", 0) == 0 || name.rfind("md", 0) == 0)
      continue;
    const std::string dir = "/sys/block/" + name;
    const std::uint64_t sectors = std::strtoull(first_line(dir + "/size").c_str(), nullptr, 10);
    if (sectors == 0) continue;
    DiskFacts d{name, to_cp437(first_line(dir + "/device/model")), sectors * 512, -1};
    const std::string rot = first_line(dir + "/queue/rotational");
    if (rot == "0" || rot == "1") d.rotational = rot == "1";
    out.push_back(d);
    if (out.size() >= 8) break;
  }
  return out;
}

bool firmware_facts(FirmwareFacts* out) {
  // The raw table needs root; the kernel's decoded copy under dmi/id does not.
  const std::string entry = whole_file("/sys/firmware/dmi/tables/smbios_entry_point");
  const std::string table = whole_file("/sys/firmware/dmi/tables/DMI");
  if (!table.empty() && entry.size() >= 8) {
    if (entry.rfind("_SM3_", 0) == 0) out->smbios_major = static_cast<std::uint8_t>(entry[7]), out->smbios_minor = static_cast<std::uint8_t>(entry[8]);
    else if (entry.rfind("_SM_", 0) == 0) out->smbios_major = static_cast<std::uint8_t>(entry[6]), out->smbios_minor = static_cast<std::uint8_t>(entry[7]);
    parse_smbios(reinterpret_cast<const std::uint8_t*>(table.data()), table.size(), out);
    return true;
  }
  const std::string id = "/sys/class/dmi/id/";
  out->bios_vendor = to_cp437(first_line(id + "bios_vendor"));
  out->bios_version = to_cp437(first_line(id + "bios_version"));
  out->bios_date = to_cp437(first_line(id + "bios_date"));
  out->maker = to_cp437(first_line(id + "sys_vendor"));
  out->product = to_cp437(first_line(id + "product_name"));
  return !(out->bios_vendor.empty() && out->bios_version.empty() && out->maker.empty() && out->product.empty());
}

int battery_percent(bool* charging) {
  *charging = false;
  for (const std::string& name : directory("/sys/class/power_supply")) {
    const std::string dir = "/sys/class/power_supply/" + name;
    if (first_line(dir + "/type") != "Battery" || first_line(dir + "/present") == "0") continue;
    const std::string cap = first_line(dir + "/capacity");
    if (cap.empty()) continue;
    const long pct = std::strtol(cap.c_str(), nullptr, 10);
    *charging = first_line(dir + "/status") == "Charging";
    return pct < 0 ? 0 : pct > 100 ? 100 : static_cast<int>(pct);
  }
  return -1;
}

}  // namespace host
