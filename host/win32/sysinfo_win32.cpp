// System information on Windows: version, memory, drives, physical disks,
// the SMBIOS table and the power status, from the system calls.
#include <windows.h>
#include <winioctl.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/cp437.h"
#include "host/platform.h"
#include "host/sysinfo.h"
#include "host/win32/wide.h"

namespace host {

namespace {

std::string ascii_trimmed(const char* s, std::size_t max) {
  std::string out;
  for (std::size_t i = 0; i < max && s[i]; ++i) out += (s[i] >= 32 && s[i] < 127) ? s[i] : '?';
  const std::size_t a = out.find_first_not_of(' '), b = out.find_last_not_of(' ');
  return a == std::string::npos ? std::string() : out.substr(a, b - a + 1);
}

template <typename F>
F ntdll_function(const char* name) {
  HMODULE nt = GetModuleHandleW(L"ntdll.dll");
  return nt ? reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(nt, name))) : nullptr;
}

}  // namespace

std::string os_description() {
  // GetVersionEx answers what the manifest claims; RtlGetVersion tells the truth.
  using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
  OSVERSIONINFOW v{};
  v.dwOSVersionInfoSize = sizeof v;
  std::string line = "Windows";
  if (auto get = ntdll_function<RtlGetVersionFn>("RtlGetVersion"); get && get(&v) == 0)
    line += " " + std::to_string(v.dwMajorVersion) + "." + std::to_string(v.dwMinorVersion) + " build " +
            std::to_string(v.dwBuildNumber);
  SYSTEM_INFO si;
  GetNativeSystemInfo(&si);
  if (si.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64) line += " x64";
  using WineVersionFn = const char*(CDECL*)();
  if (auto wine = ntdll_function<WineVersionFn>("wine_get_version"))
    if (const char* w = wine()) line += " (Wine " + ascii_trimmed(w, 64) + ")";
  return line;
}

unsigned physical_cores() {
  DWORD bytes = 0;
  GetLogicalProcessorInformation(nullptr, &bytes);
  if (bytes == 0) return 0;
  std::vector<SYSTEM_LOGICAL_PROCESSOR_INFORMATION> info(bytes / sizeof(SYSTEM_LOGICAL_PROCESSOR_INFORMATION) + 1);
  if (!GetLogicalProcessorInformation(info.data(), &bytes)) return 0;
  unsigned cores = 0;
  for (std::size_t i = 0; i < bytes / sizeof(SYSTEM_LOGICAL_PROCESSOR_INFORMATION); ++i)
    if (info[i].Relationship == RelationProcessorCore) ++cores;
  return cores;
}

bool memory_status(std::uint64_t* total, std::uint64_t* available) {
  MEMORYSTATUSEX m{};
  m.dwLength = sizeof m;
  if (!GlobalMemoryStatusEx(&m)) return false;
  *total = m.ullTotalPhys;
  *available = m.ullAvailPhys;
  return true;
}

std::vector<DriveFacts> drive_facts() {
  // An empty floppy or card reader must not bring up "insert a disk" boxes.
  const UINT old_mode = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  std::vector<DriveFacts> out;
  for (const std::string& root : drive_roots()) {
    DriveFacts d{root, drive_kind(root), 0, 0};
    ULARGE_INTEGER free_to_caller, total, free_all;
    if ((d.kind == 3 || d.kind == 4 || d.kind == 6) &&
        GetDiskFreeSpaceExW(wide(root).c_str(), &free_to_caller, &total, &free_all)) {
      d.total = total.QuadPart;
      d.free = free_to_caller.QuadPart;
    }
    out.push_back(d);
  }
  SetErrorMode(old_mode);
  return out;
}

std::vector<DiskFacts> disk_facts() {
  std::vector<DiskFacts> out;
  for (int n = 0; n < 16 && out.size() < 8; ++n) {
    const std::wstring name = L"\\\\.\\PhysicalDrive" + std::to_wstring(n);
    // No access rights are needed for the size and the identity.
    const HANDLE h = CreateFileW(name.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) continue;
    DISK_GEOMETRY_EX geometry{};
    DWORD got = 0;
    if (DeviceIoControl(h, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof geometry, &got, nullptr)) {
      DiskFacts d{"PhysicalDrive" + std::to_string(n), std::string(),
                  static_cast<std::uint64_t>(geometry.DiskSize.QuadPart), -1};
      STORAGE_PROPERTY_QUERY query{};
      query.PropertyId = StorageDeviceProperty;
      query.QueryType = PropertyStandardQuery;
      alignas(8) char buffer[1024] = {};
      if (DeviceIoControl(h, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, buffer, sizeof buffer, &got, nullptr) &&
          got >= sizeof(STORAGE_DEVICE_DESCRIPTOR)) {
        const auto* desc = reinterpret_cast<const STORAGE_DEVICE_DESCRIPTOR*>(buffer);
        if (desc->ProductIdOffset && desc->ProductIdOffset < got)
          d.model = ascii_trimmed(buffer + desc->ProductIdOffset, got - desc->ProductIdOffset);
      }
      out.push_back(d);
    }
    CloseHandle(h);
  }
  return out;
}

bool firmware_facts(FirmwareFacts* out) {
  constexpr DWORD kRsmb = 0x52534D42;  // 'RSMB': the raw SMBIOS table
  const UINT size = GetSystemFirmwareTable(kRsmb, 0, nullptr, 0);
  if (size < 8) return false;
  std::vector<std::uint8_t> data(size);
  if (GetSystemFirmwareTable(kRsmb, 0, data.data(), size) != size) return false;
  // RawSMBIOSData: calling method, major, minor, DMI revision, u32 length, table.
  out->smbios_major = data[1];
  out->smbios_minor = data[2];
  std::uint32_t length = static_cast<std::uint32_t>(data[4]) | data[5] << 8 | data[6] << 16 |
                         static_cast<std::uint32_t>(data[7]) << 24;
  if (length > size - 8) length = size - 8;
  parse_smbios(data.data() + 8, length, out);
  return true;
}

int battery_percent(bool* charging) {
  *charging = false;
  SYSTEM_POWER_STATUS s;
  // Flag 128: no system battery; 255: unknown. A percentage of 255 is unknown too.
  if (!GetSystemPowerStatus(&s) || s.BatteryFlag == 128 || s.BatteryFlag == 255 || s.BatteryLifePercent > 100)
    return -1;
  *charging = (s.BatteryFlag & 8) != 0;
  return s.BatteryLifePercent;
}

}  // namespace host
