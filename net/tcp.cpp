// TCP client slots: the TCP statement (OPEN, SEND, CLOSE) and the functions
// TCPRECV$, TCPCONNECTED and TCPEOF.
//
// Each slot keeps the bytes read ahead of the program (TCPEOF and
// TCPCONNECTED must read to learn that the peer closed), so TCPRECV$ hands
// those out first.
#include <cstring>

#include "core/errors.h"
#include "core/statements.h"
#include "net/net.h"
#include "net/net_internal.h"
#include "values/builtins.h"
#include "values/eval.h"

namespace net {

namespace {

using core::Token;

constexpr int kSlots = 16;
constexpr std::int64_t kDefaultTimeoutMs = 10000;
constexpr std::int64_t kDefaultRecvMax = 1 << 20;
constexpr std::size_t kReadChunk = 65536;

struct Slot {
  host::Socket socket = host::kNoSocket;
  std::uint64_t timeout_ms = 0;
  std::string pending;  // read, not yet handed to the program
  bool eof = false;     // the peer closed (or reset) the connection
  std::string why;      // how it ended, for NETERROR$
};
Slot slots[kSlots + 1];  // 1..16

bool slot_number(const Token*& t, std::int64_t* n) {
  if (!int_of(t, n)) return false;
  return *n >= 1 && *n <= kSlots ? true : fail("Illegal function call");
}

bool open_slot(std::int64_t n, Slot** out) {
  Slot& s = slots[n];
  if (s.socket == host::kNoSocket) return fail("TCP slot not open");
  *out = &s;
  return true;
}

void close_slot(Slot& s) {
  host::tcp_close(s.socket);
  s = Slot{};
}

// One read without waiting into the slot's bytes. False only for "nothing yet".
bool read_ahead(Slot& s) {
  if (s.eof) return true;
  const std::size_t old = s.pending.size();
  s.pending.resize(old + kReadChunk);
  std::string detail;
  const long r = host::tcp_recv(s.socket, s.pending.data() + old, kReadChunk, &detail);
  s.pending.resize(old + (r > 0 ? static_cast<std::size_t>(r) : 0));
  if (r == 0 || r == -2) {
    s.eof = true;
    s.why = r == 0 ? "Connection closed by the peer" : detail;
  }
  return r != -1;
}

bool end_of_statement(const Token* t) { return core::at_statement_end(t) ? true : fail("Syntax error"); }

bool is_word(const Token* t, const char* word) {
  return t->kind == core::kTokIdent && std::strcmp(t->name(), word) == 0;
}

// TCP OPEN n, host$, port [, timeout_ms]
void tcp_open(const Token*& t) {
  std::int64_t n, port, timeout = kDefaultTimeoutMs;
  std::string host_name;
  if (!slot_number(t, &n) || !values::expect(t, ',', "Expected ,") || !text_of(t, &host_name) ||
      !values::expect(t, ',', "Expected ,") || !int_of(t, &port))
    return;
  if (t->kind == ',') {
    ++t;
    if (!int_of(t, &timeout) || !check_timeout(timeout)) return;
  }
  if (!end_of_statement(t)) return;
  if (port < 1 || port > 65535 || host_name.empty()) return (void)fail("Illegal function call");
  if (slots[n].socket != host::kNoSocket) return (void)fail("TCP slot already open");
  std::vector<std::string> addresses;
  std::string detail;
  host::NetFault f = lookup(host_name, false, &addresses, &detail);
  if (f != host::NetFault::none) return (void)report(f, detail);
  // Every address of the name in turn, as long as the time-out lasts.
  const std::uint64_t until = host::tick_ms() + static_cast<std::uint64_t>(timeout);
  host::Socket sock = host::kNoSocket;
  for (const std::string& a : addresses) {
    const std::uint64_t now = host::tick_ms();
    if (now >= until) {
      f = host::NetFault::timeout;
      break;
    }
    f = host::tcp_connect(a, static_cast<int>(port), until - now, kInterruptible, &sock, &detail);
    if (f == host::NetFault::none || f == host::NetFault::cancelled) break;
  }
  if (f != host::NetFault::none) return (void)report(f, detail);
  slots[n].socket = sock;
  slots[n].timeout_ms = static_cast<std::uint64_t>(timeout);
  last_error.clear();
}

// TCP SEND n, data$
void tcp_send(const Token*& t) {
  std::int64_t n;
  std::string data;
  Slot* s = nullptr;
  if (!slot_number(t, &n) || !values::expect(t, ',', "Expected ,") || !text_of(t, &data) || !end_of_statement(t) ||
      !open_slot(n, &s))
    return;
  std::string detail;
  const host::NetFault f = host::tcp_send(s->socket, data.data(), data.size(), s->timeout_ms, kInterruptible, &detail);
  if (f != host::NetFault::none) return (void)report(f, detail);
  last_error.clear();
}

// TCP CLOSE [n]: one slot, or all of them.
void tcp_close(const Token*& t) {
  if (core::at_statement_end(t)) return close_all_slots();
  std::int64_t n;
  if (!slot_number(t, &n) || !end_of_statement(t)) return;
  close_slot(slots[n]);
}

}  // namespace

// TCPRECV$(n [, max [, wait_ms]]): what has arrived, at most max bytes;
// with wait_ms, waits that long for the first byte. "" when nothing came
// (NETERROR$ says whether the wait ran out or the peer closed).
bool f_tcprecv(const Token*& t, values::Value* out) {
  values::Value a[3];
  int count;
  std::int64_t n, max = kDefaultRecvMax, wait = 0;
  if (!values::parse_args(t, a, 1, 3, &count) || !values::arg_int(a[0], &n)) return false;
  if (count >= 2 && !values::arg_int(a[1], &max)) return false;
  if (count == 3 && !values::arg_int(a[2], &wait)) return false;
  if (n < 1 || n > kSlots || max < 1 || max > kDefaultRecvMax || wait < 0 || wait > 0x7FFFFFFF)
    return fail("Illegal function call");
  Slot* s = nullptr;
  if (!open_slot(n, &s)) return false;
  if (s->pending.empty() && !read_ahead(*s) && wait > 0) {
    const host::NetFault f = host::tcp_wait_readable(s->socket, static_cast<std::uint64_t>(wait), kInterruptible);
    if (f == host::NetFault::cancelled) return report(f, "");
    if (f == host::NetFault::none) (void)read_ahead(*s);
  }
  // Drain what else is there, up to the limit.
  while (!s->eof && s->pending.size() < static_cast<std::size_t>(max) && read_ahead(*s)) {
  }
  const std::size_t k = s->pending.size() < static_cast<std::size_t>(max) ? s->pending.size() : static_cast<std::size_t>(max);
  if (!values::make_string(s->pending.data(), k, out)) return false;
  s->pending.erase(0, k);
  if (k > 0) last_error.clear();
  else if (s->eof) last_error = s->why;
  else last_error = wait ? "No data within " + std::to_string(wait) + " ms" : "No data yet";
  return true;
}

// TCPCONNECTED(n): -1 while the slot is open and the peer has not closed.
bool f_tcpconnected(const Token*& t, values::Value* out) {
  values::Value a;
  std::int64_t n;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_int(a, &n)) return false;
  if (n < 1 || n > kSlots) return fail("Illegal function call");
  Slot& s = slots[n];
  if (s.socket != host::kNoSocket && s.pending.empty()) (void)read_ahead(s);
  *out = values::Value::integer(s.socket != host::kNoSocket && !s.eof ? -1 : 0);
  return true;
}

// TCPEOF(n): -1 when the peer has closed and every byte has been read.
bool f_tcpeof(const Token*& t, values::Value* out) {
  values::Value a;
  std::int64_t n;
  Slot* s = nullptr;
  if (!values::parse_args(t, &a, 1, 1) || !values::arg_int(a, &n)) return false;
  if (n < 1 || n > kSlots) return fail("Illegal function call");
  if (!open_slot(n, &s)) return false;
  if (s->pending.empty()) (void)read_ahead(*s);
  *out = values::Value::integer(s->pending.empty() && s->eof ? -1 : 0);
  return true;
}

void close_all_slots() {
  for (Slot& s : slots)
    if (s.socket != host::kNoSocket) close_slot(s);
}

void stmt_tcp(const Token*& t) {
  ++t;
  if (t->kind == core::KW_OPEN) {
    tcp_open(++t);
  } else if (t->kind == core::KW_CLOSE) {
    tcp_close(++t);
  } else if (is_word(t, "SEND")) {
    tcp_send(++t);
  } else {
    fail("Syntax error");
  }
}

}  // namespace net
