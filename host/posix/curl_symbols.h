// Setting a libcurl option through the library opened on first use.
#pragma once

#include <curl/curl.h>

namespace host {

// curl_easy_setopt takes one argument of the type its option says: a long
// (also curl_off_t, the same type on our 64-bit targets) or a pointer (data,
// strings and callbacks alike).
CURLcode curl_option(CURL* handle, CURLoption option, long value);
CURLcode curl_option(CURL* handle, CURLoption option, const void* value);

}  // namespace host
