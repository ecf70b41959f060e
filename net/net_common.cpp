// The network subsystem's shared pieces: NETERROR$, the messages, the
// interruptible wait and name lookups on a worker thread.
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "core/errors.h"
#include "core/exec.h"
#include "host/shell.h"
#include "net/net_internal.h"
#include "screen/keyqueue.h"
#include "values/eval.h"
#include "values/builtins.h"

namespace net {

std::string last_error;

namespace {

// Runs on the interpreter thread, between the slices of every network wait.
bool interrupted(void*) {
  if (host::stop_requested()) return true;
  std::lock_guard guard(host::shell.global_lock);
  return screen::keys.take_break();
}

struct LookupJob {
  std::string name;
  bool reverse;
  std::mutex lock;
  std::condition_variable finished;
  bool done = false;
  host::NetFault fault = host::NetFault::none;
  std::vector<std::string> result;
  std::string detail;
};

}  // namespace

const host::NetWait kInterruptible{interrupted, nullptr};

bool fail(const char* message) {
  core::raise(message);
  return false;
}

bool report(host::NetFault f, const std::string& detail) {
  using host::NetFault;
  if (f == NetFault::cancelled) {
    last_error = "Cancelled";
    core::break_at_statement();
    return false;
  }
  last_error = detail;
  switch (f) {
    case NetFault::not_found: return fail("Host not found");
    case NetFault::refused: return fail("Connection refused");
    case NetFault::timeout: return fail("Network timeout");
    case NetFault::closed: return fail("Connection closed");
    case NetFault::too_large: return fail("HTTP response too large");
    case NetFault::bad_url: return fail("Bad URL");
    default: return fail("Network error");
  }
}

host::NetFault lookup(const std::string& name, bool reverse, std::vector<std::string>* out, std::string* detail) {
  // The system's resolver cannot be interrupted: it runs on a worker that
  // is left to finish on its own when the wait ends first.
  auto job = std::make_shared<LookupJob>();
  job->name = name;
  job->reverse = reverse;
  std::thread([job] {
    std::vector<std::string> result;
    std::string detail, one;
    host::NetFault f;
    if (job->reverse) {
      f = host::reverse_lookup(job->name, &one, &detail);
      result.push_back(one);
    } else {
      f = host::resolve_name(job->name, &result, &detail);
    }
    std::lock_guard guard(job->lock);
    job->fault = f;
    job->result = std::move(result);
    job->detail = std::move(detail);
    job->done = true;
    job->finished.notify_one();
  }).detach();
  std::unique_lock guard(job->lock);
  while (!job->done) {
    guard.unlock();
    const bool stop = kInterruptible.stop();
    guard.lock();
    if (stop) return host::NetFault::cancelled;
    job->finished.wait_for(guard, std::chrono::milliseconds(host::kNetPollMs), [&] { return job->done; });
  }
  *out = std::move(job->result);
  *detail = std::move(job->detail);
  return job->fault;
}

bool text_of(const core::Token*& t, std::string* out) {
  values::Value v;
  if (!values::eval(t, &v) || !values::arg_string(v)) return false;
  out->assign(v.s.ptr, v.s.len);
  return true;
}

bool int_of(const core::Token*& t, std::int64_t* out) {
  values::Value v;
  return values::eval(t, &v) && values::arg_int(v, out);
}

bool check_timeout(std::int64_t ms) { return ms >= 1 && ms <= 0x7FFFFFFF ? true : fail("Illegal function call"); }

}  // namespace net
