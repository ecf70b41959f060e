// Capture limits and line endings, KEYDOWN's key names and ACCEPT's field
// editor, driven through the console and the key queue.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "host/ui.h"
#include "screen/accept.h"
#include "screen/capture.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keynames.h"
#include "screen/keyqueue.h"
#include "screen/lineedit.h"

using namespace screen;

namespace {

std::string stored;
void keep(const char* p, std::uint64_t n) { stored.assign(p, static_cast<std::size_t>(n)); }

class CaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(create_framebuffer(1024, 768));
    con = Console{};
    reset_console();
    clear_region();
    core::reset_errors();
    core::err.silent = true;  // a raised message would itself be printed
    stored = "<none>";
    capture_done = keep;
  }
  void TearDown() override {
    end_capture();
    core::err.silent = false;
    core::reset_errors();
  }
};

TEST_F(CaptureTest, LineEndsAndTabsInAStringCapture) {
  ASSERT_TRUE(capture_to_string());
  put_text("ab\tc");       // TAB from column 2 to 8
  put_char(10);            // LF is a line end too, written as CR
  put_text("1234567\t");   // one blank at column 7
  put_text("x\r\t|");      // a TAB after a line end counts from 0 again
  EXPECT_EQ(con.row, 0u);
  EXPECT_EQ(con.col, 0u) << "nothing reaches the screen";
  end_capture();
  EXPECT_EQ(stored, "ab      c\r1234567 x\r        |");
  EXPECT_EQ(con.capture_mode, 0);
  put_char('z');
  EXPECT_EQ(con.cells[0][0], 'z') << "after the capture output is seen again";
}

TEST_F(CaptureTest, StringCaptureHoldsExactly64MiBAndRefusesOneMore) {
  ASSERT_TRUE(capture_to_string());
  for (std::uint64_t i = 0; i < kCaptureLimit; ++i) put_char('x');
  EXPECT_EQ(capture_size(), kCaptureLimit);
  EXPECT_FALSE(core::err.flag);
  // The error is silenced in this test, so the flag stays clear: what matters
  // is that the capture stops and hands nothing over.
  core::err.silent = false;
  core::err.hook = [](const char* m) { stored = m; };
  put_char('x');
  core::err.hook = nullptr;
  EXPECT_EQ(stored, "Capture exceeds 64 MiB; capture to a file instead");
  EXPECT_TRUE(core::err.flag);
  put_text("rest of the statement");
  EXPECT_EQ(con.cells[0][0], ' ') << "the failing statement's remaining output is dropped";
  stored = "<none>";
  end_capture();
  EXPECT_EQ(stored, "<none>") << "a failed capture stores nothing";
  EXPECT_EQ(con.capture_mode, 0);
}

TEST_F(CaptureTest, TrappedFailureShowsTheHandlersOutput) {
  ASSERT_TRUE(capture_to_string());
  for (std::uint64_t i = 0; i < kCaptureLimit; ++i) put_char('x');
  core::err.silent = false;
  core::err.hook = [](const char*) {};
  put_char('x');
  core::err.hook = nullptr;
  ASSERT_TRUE(core::err.flag);
  core::clear_error_flag();  // what ON ERROR does before the handler runs
  put_char('H');
  EXPECT_EQ(con.capture_mode, 0);
  EXPECT_EQ(con.cells[0][0], 'H');
}

TEST_F(CaptureTest, FileCaptureEndsLinesWithCrLfAndStartingAgainEndsTheFirst) {
  const std::string name = testing::TempDir() + "capture_test.txt";
  ASSERT_TRUE(capture_to_file(name));
  EXPECT_EQ(con.capture_mode, 2);
  put_text("a\tb\rc");
  put_char(10);
  ASSERT_TRUE(capture_to_string()) << "a new capture closes the file";
  put_text("s");
  end_capture();
  EXPECT_EQ(stored, "s");
  std::FILE* f = std::fopen(name.c_str(), "rb");
  ASSERT_NE(f, nullptr);
  char buf[64];
  const std::size_t n = std::fread(buf, 1, sizeof buf, f);
  std::fclose(f);
  std::remove(name.c_str());
  EXPECT_EQ(std::string(buf, n), "a       b\r\nc\r\n");
}

TEST_F(CaptureTest, UnwritablePathIsRefused) {
  EXPECT_FALSE(capture_to_file(testing::TempDir() + "no/such/dir/x.txt"));
  EXPECT_EQ(con.capture_mode, 0);
}

TEST(KeyNames, LettersDigitsAndNamedKeysIgnoringCase) {
  auto id = [](const char* s) { return key_id_from_name(s, static_cast<std::uint32_t>(std::strlen(s))); };
  EXPECT_EQ(id("a"), 'A');
  EXPECT_EQ(id("Z"), 'Z');
  EXPECT_EQ(id("0"), '0');
  EXPECT_EQ(id(" "), host::kKeyIdSpace);
  EXPECT_EQ(id("space"), host::kKeyIdSpace);
  EXPECT_EQ(id("Esc"), host::kKeyIdEsc);
  EXPECT_EQ(id("ESCAPE"), host::kKeyIdEsc);
  EXPECT_EQ(id("pgdn"), host::kKeyIdPageDown);
  EXPECT_EQ(id("PageDown"), host::kKeyIdPageDown);
  EXPECT_EQ(id("return"), host::kKeyIdEnter);
  EXPECT_EQ(id("Control"), host::kKeyIdCtrl);
  EXPECT_EQ(id("F1"), host::kKeyIdF1);
  EXPECT_EQ(id("f9"), host::kKeyIdF1 + 8);
  EXPECT_EQ(id("F10"), host::kKeyIdF1 + 9);
  EXPECT_EQ(id("F12"), host::kKeyIdF1 + 11);
  for (const char* bad : {"", "F0", "F13", "F1x", "!", "SHIFTX", "SHIF", "LEFT "})
    EXPECT_EQ(id(bad), -1) << '"' << bad << '"';
  // The length counts, not a NUL: "UP" inside a longer buffer.
  EXPECT_EQ(key_id_from_name("UPPER", 2), host::kKeyIdUp);
}

TEST(AcceptFilter, NumberFieldTakesOneLeadingSignAndOnePoint) {
  AcceptField f;
  f.numeric = true;
  EXPECT_TRUE(accept_allows(f, "", 0, 0, '-'));
  EXPECT_TRUE(accept_allows(f, "12", 2, 0, '+'));
  EXPECT_FALSE(accept_allows(f, "-12", 3, 0, '-')) << "a second sign";
  EXPECT_FALSE(accept_allows(f, "12", 2, 1, '-')) << "a sign inside the number";
  EXPECT_FALSE(accept_allows(f, "-12", 3, 0, '5')) << "a digit before the sign";
  EXPECT_TRUE(accept_allows(f, "-12", 3, 1, '5'));
  EXPECT_TRUE(accept_allows(f, "12", 2, 2, '.'));
  EXPECT_FALSE(accept_allows(f, "1.2", 3, 3, '.'));
  EXPECT_FALSE(accept_allows(f, "-1", 2, 0, '.')) << "a point before the sign";
  EXPECT_FALSE(accept_allows(f, "", 0, 0, 'e'));
  AcceptField set;
  set.allowed = "YN";
  set.allowed_len = 2;
  EXPECT_TRUE(accept_allows(set, "", 0, 0, 'Y'));
  EXPECT_FALSE(accept_allows(set, "", 0, 0, 'y'));
  EXPECT_FALSE(accept_allows(AcceptField{}, "", 0, 0, 9)) << "control characters never go in";
  EXPECT_TRUE(accept_allows(AcceptField{}, "", 0, 0, 130));
}

class AcceptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(create_framebuffer(1024, 768));
    con = Console{};
    reset_console();
    keys.clear();
    edit_insert_mode = true;
  }
  static void type(const std::string& s) {
    for (unsigned char c : s) keys.push(0, c);
  }
  std::string accept(const AcceptField& f, const std::string& start = "") {
    char buf[kAcceptMaxWidth + 1];
    int len = static_cast<int>(start.size());
    std::memcpy(buf, start.data(), start.size());
    ok = accept_field(f, buf, &len);
    return ok ? std::string(buf, static_cast<std::size_t>(len)) : "<abandoned>";
  }
  bool ok = false;
};

TEST_F(AcceptTest, SizeLimitsTheTextAndTheFieldStaysOnItsRow) {
  AcceptField f;
  f.width = 3;
  put_cell(4, 13, 'Q');
  con.row = 4;
  con.col = 10;
  type("abcdef\r");
  EXPECT_EQ(accept(f), "abc");
  EXPECT_EQ(con.cells[4][10], 'a');
  EXPECT_EQ(con.cells[4][12], 'c');
  EXPECT_EQ(con.cells[4][13], 'Q') << "nothing is drawn past the field";
  EXPECT_EQ(con.row, 5u) << "Enter leaves the cursor on the next row";
  EXPECT_EQ(con.col, 0u);
}

TEST_F(AcceptTest, FieldIsCutAtTheRegionsRightEdge) {
  con.col = 125;
  AcceptField f;
  f.width = 10;
  EXPECT_EQ(accept_width(f), 3u);
  type("12345\r");
  EXPECT_EQ(accept(f), "123");
  EXPECT_EQ(con.row, 1u) << "no wrap onto the next row while editing";
}

TEST_F(AcceptTest, DefaultIsEditedUnlessRestartReplacesIt) {
  AcceptField f;
  type("x\r");
  EXPECT_EQ(accept(f, "abc"), "abcx");
  f.restart = true;
  type("x\r");
  EXPECT_EQ(accept(f, "abc"), "x");
  type("\r");
  EXPECT_EQ(accept(f, "abc"), "abc") << "Enter alone keeps the default";
  keys.push(kKeyLeft, 0);
  type("x\r");
  EXPECT_EQ(accept(f, "abc"), "abxc") << "an editing key first means the default is being edited";
}

TEST_F(AcceptTest, CaseFoldingAndFilterApplyToTypedAndDefaultText) {
  AcceptField f;
  f.letter_case = 1;
  type("yes\r");
  EXPECT_EQ(accept(f, "ok "), "OK YES");
  AcceptField n;
  n.numeric = true;
  type("-1a2.3.4-\r");
  EXPECT_EQ(accept(n), "-12.34");
}

TEST_F(AcceptTest, OverwriteJudgesTheTextWithoutTheReplacedCharacter) {
  AcceptField n;
  n.numeric = true;
  edit_insert_mode = false;
  keys.push(kKeyHome, 0);
  keys.push(kKeyRight, 0);
  type(".\r");  // "1.5": the point replaces the only point
  EXPECT_EQ(accept(n, "1.5"), "1.5");
  keys.push(kKeyHome, 0);
  type("9\r");
  EXPECT_EQ(accept(n, "-5"), "95") << "a digit may replace the sign";
}

TEST_F(AcceptTest, EscAbandonsAndLeavesTheCursorInTheField) {
  AcceptField f;
  type("abc");
  keys.push(kKeyEsc, 0);
  EXPECT_EQ(accept(f), "<abandoned>");
  EXPECT_EQ(con.row, 0u);
  EXPECT_EQ(con.col, 3u);
}

}  // namespace
