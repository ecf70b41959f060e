// Name lookup and TCP client sockets over the BSD socket calls that POSIX
// and Winsock share; the few places where they differ are marked.
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <cerrno>
#include <cstring>
#include <mutex>

#include "host/net.h"
#include "host/platform.h"

namespace host {

namespace {

#ifdef _WIN32
using Native = SOCKET;
Native native(Socket s) { return static_cast<SOCKET>(s); }
int last_error() { return WSAGetLastError(); }
bool would_block(int e) { return e == WSAEWOULDBLOCK || e == WSAEINPROGRESS; }
bool is_refused(int e) { return e == WSAECONNREFUSED; }
bool is_reset(int e) { return e == WSAECONNRESET || e == WSAECONNABORTED || e == WSAESHUTDOWN; }
bool set_nonblocking(Native s) {
  u_long on = 1;
  return ioctlsocket(s, FIONBIO, &on) == 0;
}
void close_native(Native s) { closesocket(s); }
std::string error_text(int e) {
  wchar_t* w = nullptr;
  const DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                 nullptr, static_cast<DWORD>(e), 0, reinterpret_cast<wchar_t*>(&w), 0, nullptr);
  std::string out;
  for (DWORD i = 0; i < n; ++i) out += w[i] < 128 ? static_cast<char>(w[i]) : '?';
  if (w) LocalFree(w);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ' || out.back() == '.')) out.pop_back();
  return out.empty() ? "Winsock error " + std::to_string(e) : out;
}
// select() and not WSAPoll: WSAPoll does not report a failed connect on
// older Windows, select's exception set does.
int wait_socket(Native s, bool for_write, unsigned ms) {
  fd_set rd, wr, ex;
  FD_ZERO(&rd);
  FD_ZERO(&wr);
  FD_ZERO(&ex);
  if (for_write) {
    FD_SET(s, &wr);
    FD_SET(s, &ex);
  } else {
    FD_SET(s, &rd);
  }
  timeval tv{static_cast<long>(ms / 1000), static_cast<long>((ms % 1000) * 1000)};
  return select(0, &rd, &wr, &ex, &tv);
}
constexpr int kSendFlags = 0;
#else
using Native = int;
constexpr Native INVALID_SOCKET = -1;
Native native(Socket s) { return static_cast<int>(s); }
int last_error() { return errno; }
bool would_block(int e) { return e == EWOULDBLOCK || e == EAGAIN || e == EINPROGRESS || e == EINTR; }
bool is_refused(int e) { return e == ECONNREFUSED; }
bool is_reset(int e) { return e == ECONNRESET || e == EPIPE || e == ECONNABORTED || e == ESHUTDOWN; }
bool set_nonblocking(Native s) {
  const int flags = fcntl(s, F_GETFL, 0);
  return flags >= 0 && fcntl(s, F_SETFL, flags | O_NONBLOCK) == 0;
}
void close_native(Native s) { ::close(s); }
std::string error_text(int e) { return std::strerror(e); }
int wait_socket(Native s, bool for_write, unsigned ms) {
  pollfd p{s, static_cast<short>(for_write ? POLLOUT : POLLIN), 0};
  const int r = poll(&p, 1, static_cast<int>(ms));
  return r < 0 && errno == EINTR ? 0 : r;
}
// A peer that has gone away must give an error, not SIGPIPE.
constexpr int kSendFlags = MSG_NOSIGNAL;
#endif

std::string gai_text(int code) {
#ifdef _WIN32
  return error_text(code);
#else
  return gai_strerror(code);
#endif
}

// Waits in short slices so the NetWait is asked often. Returns none when
// the socket is ready, timeout or cancelled otherwise; other on a failed wait.
NetFault wait_ready(Native s, bool for_write, std::uint64_t timeout_ms, const NetWait& wait, std::string* detail) {
  const std::uint64_t until = tick_ms() + timeout_ms;
  for (;;) {
    if (wait.stop()) return NetFault::cancelled;
    const std::uint64_t now = tick_ms();
    if (now >= until) return NetFault::timeout;
    const std::uint64_t left = until - now;
    const int r = wait_socket(s, for_write, static_cast<unsigned>(left < kNetPollMs ? left : kNetPollMs));
    if (r > 0) return NetFault::none;
    if (r < 0) {
      *detail = error_text(last_error());
      return NetFault::other;
    }
  }
}

NetFault lookup_fault(int code) {
#ifdef _WIN32
  return code == WSAHOST_NOT_FOUND || code == WSANO_DATA || code == WSATRY_AGAIN ? NetFault::not_found : NetFault::other;
#else
  return code == EAI_NONAME || code == EAI_AGAIN || code == EAI_NODATA || code == EAI_FAIL ? NetFault::not_found
                                                                                           : NetFault::other;
#endif
}

std::string numeric_text(const sockaddr* sa, socklen_t len) {
  char buf[NI_MAXHOST];
  if (getnameinfo(sa, len, buf, sizeof buf, nullptr, 0, NI_NUMERICHOST) != 0) return "";
  return buf;
}

}  // namespace

bool net_startup(std::string* detail) {
#ifdef _WIN32
  static std::once_flag once;
  static int result = 0;
  std::call_once(once, [] {
    WSADATA data;
    result = WSAStartup(MAKEWORD(2, 2), &data);
  });
  if (result != 0) {
    *detail = error_text(result);
    return false;
  }
#else
  (void)detail;
#endif
  return true;
}

bool is_numeric_address(const std::string& text) {
  in_addr a4;
  in6_addr a6;
  return inet_pton(AF_INET, text.c_str(), &a4) == 1 || inet_pton(AF_INET6, text.c_str(), &a6) == 1;
}

NetFault resolve_name(const std::string& name, std::vector<std::string>* addresses, std::string* detail) {
  if (!net_startup(detail)) return NetFault::other;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int r = getaddrinfo(name.c_str(), nullptr, &hints, &list);
  if (r != 0) {
    *detail = gai_text(r) + ": " + name;
    return lookup_fault(r);
  }
  std::vector<std::string> v4, v6;
  for (addrinfo* a = list; a; a = a->ai_next) {
    const std::string text = numeric_text(a->ai_addr, static_cast<socklen_t>(a->ai_addrlen));
    if (text.empty()) continue;
    std::vector<std::string>& to = a->ai_family == AF_INET ? v4 : v6;
    bool seen = false;
    for (const std::string& s : to) seen |= s == text;
    if (!seen) to.push_back(text);
  }
  freeaddrinfo(list);
  addresses->clear();
  addresses->insert(addresses->end(), v4.begin(), v4.end());
  addresses->insert(addresses->end(), v6.begin(), v6.end());
  if (addresses->empty()) {
    *detail = "No address for " + name;
    return NetFault::not_found;
  }
  return NetFault::none;
}

NetFault reverse_lookup(const std::string& address, std::string* name, std::string* detail) {
  if (!net_startup(detail)) return NetFault::other;
  sockaddr_storage ss{};
  socklen_t len;
  auto* s4 = reinterpret_cast<sockaddr_in*>(&ss);
  auto* s6 = reinterpret_cast<sockaddr_in6*>(&ss);
  if (inet_pton(AF_INET, address.c_str(), &s4->sin_addr) == 1) {
    s4->sin_family = AF_INET;
    len = sizeof *s4;
  } else if (inet_pton(AF_INET6, address.c_str(), &s6->sin6_addr) == 1) {
    s6->sin6_family = AF_INET6;
    len = sizeof *s6;
  } else {
    *detail = "Not a numeric address: " + address;
    return NetFault::other;
  }
  char buf[NI_MAXHOST];
  const int r = getnameinfo(reinterpret_cast<sockaddr*>(&ss), len, buf, sizeof buf, nullptr, 0, NI_NAMEREQD);
  if (r != 0) {
    *detail = gai_text(r) + ": " + address;
    return lookup_fault(r);
  }
  *name = buf;
  return NetFault::none;
}

NetFault tcp_connect(const std::string& address, int port, std::uint64_t timeout_ms, const NetWait& wait,
                     Socket* out, std::string* detail) {
  if (!net_startup(detail)) return NetFault::other;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* a = nullptr;
  const std::string service = std::to_string(port);
  const int r = getaddrinfo(address.c_str(), service.c_str(), &hints, &a);
  if (r != 0 || !a) {
    *detail = gai_text(r) + ": " + address;
    return NetFault::other;
  }
  const std::string where = address + " port " + service;
  const Native s = socket(a->ai_family, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET || !set_nonblocking(s)) {
    *detail = error_text(last_error());
    if (s != INVALID_SOCKET) close_native(s);
    freeaddrinfo(a);
    return NetFault::other;
  }
  int e = 0;
  if (connect(s, a->ai_addr, static_cast<socklen_t>(a->ai_addrlen)) != 0) e = last_error();
  freeaddrinfo(a);
  NetFault f = NetFault::none;
  if (e != 0 && !would_block(e)) {
    f = is_refused(e) ? NetFault::refused : NetFault::other;
  } else if (e != 0) {
    f = wait_ready(s, true, timeout_ms, wait, detail);
    if (f == NetFault::none) {
      // Writable means finished: the socket's own error says how.
      int so = 0;
      socklen_t n = sizeof so;
      getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&so), &n);
      e = so;
      if (e != 0) f = is_refused(e) ? NetFault::refused : NetFault::other;
    }
  }
  if (f != NetFault::none) {
    if (f == NetFault::refused || (f == NetFault::other && e != 0)) *detail = error_text(e) + ": " + where;
    else if (f == NetFault::timeout) *detail = "No answer within " + std::to_string(timeout_ms) + " ms: " + where;
    close_native(s);
    return f;
  }
  // Small writes (a typed command) go out at once.
  int one = 1;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
  *out = static_cast<Socket>(s);
  return NetFault::none;
}

NetFault tcp_send(Socket sock, const char* data, std::size_t n, std::uint64_t timeout_ms, const NetWait& wait,
                  std::string* detail) {
  const Native s = native(sock);
  const std::uint64_t until = tick_ms() + timeout_ms;
  while (n > 0) {
    const int chunk = static_cast<int>(n < 65536 ? n : 65536);
    const auto sent = send(s, data, chunk, kSendFlags);
    if (sent > 0) {
      data += sent;
      n -= static_cast<std::size_t>(sent);
      continue;
    }
    const int e = last_error();
    if (!would_block(e)) {
      *detail = error_text(e);
      return is_reset(e) ? NetFault::closed : NetFault::other;
    }
    const std::uint64_t now = tick_ms();
    const NetFault f = wait_ready(s, true, now < until ? until - now : 0, wait, detail);
    if (f == NetFault::timeout) *detail = "Sending took longer than " + std::to_string(timeout_ms) + " ms";
    if (f != NetFault::none) return f;
  }
  return NetFault::none;
}

long tcp_recv(Socket sock, char* buf, std::size_t cap, std::string* detail) {
  const int want = static_cast<int>(cap < 0x40000000 ? cap : 0x40000000);
  const auto r = recv(native(sock), buf, want, 0);
  if (r >= 0) return static_cast<long>(r);
  const int e = last_error();
  if (would_block(e)) return -1;
  *detail = error_text(e);
  return -2;
}

NetFault tcp_wait_readable(Socket s, std::uint64_t timeout_ms, const NetWait& wait) {
  std::string ignored;
  return wait_ready(native(s), false, timeout_ms, wait, &ignored);
}

void tcp_close(Socket s) {
  if (s != kNoSocket) close_native(native(s));
}

}  // namespace host
