// System information (SYSTEMINFO$, BATTERYPERCENT): what the operating system
// tells about itself, the machine, its drives, disks, firmware and battery.
// The facts come from each platform (host/posix, host/win32); the lines the
// BASIC functions give are composed from them in host/sysinfo.cpp.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "values/builtins.h"

namespace host {

// --- facts each platform supplies ---------------------------------------
// "Linux 6.1.0-18-amd64 x86_64 (Debian GNU/Linux 12 (bookworm))", "Windows 10.0 build 19045 (Wine 8.0)".
std::string os_description();
// Physical cores as the system counts them; 0 when it will not say.
unsigned physical_cores();
// Installed and available memory in bytes; false when unknown.
bool memory_status(std::uint64_t* total, std::uint64_t* available);

struct DriveFacts {
  std::string root;  // "C:\", "/", "/home" (code page 437)
  int kind;          // as DRIVETYPE numbers it
  std::uint64_t total, free;  // bytes; both 0 when unknown
};
std::vector<DriveFacts> drive_facts();

struct DiskFacts {
  std::string name;   // "sda", "PhysicalDrive0"
  std::string model;  // code page 437; may be empty
  std::uint64_t bytes;
  int rotational;     // 1 spinning, 0 solid state, -1 unknown
};
std::vector<DiskFacts> disk_facts();

struct FirmwareFacts {
  int smbios_major = 0, smbios_minor = 0;  // 0.0 when no table was read
  std::string bios_vendor, bios_version, bios_date, maker, product;
};
// Reads the SMBIOS tables (or what the system exposes of them).
bool firmware_facts(FirmwareFacts* out);
// Fills the text fields from a raw SMBIOS structure table (types 0 and 1).
void parse_smbios(const std::uint8_t* table, std::size_t length, FirmwareFacts* out);

// Charge 0..100 and whether it is charging; -1 without a battery (or when
// the system cannot tell).
int battery_percent(bool* charging);

// --- the BASIC side ------------------------------------------------------
// Number of SYSTEMINFO$ lines (indices 0 .. count-1).
constexpr int kSystemInfoLines = 14;
// One line; never empty.
std::string system_info_line(int index);

const values::BuiltinGroup& sysinfo_builtins();

// PARFOR's figures as SYSTEMINFO$(7) shows them: the worker cap of OPTION
// PARTHREADS (0 automatic) and the worker count of the last PARFOR (0 none).
// The PARFOR statement keeps them up to date.
extern int parfor_cap;
extern int parfor_last_workers;

}  // namespace host
