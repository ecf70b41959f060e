// Linux side of the network interface: HTTP(S) through libcurl's multi
// interface (so that our own loop can ask the NetWait between slices) and
// the interface list from getifaddrs.
#include <curl/curl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <mutex>

#include "host/net.h"
#include "host/posix/curl_symbols.h"
#include "host/platform.h"

namespace host {

namespace {

// One multi handle for the session: it keeps the connections, so pages
// fetched one after another from a server reuse one connection as a browser
// (or the curl tool) would. Only the interpreter thread uses it.
std::once_flag curl_once;
CURLcode curl_state = CURLE_OK;
CURLM* multi = nullptr;

struct Transfer {
  HttpResponse* out;
  std::size_t limit;
  bool too_large = false;
};

// Header lines arrive one by one; a new status line (after a 100 Continue,
// or a proxy's answer) starts the head again so that only the last counts.
std::size_t on_header(char* data, std::size_t size, std::size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  if (n >= 5 && std::string(data, 5) == "HTTP/") t->out->head.clear();
  t->out->head.append(data, n);
  return n;
}

std::size_t on_body(char* data, std::size_t size, std::size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  if (t->out->body.size() + n > t->limit) {
    t->too_large = true;
    return 0;  // stops the transfer
  }
  t->out->body.append(data, n);
  return n;
}

NetFault fault_of(CURLcode c) {
  switch (c) {
    case CURLE_COULDNT_RESOLVE_HOST: return NetFault::not_found;
    case CURLE_COULDNT_CONNECT: return NetFault::refused;
    case CURLE_OPERATION_TIMEDOUT: return NetFault::timeout;
    // Not CURLE_UNSUPPORTED_PROTOCOL: our URLs are checked before they get
    // here, so that one means a server whose answer is not HTTP.
    case CURLE_URL_MALFORMAT: return NetFault::bad_url;
    case CURLE_GOT_NOTHING: case CURLE_RECV_ERROR: case CURLE_SEND_ERROR: case CURLE_PARTIAL_FILE:
      return NetFault::closed;
    default: return NetFault::other;
  }
}

}  // namespace

NetFault http_get(const std::string& url, std::uint64_t timeout_ms, std::size_t limit, const NetWait& wait,
                  HttpResponse* out, std::string* detail) {
  std::call_once(curl_once, [] {
    curl_state = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (curl_state == CURLE_OK) multi = curl_multi_init();
  });
  if (curl_state != CURLE_OK) {
    *detail = curl_easy_strerror(curl_state);
    return NetFault::other;
  }
  CURLM* const m = multi;
  out->head.clear();
  out->body.clear();
  // Room for a full answer up front: no growing and copying on the way.
  out->body.reserve(limit);
  Transfer t{out, limit};
  char error[CURL_ERROR_SIZE] = {};
  CURL* e = m ? curl_easy_init() : nullptr;
  if (!e) {
    *detail = "libcurl could not start a transfer";
    return NetFault::other;
  }
  host::curl_option(e, CURLOPT_URL, url.c_str());
  host::curl_option(e, CURLOPT_PROTOCOLS_STR, "http,https");
  host::curl_option(e, CURLOPT_FOLLOWLOCATION, 0L);
  host::curl_option(e, CURLOPT_NOSIGNAL, 1L);
  host::curl_option(e, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout_ms));
  host::curl_option(e, CURLOPT_BUFFERSIZE, 256L * 1024);
  host::curl_option(e, CURLOPT_USERAGENT, "Tambril BASIC 3.4.1");
  host::curl_option(e, CURLOPT_ERRORBUFFER, error);
  host::curl_option(e, CURLOPT_HEADERFUNCTION, reinterpret_cast<const void*>(on_header));
  host::curl_option(e, CURLOPT_HEADERDATA, &t);
  host::curl_option(e, CURLOPT_WRITEFUNCTION, reinterpret_cast<const void*>(on_body));
  host::curl_option(e, CURLOPT_WRITEDATA, &t);
  // A known length past the limit is refused before any body byte is read.
  host::curl_option(e, CURLOPT_MAXFILESIZE_LARGE, static_cast<long>(limit));
  curl_multi_add_handle(m, e);

  NetFault f = NetFault::none;
  CURLcode code = CURLE_OK;
  for (;;) {
    int running = 0;
    const CURLMcode mc = curl_multi_perform(m, &running);
    if (mc != CURLM_OK) {
      *detail = curl_multi_strerror(mc);
      f = NetFault::other;
      break;
    }
    if (!running) {
      int left;
      while (CURLMsg* msg = curl_multi_info_read(m, &left))
        if (msg->msg == CURLMSG_DONE) code = msg->data.result;
      break;
    }
    if (wait.stop()) {
      f = NetFault::cancelled;
      break;
    }
    curl_multi_poll(m, nullptr, 0, static_cast<int>(kNetPollMs), nullptr);
  }
  if (f == NetFault::none && code != CURLE_OK) {
    if (t.too_large || code == CURLE_FILESIZE_EXCEEDED) {
      f = NetFault::too_large;
      *detail = "The response is larger than " + std::to_string(limit) + " bytes";
    } else {
      f = fault_of(code);
      *detail = error[0] ? error : curl_easy_strerror(code);
    }
  }
  curl_multi_remove_handle(m, e);
  curl_easy_cleanup(e);
  return f;
}

void net_shutdown() {
  if (multi) {
    curl_multi_cleanup(multi);
    multi = nullptr;
    curl_global_cleanup();
  }
}

bool list_interfaces(std::vector<NetInterface>* out, std::string* detail) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    *detail = "The interface list cannot be read";
    return false;
  }
  out->clear();
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr || (a->ifa_addr->sa_family != AF_INET && a->ifa_addr->sa_family != AF_INET6)) continue;
    const bool v6 = a->ifa_addr->sa_family == AF_INET6;
    char buf[NI_MAXHOST];
    const socklen_t len = v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (getnameinfo(a->ifa_addr, len, buf, sizeof buf, nullptr, 0, NI_NUMERICHOST) != 0) continue;
    out->push_back({a->ifa_name ? a->ifa_name : "?", buf, v6, (a->ifa_flags & IFF_UP) != 0,
                    (a->ifa_flags & IFF_LOOPBACK) != 0});
  }
  freeifaddrs(list);
  return true;
}

}  // namespace host
