// Key queue growth and order, closing, software repeat; the line editor's keys.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "host/shell.h"
#include "host/ui.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "screen/lineedit.h"

using namespace screen;

namespace {

// A front end whose one key is held down while `held` is set.
struct FakeUi : host::Ui {
  bool recreate_framebuffer(std::uint32_t, std::uint32_t) override { return false; }
  void post_close() override {}
  bool key_is_down(int k) override { return held && k == 42; }
  bool held = false;
};

TEST(KeyQueue, TwoThousandKeysArriveInOrderAcrossGrowth) {
  KeyQueue q;
  for (int i = 0; i < 2000; ++i) q.push(static_cast<std::uint16_t>(i % 7), static_cast<std::uint16_t>(i));
  EXPECT_GE(q.capacity(), 2048u);
  for (int i = 0; i < 2000; ++i) {
    KeyEntry k;
    ASSERT_TRUE(q.take(&k));
    ASSERT_EQ(k.ch, i);
    ASSERT_EQ(k.code, i % 7);
  }
  KeyEntry k;
  EXPECT_FALSE(q.take(&k));
}

TEST(KeyQueue, GrowthKeepsOrderWhenTheRingHasWrapped) {
  KeyQueue q;
  KeyEntry k;
  for (int i = 0; i < 400; ++i) q.push(0, 1);
  for (int i = 0; i < 400; ++i) q.take(&k);  // tail is now far into the ring
  for (int i = 0; i < 1000; ++i) q.push(0, static_cast<std::uint16_t>(i));
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(q.take(&k));
    ASSERT_EQ(k.ch, i);
  }
}

TEST(KeyQueue, WaitWakesForAKeyFromAnotherThreadAndReportsClosing) {
  KeyQueue q;
  std::thread producer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    q.push(0, 'Q');
  });
  KeyEntry k;
  ASSERT_TRUE(q.wait(&k));
  EXPECT_EQ(k.ch, 'Q');
  producer.join();
  // The debugger request comes first, as code 22.
  q.debugger_request = 1;
  q.push(0, 'x');
  ASSERT_TRUE(q.wait(&k));
  EXPECT_EQ(k.code, kKeyDebugger);
  q.debugger_request = 0;
  ASSERT_TRUE(q.wait(&k));
  EXPECT_EQ(k.ch, 'x');
  // Headless end of input: the queue drains first, then the window "closes".
  q.push(0, 'y');
  q.set_input_ended();
  ASSERT_TRUE(q.wait(&k));
  EXPECT_EQ(k.ch, 'y');
  EXPECT_FALSE(q.wait(&k));
  EXPECT_TRUE(host::stop_requested());
  host::shell.stop = 0;
}

TEST(KeyQueue, SoftwareRepeatAfterDelayThenAtRate) {
  FakeUi ui;
  host::ui = &ui;
  KeyQueue q;
  q.set_repeat(0, 30);  // KEYREPEAT 0,30: repeat at once, then every 33 ms
  ui.held = true;
  EXPECT_TRUE(q.push_keydown(0, 'r', 42, false));
  EXPECT_FALSE(q.push_keydown(0, 'r', 42, true)) << "the OS's own auto-repeat is dropped";
  KeyEntry k;
  ASSERT_TRUE(q.wait(&k));  // the key itself
  ASSERT_TRUE(q.wait(&k));  // the first repeat, due at once
  EXPECT_EQ(k.ch, 'r');
  const auto t0 = std::chrono::steady_clock::now();
  ASSERT_TRUE(q.wait(&k));
  const auto gap = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
  EXPECT_GE(gap.count(), 25) << "repeats come at the rate, not at once";
  // Releasing the key cancels the repeat: the next wait sees a real key only.
  q.key_released(42);
  ui.held = false;
  q.push(0, 'n');
  ASSERT_TRUE(q.wait(&k));
  EXPECT_EQ(k.ch, 'n');
  q.repeat_default();
  EXPECT_FALSE(q.repeat_override());
  host::ui = nullptr;
}

TEST(KeyQueue, ScanCodesForExtendedKeys) {
  EXPECT_EQ(scan_code_for(kKeyUp), 72);
  EXPECT_EQ(scan_code_for(kKeyDelete), 83);
  EXPECT_EQ(scan_code_for(kKeyF1), 59);
  EXPECT_EQ(scan_code_for(kKeyF1 + 9), 68);
  EXPECT_EQ(scan_code_for(kKeyF11), 133);
  EXPECT_EQ(scan_code_for(kKeyEsc), 0);
  EXPECT_EQ(scan_code_for(static_cast<std::uint16_t>(kKeyUp) | kModShift), 72) << "modifier bits do not change the scan code";
}

class LineEditTest : public ::testing::Test {
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
  static void key(std::uint16_t code) { keys.push(code, 0); }
  std::string edit(int cap = 257, std::uint32_t flags = 0) {
    char buf[300];
    const int n = line_edit(buf, cap, flags);
    result = n;
    return n < 0 ? std::string("<abandoned>") : std::string(buf, static_cast<std::size_t>(n));
  }
  int result = 0;
};

TEST_F(LineEditTest, InsertMoveDeleteAndBackspace) {
  type("HELO");
  key(kKeyLeft);
  type("L");  // HELLO
  key(kKeyHome);
  key(kKeyDelete);  // ELLO
  key(kKeyEnd);
  type("W\b");  // typed and taken back
  key(kKeyRight);  // at the end: no effect
  type("!\r");
  EXPECT_EQ(edit(), "ELLO!");
  EXPECT_EQ(con.row, 1u) << "Enter puts a newline";
  EXPECT_EQ(con.cells[0][4], '!') << "the text stays on screen";
}

TEST_F(LineEditTest, OverwriteModeReplacesAndAppendsAtTheEnd) {
  type("abc");
  key(kKeyHome);
  key(kKeyInsert);  // overwrite
  type("XYZW\r");
  EXPECT_EQ(edit(), "XYZW");
  EXPECT_FALSE(edit_insert_mode) << "the mode persists to the next input";
}

TEST_F(LineEditTest, CapacityLimitsTheText) {
  type("abcdef\r");
  EXPECT_EQ(edit(4), "abc") << "at most capacity - 1 characters";
  char buf[2];
  EXPECT_EQ(line_edit(buf, 1, 0), -1) << "a capacity below 2 fails at once";
}

TEST_F(LineEditTest, EscAbandonsAndOtherControlKeysAreIgnored) {
  type("gone");
  keys.push(0, 9);   // TAB: ignored
  keys.push(0, 1);   // Ctrl+A: ignored
  key(kKeyEsc);
  EXPECT_EQ(edit(), "<abandoned>");
  type("x\r");
  EXPECT_EQ(edit(), "x") << "keys after Esc belong to the next input";
}

TEST_F(LineEditTest, KeepCursorFlagLeavesTheCursorOnTheLine) {
  put_text("? ");
  type("42\r");
  EXPECT_EQ(edit(257, kEditKeepCursor), "42");
  EXPECT_EQ(con.row, 0u);
  EXPECT_EQ(con.col, 4u);
}

TEST_F(LineEditTest, LongLinesWrapAcrossRowsInsideTheRegion) {
  con.has_window = true;
  con.win_left = 10, con.win_top = 0, con.win_right = 19, con.win_bottom = 3;
  con.row = 0, con.col = 15;
  type("0123456789ABCDEFGHIJ\r");  // 5 on the first row, 10 on the next, 5 after
  EXPECT_EQ(edit(), "0123456789ABCDEFGHIJ");
  EXPECT_EQ(con.cells[0][15], '0');
  EXPECT_EQ(con.cells[1][10], '5');
  EXPECT_EQ(con.cells[2][10], 'F');
  EXPECT_EQ(con.row_continued[1], 1);
  EXPECT_EQ(con.cells[0][9], 0) << "nothing outside the region";
}

TEST_F(LineEditTest, ScreenLinePrefixBelongsToTheTextWhenAsked) {
  put_text("100 ");
  type("PRINT\r");
  EXPECT_EQ(edit(257, kEditFromLineStart), "100 PRINT");
}

TEST_F(LineEditTest, ResetKeyAtTheReadyPromptRestoresTheScreen) {
  con.has_window = true;
  con.win_left = 1, con.win_top = 1, con.win_right = 5, con.win_bottom = 5;
  con.fg = 0x123456;
  key(kKeyReset);
  EXPECT_EQ(edit(257, kEditReadyPrompt), "<abandoned>");
  EXPECT_FALSE(con.has_window);
  EXPECT_EQ(con.fg, 0xFFFFFFu);
}

}  // namespace
