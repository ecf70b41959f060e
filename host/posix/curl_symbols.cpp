// The libcurl functions HTTPGET$ uses, opened on first use (see
// host/posix/lazy_library.h). Without libcurl installed, curl_global_init
// fails and HTTPGET$ reports the failure like any other.
#include <curl/curl.h>

#include <cstdarg>

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

// curl_easy_setopt takes one more argument whose type the option's number
// range says; it is passed on with that type.
#undef curl_easy_setopt
extern "C" CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  using Fn = CURLcode (*)(CURL*, CURLoption, ...);
  static const Fn fn = reinterpret_cast<Fn>(curl.symbol("curl_easy_setopt"));
  if (!fn) return CURLE_FAILED_INIT;
  std::va_list ap;
  va_start(ap, option);
  CURLcode result;
  const int kind = option / 10000 * 10000;
  if (kind == CURLOPTTYPE_LONG) {
    result = fn(handle, option, va_arg(ap, long));
  } else if (kind == CURLOPTTYPE_OFF_T) {
    result = fn(handle, option, va_arg(ap, curl_off_t));
  } else if (kind == CURLOPTTYPE_FUNCTIONPOINT) {
    result = fn(handle, option, va_arg(ap, void (*)()));
  } else {
    result = fn(handle, option, va_arg(ap, void*));
  }
  va_end(ap);
  return result;
}
