// The libcurl functions HTTPGET$ uses, opened on first use (see
// host/posix/lazy_library.h). Without libcurl installed, curl_global_init
// fails and HTTPGET$ reports the failure like any other.
#include <curl/curl.h>

#include "host/posix/curl_symbols.h"
#include "host/posix/lazy_library.h"

namespace {
host::LazyLibrary curl("libcurl.so.4", "libcurl-gnutls.so.4");
}  // namespace

#define CURL_FORWARD(ret, name, params, args, fail) TAMBRIL_LAZY_FORWARD(curl, ret, name, params, args, fail)

CURL_FORWARD(CURLcode, curl_global_init, (long flags), (flags), CURLE_FAILED_INIT)
CURL_FORWARD(void, curl_global_cleanup, (void), (), void())
CURL_FORWARD(const char*, curl_easy_strerror, (CURLcode code), (code), "libcurl is not installed")
CURL_FORWARD(CURL*, curl_easy_init, (void), (), nullptr)
CURL_FORWARD(void, curl_easy_cleanup, (CURL * handle), (handle), void())
CURL_FORWARD(CURLM*, curl_multi_init, (void), (), nullptr)
CURL_FORWARD(CURLMcode, curl_multi_cleanup, (CURLM * multi), (multi), CURLM_INTERNAL_ERROR)
CURL_FORWARD(CURLMcode, curl_multi_add_handle, (CURLM * multi, CURL* handle), (multi, handle), CURLM_INTERNAL_ERROR)
CURL_FORWARD(CURLMcode, curl_multi_remove_handle, (CURLM * multi, CURL* handle), (multi, handle),
             CURLM_INTERNAL_ERROR)
CURL_FORWARD(CURLMcode, curl_multi_perform, (CURLM * multi, int* running), (multi, running), CURLM_INTERNAL_ERROR)
CURL_FORWARD(CURLMcode, curl_multi_poll,
             (CURLM * multi, struct curl_waitfd extra_fds[], unsigned int extra_nfds, int timeout_ms, int* numfds),
             (multi, extra_fds, extra_nfds, timeout_ms, numfds), CURLM_INTERNAL_ERROR)
CURL_FORWARD(CURLMsg*, curl_multi_info_read, (CURLM * multi, int* left), (multi, left), nullptr)
CURL_FORWARD(const char*, curl_multi_strerror, (CURLMcode code), (code), "libcurl is not installed")

static_assert(sizeof(curl_off_t) == sizeof(long), "curl_off_t options go through the long overload");

namespace {
using SetOpt = CURLcode (*)(CURL*, CURLoption, ...);

SetOpt setopt() {
  static const SetOpt fn = reinterpret_cast<SetOpt>(curl.symbol("curl_easy_setopt"));
  return fn;
}
}  // namespace

namespace host {

CURLcode curl_option(CURL* handle, CURLoption option, long value) {
  const SetOpt fn = setopt();
  return fn ? fn(handle, option, value) : CURLE_FAILED_INIT;
}

CURLcode curl_option(CURL* handle, CURLoption option, const void* value) {
  const SetOpt fn = setopt();
  return fn ? fn(handle, option, value) : CURLE_FAILED_INIT;
}

}  // namespace host
