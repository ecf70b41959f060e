// Console put-character: TAB, wrapping, row-continued flags, region scrolling.
#include <gtest/gtest.h>

#include <cstring>

#include "screen/console.h"
#include "screen/font.h"
#include "screen/framebuffer.h"

using namespace screen;

namespace {

class ConsoleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(create_framebuffer(1024, 768));
    con = Console{};
    reset_console();
    clear_region();
  }
  static std::uint32_t pixel(std::uint32_t x, std::uint32_t y) { return fb.front[y * fb.pitch + x]; }
};

TEST_F(ConsoleTest, TabMovesToNextStopOfEightFromRegionLeft) {
  put_char(9);
  EXPECT_EQ(con.col, 8u) << "TAB at column 0 prints 8 spaces";
  for (int i = 0; i < 7; ++i) put_char('x');
  EXPECT_EQ(con.col, 15u);
  put_char(9);
  EXPECT_EQ(con.col, 16u) << "TAB at column 7 of a stop prints 1 space";
  // Measured from a text window's left edge, not from column 0.
  con.has_window = true;
  con.win_left = 3, con.win_top = 5, con.win_right = 40, con.win_bottom = 10;
  con.row = 5, con.col = 3;
  put_char(9);
  EXPECT_EQ(con.col, 11u);
}

TEST_F(ConsoleTest, WrapMarksRowContinuedButLineBreakDoesNot) {
  for (int i = 0; i < 128; ++i) put_char('A');
  EXPECT_EQ(con.row, 1u);
  EXPECT_EQ(con.col, 0u);
  EXPECT_EQ(con.row_continued[1], 1) << "the 129th position wraps into a continued row";
  put_char('B');
  EXPECT_EQ(con.cells[1][0], 'B');
  // A CR at the right edge (cursor on column 127) ends the row normally.
  con.row = 5, con.col = 127;
  put_char(13);
  EXPECT_EQ(con.row, 6u);
  EXPECT_EQ(con.row_continued[6], 0);
}

TEST_F(ConsoleTest, CellsKeepCharacterAndColourAndGlyphIsDrawn) {
  con.fg = 0x00AA00;
  put_char(219);  // full block
  EXPECT_EQ(con.cells[0][0], 219);
  EXPECT_EQ(con.cell_colours[0][0], 0x00AA00u);
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 8; ++x) ASSERT_EQ(pixel(x, y), 0x00AA00u) << x << "," << y;
  EXPECT_EQ(fb.back[3 * fb.pitch + 3], 0x00AA00u) << "both buffers receive the glyph";
  put_char('\n');
  EXPECT_EQ(con.row, 1u);
  EXPECT_EQ(con.col, 0u) << "LF is a full newline too";
}

TEST_F(ConsoleTest, ScrollingInsideTextWindowLeavesTheRestUntouched) {
  // Fill the whole screen with 'o', then scroll a small window many times.
  for (std::uint32_t r = 0; r < text_rows(); ++r)
    for (std::uint32_t c = 0; c < text_columns(); ++c) put_cell(r, c, 'o');
  const std::uint32_t outside_before = pixel(8 * 50, 16 * 20 + 5);
  con.has_window = true;
  con.win_left = 10, con.win_top = 2, con.win_right = 19, con.win_bottom = 4;
  con.row = 2, con.col = 10;
  put_text("1111111111");  // fills row 2 exactly, wraps to row 3
  put_text("2222222222");
  put_text("3333333333");  // row 4, then the cursor passes the bottom: scroll
  put_text("4444");
  EXPECT_EQ(con.cells[2][10], '2');
  EXPECT_EQ(con.cells[3][10], '3');
  EXPECT_EQ(con.cells[4][10], '4');
  EXPECT_EQ(con.cells[4][14], ' ') << "the new bottom row is blank";
  EXPECT_EQ(con.cells[1][10], 'o') << "the row above the window is untouched";
  EXPECT_EQ(con.cells[5][10], 'o') << "the row below the window is untouched";
  EXPECT_EQ(con.cells[2][9], 'o') << "the column left of the window is untouched";
  EXPECT_EQ(con.cells[2][20], 'o') << "the column right of the window is untouched";
  EXPECT_EQ(pixel(8 * 50, 16 * 20 + 5), outside_before);
  // Pixels moved with the cells: row 2 now shows the glyph of '2'.
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 8; ++x) {
      const bool on = kFont8x16['2' * 16 + y] & (0x80 >> x);
      ASSERT_EQ(pixel(80 + x, 32 + y), on ? 0xFFFFFFu : 0u) << x << "," << y;
    }
}

TEST_F(ConsoleTest, FormFeedClearsOnlyTheRegionAndHomesTheCursor) {
  put_text("keep");
  con.has_viewport = true;
  con.view_top = 10, con.view_bottom = 20;
  con.row = 15;
  put_text("gone");
  put_char(12);
  EXPECT_EQ(con.row, 10u);
  EXPECT_EQ(con.col, 0u);
  EXPECT_EQ(con.cells[15][0], ' ');
  EXPECT_EQ(con.cells[0][0], 'k') << "rows outside the print viewport stay";
}

TEST_F(ConsoleTest, CursorOutsideTheRegionIsClampedBeforeDrawing) {
  con.has_window = true;
  con.win_left = 4, con.win_top = 4, con.win_right = 8, con.win_bottom = 6;
  con.row = 0, con.col = 100;
  put_char('Z');
  EXPECT_EQ(con.cells[4][4], 'Z');
}

TEST_F(ConsoleTest, GridSizeFollowsTheFramebuffer) {
  EXPECT_EQ(text_columns(), 128u);
  EXPECT_EQ(text_rows(), 48u);
  ASSERT_TRUE(create_framebuffer(8, 16));
  EXPECT_EQ(text_columns(), 1u);
  EXPECT_EQ(text_rows(), 1u);
  reset_console();
  put_text("ab");  // each character wraps and scrolls the 1x1 grid
  EXPECT_EQ(con.cells[0][0], ' ');
  ASSERT_TRUE(create_framebuffer(4096, 4096));
  EXPECT_EQ(text_columns(), 256u) << "columns are capped at 256";
  EXPECT_EQ(text_rows(), 128u) << "rows are capped at 128";
}

}  // namespace
