// Command line, module directory, code page 437 conversion, banner figures, PNG.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host/cp437.h"
#include "host/shell.h"
#include "screen/snapshot.h"

namespace host {
std::string group_thousands(std::uint64_t v, char sep);
}

using host::shell;

TEST(CommandLine, SplitsAtBlanksAndTabsWithQuotedWords) {
  const auto w = host::split_command_line(u"tambril.exe  \"my prog.bas\"\tone \"two three\" \"unclosed four");
  ASSERT_EQ(w.size(), 5u);
  EXPECT_EQ(w[1], u"my prog.bas");
  EXPECT_EQ(w[2], u"one");
  EXPECT_EQ(w[3], u"two three");
  EXPECT_EQ(w[4], u"unclosed four") << "a missing closing quote runs to the end";
  EXPECT_TRUE(host::split_command_line(u"   ").empty());
}

TEST(CommandLine, AutostartAndArgumentLimits) {
  std::vector<std::u16string> words = {u"tambril", u"PROG.BAS"};
  for (int i = 0; i < 33; ++i) {
    std::u16string w(2, u'a');
    w[1] = static_cast<char16_t>(u'0' + i % 10);
    words.push_back(w);
  }
  words[5] = std::u16string(300, u'x');
  host::parse_command_words(words);
  EXPECT_EQ(shell.autostart, "PROG.BAS");
  EXPECT_FALSE(shell.autostart_invalid);
  EXPECT_EQ(shell.arg_count, 32) << "a 33rd argument is ignored";
  EXPECT_EQ(std::string(shell.args[3]).size(), 255u) << "a long argument is cut to 255";
  EXPECT_STREQ(shell.args[0], "a0");
  EXPECT_STREQ(shell.args[31], "a1");
}

TEST(CommandLine, UnconvertibleInputTakesTheInvalidPaths) {
  host::parse_command_words({u"tambril", std::u16string(4096, u'A'), u"arg"});
  EXPECT_TRUE(shell.autostart_invalid) << "4096 characters is too long";
  EXPECT_EQ(shell.arg_count, 0) << "parsing ends with the invalid name";
  host::parse_command_words({u"tambril", std::u16string(4095, u'A')});
  EXPECT_FALSE(shell.autostart_invalid);
  host::parse_command_words({u"tambril", u"\u4E2D.BAS", u"ok", u"\u4E2D", u"caf\u00E9"});
  EXPECT_TRUE(shell.autostart_invalid);
  EXPECT_TRUE(shell.autostart.empty());
  host::parse_command_words({u"tambril", u"P.BAS", u"ok", u"\u4E2D", u"caf\u00E9"});
  ASSERT_EQ(shell.arg_count, 2) << "an argument that does not convert is dropped";
  EXPECT_STREQ(shell.args[0], "ok");
  EXPECT_STREQ(shell.args[1], "caf\x82") << "code page 437 e-acute";
  shell.packed = true;
  host::parse_command_words({u"tambril", u"X.BAS", u"y"});
  EXPECT_TRUE(shell.autostart.empty()) << "a packed program takes every word as an argument";
  EXPECT_EQ(shell.arg_count, 2);
  shell.packed = false;
}

TEST(ModuleDirectory, DriveRootKeepsItsSeparator) {
  EXPECT_EQ(host::directory_of("C:\\tambril.exe"), "C:\\");
  EXPECT_EQ(host::directory_of("C:\\Tools\\Basic\\tambril.exe"), "C:\\Tools\\Basic");
  EXPECT_EQ(host::directory_of("/usr/bin/tambril"), "/usr/bin");
  EXPECT_EQ(host::directory_of("/tambril"), "/");
  EXPECT_EQ(host::directory_of("tambril"), "");
}

TEST(Cp437, RoundTripsAndRefusesWithoutBestFit) {
  for (int c = 0; c < 256; ++c)
    ASSERT_EQ(host::unicode_to_cp437(host::cp437_to_unicode(static_cast<std::uint8_t>(c))), c);
  EXPECT_EQ(host::unicode_to_cp437(0x2588), 219) << "full block";
  EXPECT_EQ(host::unicode_to_cp437(0x0100), -1) << "A-macron has no counterpart; no best fit to A";
  std::string out;
  EXPECT_TRUE(host::utf8_to_cp437("\xE2\x95\x94\xC3\xA9", &out));
  EXPECT_EQ(out, "\xC9\x82");
  EXPECT_EQ(host::cp437_to_utf8("\xDB"), "\xE2\x96\x88");
  EXPECT_EQ(host::utf16_to_utf8(host::utf8_to_utf16("a\xF0\x9F\x98\x80z")), "a\xF0\x9F\x98\x80z");
  EXPECT_FALSE(host::utf16_to_cp437(u"\xD800", &out)) << "a lone surrogate";
}

TEST(Banner, ThousandsSeparators) {
  EXPECT_EQ(host::group_thousands(0, ','), "0");
  EXPECT_EQ(host::group_thousands(999, ','), "999");
  EXPECT_EQ(host::group_thousands(1000, ','), "1,000");
  EXPECT_EQ(host::group_thousands(134217728, ','), "134,217,728");
  EXPECT_EQ(host::group_thousands(18446744073709551615ull, ','), "18,446,744,073,709,551,615");
}

TEST(Snapshot, PngIsWellFormed) {
  const std::uint32_t px[6] = {0xFF0000, 0x00FF00, 0x0000FF, 0xFFFFFF, 0, 0x123456};
  const std::string path = ::testing::TempDir() + "snap.png";
  ASSERT_TRUE(screen::write_png(path, px, 3, 2));
  std::ifstream f(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  ASSERT_GT(bytes.size(), 8u + 25u + 12u);
  EXPECT_EQ(bytes.substr(1, 3), "PNG");
  EXPECT_EQ(bytes.substr(12, 4), "IHDR");
  // The IHDR chunk's CRC covers its type and data.
  const auto* u = reinterpret_cast<const std::uint8_t*>(bytes.data());
  const std::uint32_t crc = screen::crc32(u + 12, 17);
  const std::uint32_t stored = (u[29] << 24) | (u[30] << 16) | (u[31] << 8) | u[32];
  EXPECT_EQ(crc, stored);
  EXPECT_EQ(screen::crc32(reinterpret_cast<const std::uint8_t*>("123456789"), 9), 0xCBF43926u);
  std::remove(path.c_str());
}
