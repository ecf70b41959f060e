// Windows side of the network interface: HTTP(S) through WinHTTP and the
// interface list from GetAdaptersAddresses.
//
// WinHTTP's synchronous calls cannot be asked to stop between slices, so a
// request runs on a worker thread while the caller's thread polls the
// NetWait. A request given up on is left to the worker, which stops at its
// next read (or its own time-outs) and frees everything itself.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <windows.h>
#include <winhttp.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "host/cp437.h"
#include "host/net.h"
#include "host/platform.h"
#include "host/win32/wide.h"

namespace host {

namespace {

std::string system_text(DWORD e) {
  wchar_t* w = nullptr;
  const HMODULE winhttp = GetModuleHandleW(L"winhttp.dll");
  DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
  if (winhttp && e >= WINHTTP_ERROR_BASE && e <= WINHTTP_ERROR_LAST) flags |= FORMAT_MESSAGE_FROM_HMODULE;
  const DWORD n = FormatMessageW(flags, winhttp, e, 0, reinterpret_cast<wchar_t*>(&w), 0, nullptr);
  std::string out = n ? narrow(w, n) : "";
  if (w) LocalFree(w);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ' || out.back() == '.')) out.pop_back();
  return out.empty() ? "WinHTTP error " + std::to_string(e) : out;
}

NetFault fault_of(DWORD e) {
  switch (e) {
    case ERROR_WINHTTP_NAME_NOT_RESOLVED: return NetFault::not_found;
    case ERROR_WINHTTP_CANNOT_CONNECT: return NetFault::refused;
    case ERROR_WINHTTP_TIMEOUT: return NetFault::timeout;
    case ERROR_WINHTTP_INVALID_URL: case ERROR_WINHTTP_UNRECOGNIZED_SCHEME: return NetFault::bad_url;
    case ERROR_WINHTTP_CONNECTION_ERROR: return NetFault::closed;
    default: return NetFault::other;
  }
}

// What the worker and the waiting thread share; whoever leaves last frees it.
struct Job {
  std::wstring url;
  DWORD timeout_ms;
  std::size_t limit;
  std::atomic<bool> abandoned{false};
  std::atomic<bool> done{false};
  HttpResponse response;
  NetFault fault = NetFault::none;
  std::string detail;
};

struct Handles {
  HINTERNET session = nullptr, connection = nullptr, request = nullptr;
  ~Handles() {
    if (request) WinHttpCloseHandle(request);
    if (connection) WinHttpCloseHandle(connection);
    if (session) WinHttpCloseHandle(session);
  }
};

void fail(Job& j, DWORD e) {
  j.fault = fault_of(e);
  j.detail = system_text(e);
}

void run_request(Job& j) {
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof parts;
  parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = static_cast<DWORD>(-1);
  if (!WinHttpCrackUrl(j.url.c_str(), static_cast<DWORD>(j.url.size()), 0, &parts)) return fail(j, GetLastError());
  if (parts.nScheme != INTERNET_SCHEME_HTTP && parts.nScheme != INTERNET_SCHEME_HTTPS) {
    j.fault = NetFault::bad_url;
    j.detail = "Only http and https are supported";
    return;
  }
  const std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
  std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength);
  path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
  if (path.empty()) path = L"/";
  Handles h;
  h.session = WinHttpOpen(L"Tambril BASIC 3.4.1", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME,
                          WINHTTP_NO_PROXY_BYPASS, 0);
  if (!h.session) return fail(j, GetLastError());
  const int t = static_cast<int>(j.timeout_ms);
  WinHttpSetTimeouts(h.session, t, t, t, t);
  h.connection = WinHttpConnect(h.session, host.c_str(), parts.nPort, 0);
  if (!h.connection) return fail(j, GetLastError());
  h.request = WinHttpOpenRequest(h.connection, L"GET", path.c_str(), nullptr, WINHTTP_NO_REFERER,
                                 WINHTTP_DEFAULT_ACCEPT_TYPES,
                                 parts.nScheme == INTERNET_SCHEME_HTTPS ? WINHTTP_FLAG_SECURE : 0);
  if (!h.request) return fail(j, GetLastError());
  // Redirects are the caller's: it counts them and reads Location itself.
  DWORD never = WINHTTP_OPTION_REDIRECT_POLICY_NEVER;
  WinHttpSetOption(h.request, WINHTTP_OPTION_REDIRECT_POLICY, &never, sizeof never);
  if (!WinHttpSendRequest(h.request, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0, 0, 0) ||
      !WinHttpReceiveResponse(h.request, nullptr))
    return fail(j, GetLastError());
  DWORD size = 0;
  WinHttpQueryHeaders(h.request, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX, nullptr, &size,
                      WINHTTP_NO_HEADER_INDEX);
  if (size > 0) {
    std::wstring raw(size / sizeof(wchar_t) + 1, L'\0');
    if (WinHttpQueryHeaders(h.request, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX, raw.data(), &size,
                            WINHTTP_NO_HEADER_INDEX)) {
      // Header bytes are ASCII on the wire; WinHTTP widened them one to one.
      for (DWORD i = 0; i < size / sizeof(wchar_t); ++i)
        j.response.head += static_cast<char>(raw[i] < 256 ? raw[i] : '?');
    }
  }
  char buf[65536];
  for (;;) {
    if (j.abandoned.load()) return;
    DWORD got = 0;
    if (!WinHttpReadData(h.request, buf, sizeof buf, &got)) return fail(j, GetLastError());
    if (got == 0) return;
    if (j.response.body.size() + got > j.limit) {
      j.fault = NetFault::too_large;
      j.detail = "The response is larger than " + std::to_string(j.limit) + " bytes";
      return;
    }
    j.response.body.append(buf, got);
  }
}

}  // namespace

NetFault http_get(const std::string& url, std::uint64_t timeout_ms, std::size_t limit, const NetWait& wait,
                  HttpResponse* out, std::string* detail) {
  auto job = std::make_shared<Job>();
  job->url = wide(url);
  job->timeout_ms = static_cast<DWORD>(timeout_ms < 0x7FFFFFFF ? timeout_ms : 0x7FFFFFFF);
  job->limit = limit;
  std::thread([job] {
    run_request(*job);
    job->done.store(true);
  }).detach();
  // WinHTTP's time-outs are per step; this one covers the whole request.
  const std::uint64_t until = tick_ms() + timeout_ms;
  while (!job->done.load()) {
    const bool cancelled = wait.stop();
    if (cancelled || tick_ms() >= until) {
      job->abandoned.store(true);
      if (cancelled) return NetFault::cancelled;
      *detail = "No complete answer within " + std::to_string(timeout_ms) + " ms";
      return NetFault::timeout;
    }
    sleep_ms(kNetPollMs / 4);
  }
  *detail = job->detail;
  out->head = std::move(job->response.head);
  out->body = std::move(job->response.body);
  return job->fault;
}

// WinHTTP keeps nothing between requests, and Winsock ends with the process.
void net_shutdown() {}

bool list_interfaces(std::vector<NetInterface>* out, std::string* detail) {
  if (!net_startup(detail)) return false;
  ULONG size = 16384;
  std::unique_ptr<unsigned char[]> buf;
  ULONG r = ERROR_BUFFER_OVERFLOW;
  for (int tries = 0; tries < 4 && r == ERROR_BUFFER_OVERFLOW; ++tries) {
    buf.reset(new unsigned char[size]);
    r = GetAdaptersAddresses(AF_UNSPEC, GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER,
                             nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.get()), &size);
  }
  if (r != NO_ERROR) {
    *detail = system_text(r);
    return false;
  }
  out->clear();
  for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.get()); a; a = a->Next) {
    const std::string name = a->FriendlyName ? narrow(a->FriendlyName, wcslen(a->FriendlyName)) : "?";
    for (IP_ADAPTER_UNICAST_ADDRESS* u = a->FirstUnicastAddress; u; u = u->Next) {
      const sockaddr* sa = u->Address.lpSockaddr;
      if (!sa || (sa->sa_family != AF_INET && sa->sa_family != AF_INET6)) continue;
      char text[NI_MAXHOST];
      if (getnameinfo(sa, u->Address.iSockaddrLength, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0) continue;
      out->push_back({name, text, sa->sa_family == AF_INET6, a->OperStatus == IfOperStatusUp,
                      a->IfType == IF_TYPE_SOFTWARE_LOOPBACK});
    }
  }
  return true;
}

}  // namespace host
