// The network side of the platform interface: name lookup, TCP client
// sockets, one HTTP(S) GET and the machine's interfaces. POSIX sockets and
// libcurl on Linux, Winsock and WinHTTP on Windows; the socket code is shared
// (host/net_sockets.cpp), HTTP and the interface list are per platform.
//
// Every call that can wait takes a NetWait and asks it every few
// milliseconds whether to give up, so that Esc and the window closing end
// any wait at once. Nothing here raises BASIC errors: callers get a fault
// and a detail text for NETERROR$.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace host {

enum class NetFault {
  none,
  not_found,  // no such host
  refused,    // nobody listens there
  timeout,    // the time-out passed first
  closed,     // the peer closed or reset the connection
  cancelled,  // the NetWait said stop
  too_large,  // more bytes than the caller's limit
  bad_url,
  other,      // anything else: the detail text says what
};

struct NetWait {
  bool (*cancelled)(void* ctx) = nullptr;
  void* ctx = nullptr;
  bool stop() const { return cancelled && cancelled(ctx); }
};

// How long one slice of a wait lasts before the NetWait is asked again.
constexpr unsigned kNetPollMs = 20;

// Winsock wants starting once per process; a no-op elsewhere. False (with a
// detail) when the machine has no usable socket layer.
bool net_startup(std::string* detail);
// The end of the interpreter thread: HTTP's kept connections and library
// state are let go (on the thread that used them).
void net_shutdown();

// --- names (blocking: callers that must stay responsive run these on a worker thread)
// Numeric addresses of a host name, IPv4 first. A numeric name gives itself.
NetFault resolve_name(const std::string& name, std::vector<std::string>* addresses, std::string* detail);
// The name registered for a numeric address.
NetFault reverse_lookup(const std::string& address, std::string* name, std::string* detail);
// True for a numeric IPv4 or IPv6 address.
bool is_numeric_address(const std::string& text);

// --- TCP client sockets ----------------------------------------------------
using Socket = std::intptr_t;
constexpr Socket kNoSocket = -1;

// Connect to a numeric address within timeout_ms.
NetFault tcp_connect(const std::string& address, int port, std::uint64_t timeout_ms, const NetWait& wait,
                     Socket* out, std::string* detail);
// Send every byte; waits (up to timeout_ms in all) while the system's buffer is full.
NetFault tcp_send(Socket s, const char* data, std::size_t n, std::uint64_t timeout_ms, const NetWait& wait,
                  std::string* detail);
// Read what has arrived without waiting: the byte count, 0 when the peer has
// closed, -1 when nothing is there yet, -2 on an error (detail set).
long tcp_recv(Socket s, char* buf, std::size_t cap, std::string* detail);
// Wait until bytes (or the peer's close) can be read: none, timeout or cancelled.
NetFault tcp_wait_readable(Socket s, std::uint64_t timeout_ms, const NetWait& wait);
void tcp_close(Socket s);

// --- HTTP ------------------------------------------------------------------
struct HttpResponse {
  std::string head;  // the final response's status line and header lines as received (CR LF)
  std::string body;
};
// One GET of an http or https URL; redirects are not followed (the caller
// reads them from the head). A body past `limit` bytes stops the transfer
// with too_large. The time-out covers the whole request.
NetFault http_get(const std::string& url, std::uint64_t timeout_ms, std::size_t limit, const NetWait& wait,
                  HttpResponse* out, std::string* detail);

// --- interfaces --------------------------------------------------------------
struct NetInterface {
  std::string name;
  std::string address;  // numeric
  bool ipv6;
  bool up;
  bool loopback;
};
bool list_interfaces(std::vector<NetInterface>* out, std::string* detail);

}  // namespace host
