// Reply heads and URLs for HTTPGET$: parsing, normalising, resolving
// redirects. Portable and free of I/O, so the fuzz target and the unit tests
// reach every line.
#include "net/http_reply.h"

#include "host/cp437.h"

namespace net {

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

bool same_word(const std::string& a, const char* b) {
  std::size_t i = 0;
  for (; i < a.size() && b[i]; ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return i == a.size() && !b[i];
}

std::string trim(const std::string& s) {
  std::size_t a = 0, b = s.size();
  while (a < b && (s[a] == ' ' || s[a] == '\t')) ++a;
  while (b > a && (s[b - 1] == ' ' || s[b - 1] == '\t' || s[b - 1] == '\r')) --b;
  return s.substr(a, b - a);
}

// One clean decimal length, else -1; far too large a number is -1 too.
std::int64_t parse_length(const std::string& v) {
  if (v.empty() || v.size() > 18) return -1;
  std::int64_t n = 0;
  for (char c : v) {
    if (c < '0' || c > '9') return -1;
    n = n * 10 + (c - '0');
  }
  return n;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Bytes that may stand in a URL as they are; the rest are percent-encoded.
// "%" stays: a URL that is already encoded must not be encoded twice.
bool wire_safe(unsigned char c) { return c > 0x20 && c < 0x7F && c != '"' && c != '<' && c != '>' && c != '\\' && c != '^' && c != '`' && c != '{' && c != '|' && c != '}'; }

std::string encode(const std::string& s) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : s) {
    if (wire_safe(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

// The scheme of an absolute reference ("http:" ...), or "" for a relative one.
std::string scheme_of(const std::string& s) {
  if (s.empty() || !is_alpha(s[0])) return "";
  for (std::size_t i = 1; i < s.size(); ++i) {
    const char c = s[i];
    if (c == ':') return s.substr(0, i);
    if (!is_alpha(c) && !is_digit(c) && c != '+' && c != '-' && c != '.') return "";
  }
  return "";
}

std::string without_fragment(const std::string& s) { return s.substr(0, s.find('#')); }

bool valid_host(const std::string& h) {
  if (h.empty() || h.size() > 253) return false;
  if (h.front() == '[') {
    if (h.size() < 4 || h.back() != ']') return false;
    for (std::size_t i = 1; i + 1 < h.size(); ++i) {
      const char c = lower(h[i]);
      if (!is_digit(c) && !(c >= 'a' && c <= 'f') && c != ':' && c != '.') return false;
    }
    return true;
  }
  for (char c : h)
    if (!is_alpha(c) && !is_digit(c) && c != '-' && c != '.' && c != '_') return false;
  return true;
}

// RFC 3986 section 5.2.4, on the path alone (the query is kept aside).
std::string remove_dot_segments(const std::string& path) {
  std::string out;
  std::size_t i = 0;
  while (i < path.size()) {
    std::size_t j = path.find('/', i + 1);
    if (j == std::string::npos) j = path.size();
    const std::string seg = path.substr(i, j - i);  // "/name" (or "name" at the very start)
    const bool last = j == path.size();
    if (seg == "/." || seg == ".") {
      if (last) out += '/';
    } else if (seg == "/.." || seg == "..") {
      const std::size_t cut = out.rfind('/');
      out.erase(cut == std::string::npos ? 0 : cut);
      if (last) out += '/';
    } else {
      out += seg;
    }
    i = j;
  }
  if (out.empty() || out[0] != '/') out.insert(out.begin(), '/');
  return out;
}

std::string normalized_path(const std::string& p) {
  const std::size_t q = p.find('?');
  const std::string path = q == std::string::npos ? p : p.substr(0, q);
  return remove_dot_segments(path) + (q == std::string::npos ? "" : p.substr(q));
}

int default_port(const std::string& scheme) { return scheme == "https" ? 443 : 80; }

}  // namespace

bool parse_reply_head(const char* data, std::size_t n, ReplyHead* out) {
  *out = ReplyHead{};
  std::size_t pos = 0;
  auto next_line = [&](std::string* line) {
    if (pos >= n) return false;
    std::size_t e = pos;
    while (e < n && data[e] != '\n') ++e;
    line->assign(data + pos, e - pos);
    if (!line->empty() && line->back() == '\r') line->pop_back();
    pos = e < n ? e + 1 : n;
    return true;
  };
  std::string line;
  if (!next_line(&line)) return false;
  // "HTTP/1.1 200 OK", "HTTP/2 404": the version, one blank, three digits.
  if (line.size() < 10 || line.compare(0, 5, "HTTP/") != 0) return false;
  std::size_t i = 5;
  while (i < line.size() && (is_digit(line[i]) || line[i] == '.')) ++i;
  if (i == 5 || i >= line.size() || line[i] != ' ') return false;
  while (i < line.size() && line[i] == ' ') ++i;
  if (i + 3 > line.size() || !is_digit(line[i]) || !is_digit(line[i + 1]) || !is_digit(line[i + 2])) return false;
  if (i + 3 < line.size() && line[i + 3] != ' ') return false;
  out->status = (line[i] - '0') * 100 + (line[i + 1] - '0') * 10 + (line[i + 2] - '0');
  if (out->status < 100) return false;

  bool length_seen = false;
  std::string name, value;
  auto finish_field = [&] {
    if (name.empty()) return;
    const std::string v = trim(value);
    if (same_word(name, "location") && !out->has_location) {
      out->has_location = true;
      out->location = v;
    } else if (same_word(name, "content-length")) {
      // Two different lengths: believe neither.
      const std::int64_t len = parse_length(v);
      out->content_length = length_seen && len != out->content_length ? -1 : len;
      length_seen = true;
    }
    name.clear();
    value.clear();
  };
  while (next_line(&line)) {
    if (line.empty()) break;  // the end of the head
    if (line[0] == ' ' || line[0] == '\t') {
      value += ' ' + trim(line);  // a folded continuation of the field before
      continue;
    }
    finish_field();
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) continue;  // not a field: ignored
    name = line.substr(0, colon);
    if (name.find(' ') != std::string::npos || name.find('\t') != std::string::npos) {
      name.clear();
      continue;
    }
    value = line.substr(colon + 1);
  }
  finish_field();
  return true;
}

bool is_redirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool split_url(const std::string& text, Url* out) {
  *out = Url{};
  const std::string s = without_fragment(text);
  const std::string scheme = scheme_of(s);
  if (scheme.empty() || s.compare(scheme.size(), 3, "://") != 0) return false;
  if (same_word(scheme, "http")) out->scheme = "http";
  else if (same_word(scheme, "https")) out->scheme = "https";
  else return false;
  std::size_t i = scheme.size() + 3;
  std::size_t end = i;
  while (end < s.size() && s[end] != '/' && s[end] != '?') ++end;
  const std::string authority = s.substr(i, end - i);
  if (authority.find('@') != std::string::npos) return false;
  std::size_t colon = std::string::npos;
  if (!authority.empty() && authority[0] == '[') {
    const std::size_t close = authority.find(']');
    if (close == std::string::npos) return false;
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') return false;
      colon = close + 1;
    }
  } else {
    colon = authority.find(':');
  }
  out->host = authority.substr(0, colon);
  out->port = default_port(out->scheme);
  if (colon != std::string::npos) {
    const std::string p = authority.substr(colon + 1);
    if (!p.empty()) {
      const std::int64_t port = p.size() <= 5 ? parse_length(p) : -1;
      if (port < 1 || port > 65535) return false;
      out->port = static_cast<int>(port);
    }
  }
  if (!valid_host(out->host)) return false;
  out->path = s.substr(end);
  if (out->path.empty() || out->path[0] == '?') out->path.insert(out->path.begin(), '/');
  return true;
}

std::string join_url(const Url& u) {
  std::string s = u.scheme + "://" + u.host;
  if (u.port != default_port(u.scheme)) s += ':' + std::to_string(u.port);
  return s + u.path;
}

bool normalize_url(const std::string& typed, std::string* out) {
  std::string s = trim(typed);
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  if (s.empty()) return false;
  // A typed name without a scheme ("example.com/x") means http.
  if (s.find("://") == std::string::npos) s = "http://" + s;
  Url u;
  if (!split_url(encode(host::cp437_to_utf8(s)), &u)) return false;
  u.path = normalized_path(u.path);
  *out = join_url(u);
  return true;
}

bool resolve_location(const std::string& base, const std::string& location, std::string* out) {
  const std::string loc = encode(without_fragment(trim(location)));
  if (loc.empty()) return false;
  Url u;
  if (!scheme_of(loc).empty()) {
    if (!split_url(loc, &u)) return false;
  } else {
    if (!split_url(base, &u)) return false;
    if (loc.size() >= 2 && loc[0] == '/' && loc[1] == '/') {
      if (!split_url(u.scheme + ":" + loc, &u)) return false;
    } else if (loc[0] == '/') {
      u.path = loc;
    } else {
      const std::string path = u.path.substr(0, u.path.find('?'));
      if (loc[0] == '?') u.path = path + loc;
      else u.path = path.substr(0, path.rfind('/') + 1) + loc;
    }
  }
  u.path = normalized_path(u.path);
  *out = join_url(u);
  return true;
}

}  // namespace net
