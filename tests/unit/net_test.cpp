// HTTPGET$'s reading of reply heads and its URL rules: what a server may
// send (odd line ends, folded fields, conflicting lengths, junk) and how
// typed URLs and Location values become the next request.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net/http_reply.h"
#include "net/net.h"

using net::ReplyHead;

namespace {

ReplyHead head_of(const std::string& text, bool expect_ok = true) {
  ReplyHead h;
  EXPECT_EQ(net::parse_reply_head(text.data(), text.size(), &h), expect_ok) << text;
  return h;
}

std::string resolved(const std::string& base, const std::string& location) {
  std::string out;
  return net::resolve_location(base, location, &out) ? out : "<refused>";
}

std::string normalized(const std::string& typed) {
  std::string out;
  return net::normalize_url(typed, &out) ? out : "<refused>";
}

}  // namespace

TEST(ReplyHead, StatusLocationAndLength) {
  ReplyHead h = head_of("HTTP/1.1 301 Moved Permanently\r\nLOCATION:  /next  \r\nContent-Length: 12\r\n\r\nbody");
  EXPECT_EQ(h.status, 301);
  EXPECT_TRUE(h.has_location);
  EXPECT_EQ(h.location, "/next");
  EXPECT_EQ(h.content_length, 12);

  // HTTP/2's status line has no minor version and no reason; bare LF line ends.
  h = head_of("HTTP/2 404\nlocation: a\nlocation: b\n");
  EXPECT_EQ(h.status, 404);
  EXPECT_EQ(h.location, "a");  // the first one counts
  EXPECT_EQ(h.content_length, -1);

  // A folded continuation belongs to the field before it.
  h = head_of("HTTP/1.0 302 Found\r\nLocation: http://x/a\r\n  b\r\n\r\n");
  EXPECT_EQ(h.location, "http://x/a b");
}

TEST(ReplyHead, LengthsThatCannotBeTrusted) {
  EXPECT_EQ(head_of("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\n").content_length, -1);
  EXPECT_EQ(head_of("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 5\r\n\r\n").content_length, 5);
  EXPECT_EQ(head_of("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n").content_length, -1);
  EXPECT_EQ(head_of("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n").content_length, -1);
  EXPECT_EQ(head_of("HTTP/1.1 200 OK\r\nContent-Length: 1 2\r\n\r\n").content_length, -1);
  // Lines that are not fields, and a name with a blank in it, are ignored.
  const ReplyHead h = head_of("HTTP/1.1 200 OK\r\nno colon here\r\n: empty name\r\nLoca tion: /x\r\n\r\n");
  EXPECT_FALSE(h.has_location);
}

TEST(ReplyHead, NotAStatusLine) {
  for (const char* bad : {"", "GET / HTTP/1.1\r\n", "HTTP/1.1 20 OK\r\n", "HTTP/1.1 2000 OK\r\n", "HTTP/ 200 OK\r\n",
                          "HTTP/1.1200 OK\r\n", "HTTP/1.1 099 Low\r\n", "http/1.1 200 OK\r\n", "HTTP/1.1 2x0 OK\r\n"})
    head_of(bad, false);
}

TEST(Redirects, WhichStatusesRedirect) {
  for (int s : {301, 302, 303, 307, 308}) EXPECT_TRUE(net::is_redirect(s)) << s;
  for (int s : {200, 300, 304, 305, 306, 309, 404}) EXPECT_FALSE(net::is_redirect(s)) << s;
}

TEST(Redirects, ResolvingLocation) {
  const std::string base = "http://h:8000/a/b/c?q=1";
  EXPECT_EQ(resolved(base, "https://other/x"), "https://other/x");
  EXPECT_EQ(resolved(base, "HTTP://Other:80/x"), "http://Other/x");
  EXPECT_EQ(resolved(base, "//cdn/y"), "http://cdn/y");
  EXPECT_EQ(resolved(base, "/root"), "http://h:8000/root");
  EXPECT_EQ(resolved(base, "d"), "http://h:8000/a/b/d");
  EXPECT_EQ(resolved(base, "../d?z"), "http://h:8000/a/d?z");
  EXPECT_EQ(resolved(base, "../../../../d"), "http://h:8000/d");
  EXPECT_EQ(resolved(base, "./"), "http://h:8000/a/b/");
  EXPECT_EQ(resolved(base, ".."), "http://h:8000/a/");
  EXPECT_EQ(resolved(base, "?only"), "http://h:8000/a/b/c?only");
  EXPECT_EQ(resolved(base, "e#frag"), "http://h:8000/a/b/e");
  EXPECT_EQ(resolved(base, "a b"), "http://h:8000/a/b/a%20b");
  EXPECT_EQ(resolved(base, "%41"), "http://h:8000/a/b/%41");  // already encoded stays so
  EXPECT_EQ(resolved(base, "\xC3\xA9"), "http://h:8000/a/b/%C3%A9");
  EXPECT_EQ(resolved("https://[::1]:8443/p", "q"), "https://[::1]:8443/q");
  // Nowhere usable to go.
  for (const char* bad : {"", "   ", "ftp://h/x", "javascript:alert(1)", "http://", "http://u@h/", "http://h:0/",
                          "http://h:65536/", "http://h:x/", "http://[::1/", "http://ba d/", "//"})
    EXPECT_EQ(resolved(base, bad), "<refused>") << bad;
}

TEST(Urls, WhatATypedUrlMeans) {
  EXPECT_EQ(normalized("example.com"), "http://example.com/");
  EXPECT_EQ(normalized("  127.0.0.1:8000/x/./y/../z  "), "http://127.0.0.1:8000/x/z");
  EXPECT_EQ(normalized("https://h:443"), "https://h/");
  EXPECT_EQ(normalized("http://h?q"), "http://h/?q");
  EXPECT_EQ(normalized("http://h/a b"), "http://h/a%20b");
  // Code page 437 text goes on the wire as UTF-8: 0x82 is e acute.
  EXPECT_EQ(normalized("http://h/caf\x82"), "http://h/caf%C3%A9");
  for (const char* bad : {"", "ftp://h/", "http://", "http:///x", "mailto:x@y", "http://h:99999/"})
    EXPECT_EQ(normalized(bad), "<refused>") << bad;
}

TEST(Urls, SplitAndJoinRoundTrip) {
  net::Url u;
  ASSERT_TRUE(net::split_url("https://Example.org:8443/p?q=1#f", &u));
  EXPECT_EQ(u.scheme, "https");
  EXPECT_EQ(u.host, "Example.org");
  EXPECT_EQ(u.port, 8443);
  EXPECT_EQ(u.path, "/p?q=1");
  EXPECT_EQ(net::join_url(u), "https://Example.org:8443/p?q=1");
}

// Every network function and statement word has its HELP entry, with a
// syntax line that names it.
TEST(NetHelp, EveryWordHasAnEntry) {
  struct Entry {
    const char* name;
    const char* syntax;
  };
#define HELP_ENTRY(name, category, syntax, text) {name, syntax},
  const Entry entries[] = {
#include "net/help.def"
  };
#undef HELP_ENTRY
  auto find = [&](const std::string& word) -> const Entry* {
    for (const Entry& e : entries)
      if (word == e.name) return &e;
    return nullptr;
  };
  std::vector<std::string> words = {"TCP", "NETINFO"};
  const values::BuiltinGroup& g = net::net_builtins();
  for (int i = 0; i < g.count; ++i) words.push_back(g.rows[i].name);
  for (const std::string& w : words) {
    const Entry* e = find(w);
    ASSERT_NE(e, nullptr) << w;
    EXPECT_NE(std::string(e->syntax).find(w), std::string::npos) << w;
  }
  EXPECT_EQ(sizeof entries / sizeof entries[0], words.size());
}
