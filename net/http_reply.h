// What HTTPGET$ reads out of a server's reply head, and the URL rules it
// follows redirects by. The head is outside data: anything may arrive, so
// every path here is bounded and never trusts a length it was given.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace net {

struct ReplyHead {
  int status = 0;                    // 100..999
  bool has_location = false;
  std::string location;              // the first Location header, trimmed
  std::int64_t content_length = -1;  // -1 when absent or not one clean number
};

// The status line and header lines of one response head (CR LF or bare LF
// line ends, folded continuation lines). False when the first line is not a
// status line.
bool parse_reply_head(const char* data, std::size_t n, ReplyHead* out);

// 301, 302, 303, 307 and 308 send the client elsewhere.
bool is_redirect(int status);

// An http or https URL taken apart. The authority may carry a port;
// user information is not accepted.
struct Url {
  std::string scheme;  // "http" or "https"
  std::string host;    // as written; IPv6 literals keep their brackets
  int port = 0;        // the scheme's default when not written
  std::string path;    // from the first "/" on, with the query; "/" when empty
};
bool split_url(const std::string& text, Url* out);
std::string join_url(const Url& u);

// What a typed URL means: "example.com/x" is http, and bytes the wire may
// not carry (blanks, controls, bytes past 127) are percent-encoded. False
// when it is not an http or https URL with a host.
bool normalize_url(const std::string& typed, std::string* out);

// The absolute URL a Location value points to from `base` (RFC 3986's
// reference resolution, fragment dropped). False when the result is not a
// usable http or https URL.
bool resolve_location(const std::string& base, const std::string& location, std::string* out);

}  // namespace net
