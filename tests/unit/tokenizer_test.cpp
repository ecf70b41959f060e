// Tokenizer, keyword table and numeric literals.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/numscan.h"
#include "core/tokenizer.h"

using namespace core;

namespace {

class Tok : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_errors();
    program_running = true;  // keep raise() from printing to the console
  }
  void TearDown() override { program_running = false; }
  int run(const std::string& line) {
    text_ = line;
    reset_errors();
    return tokenize(text_.c_str());
  }
  const Token& t(int i) const { return scratch_tokens[i]; }
  std::string error() const { return err.flag ? err.message : ""; }
  std::string text_;
};

TEST_F(Tok, EveryKeywordIsFoundInAnyCaseAndOnlyAsAWholeWord) {
  for (int i = 0; i < kKeywordCount; ++i) {
    std::string lower = kKeywords[i].name;
    for (char& c : lower) c = static_cast<char>(std::tolower(c));
    ASSERT_EQ(run(lower), 2) << lower;
    EXPECT_EQ(t(0).kind, kKeywords[i].token) << lower;
    EXPECT_EQ(keyword_name(kKeywords[i].token), std::string(kKeywords[i].name));
    ASSERT_EQ(run(lower + "X"), 2);
    EXPECT_EQ(t(0).kind, kTokIdent) << lower << "X is an identifier";
  }
  EXPECT_EQ(keyword_lookup("PRIN", 4), 0);
  EXPECT_EQ(keyword_lookup("PRINT", 5), KW_PRINT);
  EXPECT_EQ(KW_HELP, 0xE2);
  EXPECT_EQ(KW_PARFOR, 0x17);
  EXPECT_EQ(KW_MOD, 0x10);
  EXPECT_EQ(std::string(kKeywords[kKeywordCount - 1].name), "HELP") << "HELP stands last";
}

TEST_F(Tok, WordsIdentifiersAndSuffixes) {
  ASSERT_EQ(run("PRINTX"), 2);
  EXPECT_STREQ(t(0).name(), "PRINTX");
  ASSERT_EQ(run("print x"), 3);
  EXPECT_EQ(t(0).kind, KW_PRINT);
  EXPECT_STREQ(t(1).name(), "X");
  EXPECT_EQ(t(1).column, 6);
  ASSERT_EQ(run("a% b& c&& d$ e! f# g@ _h"), 9);
  const char* names[] = {"A%", "B&", "C&&", "D$", "E!", "F#", "G@", "_H"};
  for (int i = 0; i < 8; ++i) EXPECT_STREQ(t(i).name(), names[i]);
  ASSERT_EQ(run("x = input$(1) + error$"), 9);
  EXPECT_STREQ(t(2).name(), "INPUT$");
  EXPECT_STREQ(t(7).name(), "ERROR$");
  run("LEFT$ print$");
  EXPECT_EQ(error(), "Syntax Error") << "another keyword's $ is scanned on its own";
  EXPECT_EQ(t(0).kind, kTokIdent);
  EXPECT_EQ(t(1).kind, KW_PRINT);
  EXPECT_EQ(t(2).kind, kTokEnd) << "the records made so far and a terminator stand";
  ASSERT_EQ(run("def fnsq(x)"), 6);
  EXPECT_EQ(t(0).kind, KW_DEF);
  EXPECT_STREQ(t(1).name(), "FNSQ");
  ASSERT_EQ(run("? 1"), 3);
  EXPECT_EQ(t(0).kind, KW_PRINT) << "? is PRINT";
}

TEST_F(Tok, IdentifierLengthLimit) {
  const std::string n37(37, 'Q');
  ASSERT_EQ(run(n37 + "$ = 1"), 4);
  EXPECT_EQ(std::string(t(0).name()), n37 + "$");
  EXPECT_EQ(error(), "");
  run("A = " + std::string(38, 'Q'));
  EXPECT_EQ(error(), "Identifier too long (37 characters maximum)");
  EXPECT_EQ(error_number_for(err.message), 255);
}

TEST_F(Tok, StringsCommentsAndPunctuation) {
  ASSERT_EQ(run("\"abc"), 2);
  EXPECT_EQ(t(0).kind, kTokString);
  EXPECT_EQ(t(0).str_len(), 3u) << "a missing closing quote is accepted";
  EXPECT_EQ(std::string(t(0).str_ptr(), 3), "abc");
  EXPECT_EQ(t(1).column, 4);
  ASSERT_EQ(run("REM a \"b\" c"), 2);
  EXPECT_EQ(t(0).kind, KW_REM);
  ASSERT_EQ(run("x = 1 ' it's a comment: ignored"), 4);
  EXPECT_EQ(t(3).kind, kTokEnd);
  ASSERT_EQ(run("#()*+,-./:;<=>@\\^"), 18);
  EXPECT_EQ(t(0).kind, '#');
  EXPECT_EQ(t(16).kind, '^');
  ASSERT_EQ(run("a<=b<>c"), 8) << "two-character operators are two tokens";
  for (const char* bad : {"!", "$", "%", "&", "x = 1 & 2", "{", "\x01", "\xC9"}) {
    run(bad);
    EXPECT_EQ(error(), "Syntax Error") << bad;
  }
  EXPECT_EQ(error_number_for("Syntax Error"), 2);
}

TEST_F(Tok, OneHundredTwentySevenTokensAndNoMore) {
  std::string line;
  for (int i = 0; i < 127; ++i) line += "x";  // one identifier...
  line.clear();
  for (int i = 0; i < 63; ++i) line += "a:";
  line += "a";  // 127 tokens
  EXPECT_EQ(run(line), 128);
  EXPECT_EQ(error(), "");
  EXPECT_EQ(run(line + "   \t "), 128) << "trailing blanks after the 127th token";
  EXPECT_EQ(error(), "");
  run(line + ":");
  EXPECT_EQ(error(), "Too many tokens");
  EXPECT_EQ(t(127).kind, kTokEnd);
}

TEST_F(Tok, AcceptOptionColon) {
  ASSERT_EQ(run("ACCEPT SIZE 10: A$"), 6);
  EXPECT_EQ(t(3).kind, kTokAcceptColon);
  run("X=1: ACCEPT DEFAULT \"a:b\", UCASE: B$");
  EXPECT_EQ(t(9).kind, ':') << "a comma at depth 0 ends the scan";
  run("IF K THEN ACCEPT AT(1,2): X$ ELSE PRINT");
  EXPECT_EQ(t(10).kind, kTokAcceptColon) << "commas inside parentheses do not count";
  run("ACCEPT = 1: PRINT");
  EXPECT_EQ(t(3).kind, ':') << "not an ACCEPT statement";
  run("ACCEPT SIZE = 3: PRINT");
  EXPECT_EQ(t(4).kind, ':') << "an option word followed by = is an assignment";
  run("Y ACCEPT SIZE 3: PRINT");
  EXPECT_EQ(t(4).kind, ':') << "ACCEPT must start a statement";
}

struct Lit {
  const char* text;
  int type;
  double value;
  int rest;  // characters left behind the literal
};

TEST_F(Tok, DecimalLiteralsAndTheirTypes) {
  const Lit cases[] = {
      {"32767", kTypeInteger, 32767, 0},
      {"32768", kTypeSingle, 32768, 0},
      {"40000", kTypeSingle, 40000, 0},
      {"12345678", kTypeDouble, 12345678, 0},  // never LONG
      {"1E5", kTypeSingle, 100000, 0},
      {"1D5", kTypeDouble, 100000, 0},
      {"1E", kTypeInteger, 1, 1},
      {"1E+", kTypeInteger, 1, 2},
      {"2.5", kTypeSingle, 2.5, 0},
      {".5", kTypeSingle, 0.5, 0},
      {"0.1", kTypeSingle, static_cast<float>(0.1), 0},
      {"0.10000000", kTypeDouble, 0.1, 0},
      {"3.14159265358979", kTypeDouble, 3.14159265358979, 0},
      {"7%", kTypeInteger, 7, 0},
      {"70000&", kTypeLong, 70000, 0},
      {"9223372036854775807&&", kTypeInt64, 9223372036854775807.0, 0},
      {"1.5!", kTypeSingle, 1.5, 0},
      {"3#", kTypeDouble, 3, 0},
      {"1e-400", kTypeSingle, 0, 0},
      {"1e-401", kTypeSingle, 0, 0},
      {"1E10000000", kTypeSingle, 0, 0},  // placeholder, replaced below
      {"123456789012345678901234", kTypeDouble, 1.23456789012345678e23, 0},
      {"0000000000000000000000001", kTypeInteger, 1, 0},
      {"1.5e3x", kTypeSingle, 1500, 1},
  };
  for (const Lit& c : cases) {
    if (std::string(c.text) == "1E10000000") continue;
    NumberLiteral lit;
    reset_errors();
    const char* end = scan_number(c.text, &lit);
    ASSERT_NE(end, nullptr) << c.text << ": " << err.message;
    EXPECT_EQ(lit.type, c.type) << c.text;
    const double v = lit.type <= kTypeInt64 ? static_cast<double>(lit.i) : lit.d;
    // Scaling by tens may differ from the correctly rounded value in the last bits.
    EXPECT_NEAR(v, c.value, std::fabs(c.value) * 1e-15) << c.text;
    EXPECT_EQ(static_cast<int>(std::strlen(end)), c.rest) << c.text;
  }
  NumberLiteral lit;
  scan_number("1.23456789", &lit);
  EXPECT_NEAR(lit.d, 1.23456789, 1e-15);
}

TEST_F(Tok, LiteralErrors) {
  const std::pair<const char*, const char*> cases[] = {
      {"32768%", "Overflow"},       {"1.5%", "Type mismatch"},    {"1E2&", "Type mismatch"},
      {"2147483648&", "Overflow"},  {"9223372036854775808&&", "Overflow"},
      {"99999999999999999999%", "Overflow"}, {"1E401", "Overflow"}, {"1E400", "Overflow"},
      {"1E39!", "Overflow"},        {"1E39", "Overflow"},         {"1E10000000", "Overflow"},
      {"&H", "Overflow"},           {"&O9", "Overflow"},          {"&H10000000000000000", "Overflow"},
  };
  for (const auto& [text, message] : cases) {
    NumberLiteral lit;
    reset_errors();
    EXPECT_EQ(scan_number(text, &lit), nullptr) << text;
    EXPECT_EQ(error(), message) << text;
  }
  NumberLiteral lit;
  reset_errors();
  ASSERT_NE(scan_number("1E39#", &lit), nullptr) << "fine as a DOUBLE";
  ASSERT_NE(scan_number("1D308", &lit), nullptr);
}

TEST_F(Tok, HexAndOctalLiterals) {
  const Lit cases[] = {
      {"&H7FFF", kTypeInteger, 32767, 0},
      {"&H8000", kTypeLong, 32768, 0},
      {"&HFFFF", kTypeLong, 65535, 0},  // never negative
      {"&H7FFFFFFF", kTypeLong, 2147483647, 0},
      {"&H80000000", kTypeInt64, 2147483648.0, 0},
      {"&hff%", kTypeInteger, 255, 0},
      {"&O777", kTypeInteger, 511, 0},
      {"&o10&", kTypeLong, 8, 0},
      {"&H1&&", kTypeInt64, 1, 0},
      {"&HFG", kTypeInteger, 15, 1},
  };
  for (const Lit& c : cases) {
    NumberLiteral lit;
    reset_errors();
    const char* end = scan_number(c.text, &lit);
    ASSERT_NE(end, nullptr) << c.text;
    EXPECT_EQ(lit.type, c.type) << c.text;
    EXPECT_EQ(static_cast<double>(lit.i), c.value) << c.text;
    EXPECT_EQ(static_cast<int>(std::strlen(end)), c.rest) << c.text;
  }
  NumberLiteral lit;
  scan_number("&HFFFFFFFFFFFFFFFF", &lit);
  EXPECT_EQ(lit.i, -1) << "all 64 bits kept as scanned";
  ASSERT_EQ(run("x=&H10+1"), 6);
  EXPECT_EQ(t(2).kind, kTokNumber);
  EXPECT_EQ(t(2).i64(), 16);
}

TEST_F(Tok, NumberTokensCarryTypeAndValue) {
  ASSERT_EQ(run("A = 1.5! + 70000& - 2D0"), 8);
  EXPECT_EQ(t(2).type, kTypeSingle);
  EXPECT_EQ(t(2).f64(), 1.5);
  EXPECT_EQ(t(4).type, kTypeLong);
  EXPECT_EQ(t(4).i64(), 70000);
  EXPECT_EQ(t(6).type, kTypeDouble);
  EXPECT_EQ(t(7).column, 23);
  EXPECT_EQ(t(7).cache[0].a, 0u) << "the evaluator cache starts cleared";
  run("x = 32768%");
  EXPECT_EQ(error(), "Overflow");
  EXPECT_EQ(t(2).kind, kTokEnd);
}

}  // namespace
