// Pieces of the classic-behaviour and data-safety work with exact contracts:
// the UTF-8 decoder, the function keys of the line editor, the literal
// scanner's nearest binary64, and the cost of filling the string heap.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "core/numscan.h"
#include "core/program.h"
#include "host/cp437.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "screen/lineedit.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/store.h"
#include "values/strings.h"
#include "values/variables.h"

namespace {

std::u32string decode(const std::string& bytes) {
  host::Utf8Decoder d;
  std::u32string out;
  char32_t cps[2];
  for (unsigned char b : bytes)
    for (int i = 0, n = d.feed(b, cps); i < n; ++i) out += cps[i];
  if (d.finish(cps)) out += cps[0];
  return out;
}

TEST(Utf8Decoder, EveryBrokenSequenceIsOneSubstituteAndTheBreakerIsReadAgain) {
  EXPECT_EQ(decode("a\xC3\xA9z"), U"a\u00E9z");
  EXPECT_EQ(decode("\xC3\n1"), U"\uFFFD\n1") << "the line end after a lone lead byte survives";
  EXPECT_EQ(decode("\xE2\x82"), U"\uFFFD") << "a sequence cut by the end of the input";
  EXPECT_EQ(decode("\xC0\xAF"), U"\uFFFD\uFFFD") << "overlong forms are refused from their lead byte";
  EXPECT_EQ(decode("\xE0\x80\x80"), U"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(decode("\xED\xA0\x80" "\xC3\xA9"), U"\uFFFD\uFFFD\uFFFD\u00E9") << "surrogates, then a clean decoder";
  EXPECT_EQ(decode("\xF4\x90\x80\x80"), U"\uFFFD\uFFFD\uFFFD\uFFFD") << "past U+10FFFF";
  EXPECT_EQ(decode("\xF0\x9F\x98\x80"), U"\U0001F600");
  EXPECT_EQ(decode("\x80\xBF"), U"\uFFFD\uFFFD");
}

class LineEditor : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(screen::create_framebuffer(1024, 768));
    screen::con = screen::Console{};
    screen::reset_console();
    screen::keys.clear();
    saved_ = screen::function_keys[0];
  }
  void TearDown() override { screen::function_keys[0] = saved_; }
  static std::string edit() {
    char buf[257];
    const int n = screen::line_edit(buf, sizeof buf, 0);
    return n < 0 ? "<abandoned>" : std::string(buf, static_cast<std::size_t>(n));
  }
  std::string saved_;
};

TEST_F(LineEditor, FunctionKeyTypesItsTextAndACarriageReturnEndsTheLine) {
  screen::function_keys[0] = "RUN\r";
  screen::keys.push(0, 'X');
  screen::keys.push(screen::kKeyF1, 0);
  screen::keys.push(0, 'Y');
  screen::keys.push(0, 13);
  EXPECT_EQ(edit(), "XRUN") << "the CR in the text is Enter";
  EXPECT_EQ(edit(), "Y") << "keys after the function key wait for the next line";
  screen::function_keys[0].clear();
  screen::keys.push(screen::kKeyF1, 0);
  screen::keys.push(0, 'Z');
  screen::keys.push(0, 13);
  EXPECT_EQ(edit(), "Z") << "an empty assignment types nothing";
}

TEST(NumberScanner, NearestBinary64BesideTheLiteralsOwnType) {
  core::NumberLiteral lit;
  ASSERT_NE(core::scan_number("0.1", &lit), nullptr);
  EXPECT_EQ(lit.type, core::kTypeSingle);
  EXPECT_EQ(lit.d, static_cast<double>(0.1f));
  EXPECT_EQ(lit.nearest, 0.1);
  ASSERT_NE(core::scan_number("1.2345678901234567890123D0", &lit), nullptr);
  EXPECT_EQ(lit.d, 1.2345678901234567890123) << "digits past 18 still round correctly";
  ASSERT_NE(core::scan_number("2.2250738585072011E-308#", &lit), nullptr);
  EXPECT_EQ(lit.d, 2.2250738585072011e-308);
}

class Heap : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kBytes = 256ull << 20;
  static void SetUpTestSuite() { base_ = static_cast<std::uint8_t*>(host::reserve_memory(kBytes)); }
  void SetUp() override {
    ASSERT_NE(base_, nullptr);
    values::arena_init(base_, kBytes);
    values::clear_variables();
    core::reset_errors();
    core::program_running = true;
  }
  void TearDown() override { core::program_running = false; }
  static inline std::uint8_t* base_ = nullptr;
};

TEST_F(Heap, FillingTheHeapCompactsALogarithmicNumberOfTimes) {
  // 2 KiB strings into an array until the heap is full: with a compaction
  // per statement near the top this took minutes.
  std::int64_t upper = 200000;
  values::Descriptor* a = values::array_create("A$", &upper, 1, true);
  ASSERT_NE(a, nullptr);
  int compactions = 0;
  std::int64_t i = 0;
  const auto start = std::chrono::steady_clock::now();
  for (; i <= upper; ++i) {
    if (values::compaction_requested()) ++compactions;
    values::statement_boundary();
    char* p = values::string_temp(2048);
    if (!p) break;
    std::memset(p, 'x', 2048);
    void* slot = values::array_element(a, &i, 1);
    ASSERT_TRUE(values::store_value(slot, values::kString, values::Value::string(p, 2048)));
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_STREQ(core::err.message, "Out of string space");
  EXPECT_GT(i, 100000) << "the heap held what fits";
  EXPECT_LT(compactions, 60) << "compactions wait until they can win something";
  EXPECT_LT(seconds, 20.0);
}

}  // namespace
