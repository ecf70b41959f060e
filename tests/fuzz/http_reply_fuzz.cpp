// libFuzzer target for the parts of HTTPGET$ that read what a server sends:
// the reply head and the Location it may point to. The first input byte
// picks how the rest is read (a whole head, a Location against a fixed
// base, a typed URL); everything must end without a crash, and a redirect
// that resolves must resolve again to itself (no drift between hops).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "net/http_reply.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const char* text = reinterpret_cast<const char*>(data + 1);
  const std::string rest(text, size - 1);
  switch (data[0] % 3) {
    case 0: {
      net::ReplyHead head;
      if (net::parse_reply_head(text, size - 1, &head) && head.has_location) {
        std::string next;
        if (net::resolve_location("http://127.0.0.1:8000/a/b?c", head.location, &next)) {
          std::string again;
          if (!net::resolve_location(next, next, &again) || again != next) std::abort();
        }
      }
      break;
    }
    case 1: {
      std::string next;
      (void)net::resolve_location("https://[::1]:8443/dir/page", rest, &next);
      break;
    }
    default: {
      std::string url, again;
      if (net::normalize_url(rest, &url) && (!net::normalize_url(url, &again) || again != url)) std::abort();
      break;
    }
  }
  return 0;
}
