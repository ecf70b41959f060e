// DNS$, HTTPGET$, HTTPSTATUS, NETERROR$, NETPRESENT and the NETINFO
// statement; the subsystem's function group and hooks.
#include <string>
#include <vector>

#include "core/exec.h"
#include "host/cp437.h"
#include "net/http_reply.h"
#include "net/net.h"
#include "net/net_internal.h"
#include "screen/console.h"
#include "values/eval.h"

namespace net {

namespace {

using core::Token;
using values::Value;

constexpr std::size_t kHttpLimit = 1 << 20;  // 1 MiB of body
constexpr int kMaxRedirects = 10;
constexpr std::int64_t kDefaultHttpTimeoutMs = 30000;

int http_status = 0;  // HTTPSTATUS: the last HTTPGET$'s final status, 0 when none came

bool string_result(const std::string& s, Value* out) { return values::make_string(s.data(), s.size(), out); }

// DNS$(name$ [, n]): the n-th address of a name (1 first, IPv4 before IPv6,
// "" past the last); for a numeric address, the name registered for it.
bool f_dns(const Token*& t, Value* out) {
  Value a[2];
  int count;
  std::int64_t index = 1;
  if (!values::parse_args(t, a, 1, 2, &count) || !values::arg_string(a[0])) return false;
  if (count == 2 && !values::arg_int(a[1], &index)) return false;
  std::string name(a[0].s.ptr, a[0].s.len);
  while (!name.empty() && name.back() == ' ') name.pop_back();
  while (!name.empty() && name.front() == ' ') name.erase(0, 1);
  if (name.empty() || index < 1) return fail("Illegal function call");
  const bool reverse = host::is_numeric_address(name);
  std::vector<std::string> found;
  std::string detail;
  const host::NetFault f = lookup(name, reverse, &found, &detail);
  if (f != host::NetFault::none) return report(f, detail);
  last_error.clear();
  if (static_cast<std::uint64_t>(index) > found.size()) return string_result("", out);
  return string_result(found[static_cast<std::size_t>(index - 1)], out);
}

// HTTPGET$(url$ [, timeout_ms]): the body of the final answer after
// following at most 10 redirects; HTTPSTATUS has its status. An answer of
// more than 1 MiB is refused.
bool f_httpget(const Token*& t, Value* out) {
  Value a[2];
  int count;
  std::int64_t timeout = kDefaultHttpTimeoutMs;
  if (!values::parse_args(t, a, 1, 2, &count) || !values::arg_string(a[0])) return false;
  if (count == 2 && (!values::arg_int(a[1], &timeout) || !check_timeout(timeout))) return false;
  http_status = 0;
  std::string url;
  if (!normalize_url(std::string(a[0].s.ptr, a[0].s.len), &url)) return report(host::NetFault::bad_url, "Not an http or https URL");
  const std::uint64_t until = host::tick_ms() + static_cast<std::uint64_t>(timeout);
  host::HttpResponse r;
  for (int hops = 0;; ++hops) {
    const std::uint64_t now = host::tick_ms();
    std::string detail = "No complete answer within " + std::to_string(timeout) + " ms";
    host::NetFault f = now < until ? host::http_get(url, until - now, kHttpLimit, kInterruptible, &r, &detail)
                                   : host::NetFault::timeout;
    ReplyHead head;
    if (f == host::NetFault::none && !parse_reply_head(r.head.data(), r.head.size(), &head)) {
      f = host::NetFault::other;
      detail = "The server's answer is not HTTP";
    }
    if (f != host::NetFault::none) return report(f, detail);
    if (!is_redirect(head.status) || !head.has_location) {
      http_status = head.status;
      break;
    }
    if (hops == kMaxRedirects) {
      last_error = "More than " + std::to_string(kMaxRedirects) + " redirects, the last to " + head.location;
      return fail("Too many redirects");
    }
    std::string next;
    if (!resolve_location(url, head.location, &next)) return report(host::NetFault::bad_url, "Redirect to " + head.location);
    url = next;
  }
  last_error.clear();
  return string_result(r.body, out);
}

// A function of no arguments may be written with or without "()".
bool no_args(const Token*& t) {
  Value unused;
  return t->kind != '(' || values::parse_args(t, &unused, 0, 0);
}

bool f_httpstatus(const Token*& t, Value* out) {
  if (!no_args(t)) return false;
  *out = Value::integer(http_status);
  return true;
}

bool f_neterror(const Token*& t, Value* out) { return no_args(t) && string_result(last_error, out); }

// NETPRESENT: -1 when an interface other than the loopback is up with an address.
bool f_netpresent(const Token*& t, Value* out) {
  if (!no_args(t)) return false;
  std::vector<host::NetInterface> list;
  std::string detail;
  bool present = false;
  if (host::list_interfaces(&list, &detail))
    for (const host::NetInterface& i : list) present |= i.up && !i.loopback;
  *out = Value::integer(present ? -1 : 0);
  return true;
}

const values::Builtin kNetFunctions[] = {
    {"DNS$", f_dns},         {"HTTPGET$", f_httpget},         {"HTTPSTATUS", f_httpstatus},
    {"NETERROR$", f_neterror}, {"NETPRESENT", f_netpresent},   {"TCPCONNECTED", f_tcpconnected},
    {"TCPEOF", f_tcpeof},    {"TCPRECV$", f_tcprecv},
};
const values::BuiltinGroup kNetGroup = {kNetFunctions, static_cast<int>(sizeof kNetFunctions / sizeof kNetFunctions[0])};

void (*close_files_before)() = nullptr;
void close_files_and_slots() {
  if (close_files_before) close_files_before();
  close_all_slots();
}

}  // namespace

// NETINFO: one line per interface address: name, family, address, state.
void stmt_netinfo(const Token*& t) {
  ++t;
  if (!core::at_statement_end(t)) return (void)fail("Syntax error");
  std::vector<host::NetInterface> list;
  std::string detail;
  if (!host::list_interfaces(&list, &detail)) return (void)report(host::NetFault::other, detail);
  // Windows names its adapters in any script; the console shows code page 437.
  std::vector<std::string> names;
  std::size_t width = 4, address_width = 0;
  for (const host::NetInterface& i : list) {
    names.emplace_back();
    (void)host::utf8_to_cp437(i.name, &names.back());
    width = names.back().size() > width ? names.back().size() : width;
    address_width = i.address.size() > address_width ? i.address.size() : address_width;
  }
  for (std::size_t k = 0; k < list.size(); ++k) {
    const host::NetInterface& i = list[k];
    std::string line = names[k] + std::string(width + 2 - names[k].size(), ' ') + (i.ipv6 ? "IPv6  " : "IPv4  ") + i.address;
    line += std::string(address_width + 2 - i.address.size(), ' ') + (i.up ? "up" : "down");
    if (i.loopback) line += ", loopback";
    screen::put_text(line.c_str());
    screen::put_char(13);
  }
  last_error.clear();
}

const values::BuiltinGroup& net_builtins() { return kNetGroup; }

void install_hooks() {
  if (core::close_all_files == close_files_and_slots) return;
  close_files_before = core::close_all_files;
  core::close_all_files = close_files_and_slots;
}

}  // namespace net
