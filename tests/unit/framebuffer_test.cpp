// Framebuffer creation limits, mouse re-centring, palette, letterbox mapping.
#include <gtest/gtest.h>

#include <vector>

#include "screen/framebuffer.h"
#include "screen/mouse.h"
#include "screen/present.h"

using namespace screen;

TEST(Framebuffer, CreationLimits) {
  ASSERT_TRUE(create_framebuffer(1024, 768));
  EXPECT_EQ(fb.pitch, 1024u);
  EXPECT_EQ(fb.pixel_count, 1024u * 768u);
  EXPECT_TRUE(create_framebuffer(8, 16)) << "the smallest frame";
  EXPECT_FALSE(create_framebuffer(7, 16));
  EXPECT_FALSE(create_framebuffer(8, 15));
  EXPECT_FALSE(create_framebuffer(8192, 8193)) << "one row too many";
  EXPECT_EQ(fb.width, 8u) << "a refused size keeps the old buffers";
  EXPECT_EQ(fb.height, 16u);
  EXPECT_TRUE(create_framebuffer(8192, 8192)) << "exactly 67,108,864 pixels";
  EXPECT_EQ(fb.pixel_count, 67108864u);
  EXPECT_FALSE(create_framebuffer(8193, 100));
  EXPECT_EQ(fb.dirty.load(), kDirtyAll);
  EXPECT_EQ(fb.front[fb.pixel_count - 1], 0u) << "new buffers are zeroed";
  ASSERT_TRUE(create_framebuffer(1024, 768));
}

TEST(Framebuffer, MouseIsRecentredWhenOutsideTheNewFrame) {
  ASSERT_TRUE(create_framebuffer(1024, 768));
  mouse.x = 900, mouse.y = 700;
  ASSERT_TRUE(create_framebuffer(640, 480));
  EXPECT_EQ(mouse.x.load(), 320);
  EXPECT_EQ(mouse.y.load(), 240);
  mouse.x = 10, mouse.y = 20;
  ASSERT_TRUE(create_framebuffer(1024, 768));
  EXPECT_EQ(mouse.x.load(), 10) << "a position still inside stays";
  EXPECT_EQ(mouse.y.load(), 20);
  mouse.x = -1;
  ASSERT_TRUE(create_framebuffer(1024, 768));
  EXPECT_EQ(mouse.x.load(), 512) << "a negative position is re-centred";
}

TEST(Framebuffer, PaletteAndPointMapping) {
  std::uint32_t rgb = 0;
  EXPECT_TRUE(colour_from_number(15, &rgb));
  EXPECT_EQ(rgb, 0xFFFFFFu);
  EXPECT_TRUE(colour_from_number(16, &rgb));
  EXPECT_EQ(rgb, 0x000010u) << "16 is a packed colour, not a palette entry";
  EXPECT_TRUE(colour_from_number(0x1ABCDEF, &rgb));
  EXPECT_EQ(rgb, 0xABCDEFu) << "only the low 24 bits count";
  EXPECT_FALSE(colour_from_number(-1, &rgb));
  EXPECT_EQ(point_value(0x0000AA), 1);
  EXPECT_EQ(point_value(0x000000), 0);
  EXPECT_EQ(point_value(0x123456), 0x123456);
}

TEST(Framebuffer, RefreshCopiesTheBackBuffer) {
  ASSERT_TRUE(create_framebuffer(64, 32));
  fb.back[5] = 0xABCDEF;
  fb.back[64 * 31 + 63] = 0x123456;
  refresh_rect(0, 0, 10, 1);
  EXPECT_EQ(fb.front[5], 0xABCDEFu);
  EXPECT_EQ(fb.front[64 * 31 + 63], 0u) << "outside the rectangle";
  refresh_rect(-5, -5, 1000, 1000);  // clamped, not a crash
  EXPECT_EQ(fb.front[64 * 31 + 63], 0x123456u);
  refresh_all();
  EXPECT_EQ(fb.dirty.load(), kDirtyNone);
  ASSERT_TRUE(create_framebuffer(1024, 768));
}

TEST(Present, LetterboxKeepsAspectAndCentres) {
  Rect r = letterbox(1024, 768, 1024, 768);
  EXPECT_EQ(r.x, 0);
  EXPECT_EQ(r.w, 1024);
  r = letterbox(1920, 1080, 1024, 768);  // wide screen: bars left and right
  EXPECT_EQ(r.h, 1080);
  EXPECT_EQ(r.w, 1440);
  EXPECT_EQ(r.x, 240);
  EXPECT_EQ(r.y, 0);
  r = letterbox(1024, 1024, 1024, 768);  // tall: bars top and bottom
  EXPECT_EQ(r.w, 1024);
  EXPECT_EQ(r.h, 768);
  EXPECT_EQ(r.y, 128);
  r = letterbox(1, 1, 8192, 16);
  EXPECT_GE(r.w, 1);
  EXPECT_GE(r.h, 1) << "never collapses to nothing";
}

TEST(Present, ClientPositionMapsBackThroughTheLetterboxAndIsClamped) {
  ASSERT_TRUE(create_framebuffer(1024, 768));
  std::int32_t x, y;
  client_to_frame(240 + 720, 540, 1920, 1080, &x, &y);
  EXPECT_EQ(x, 512);
  EXPECT_EQ(y, 384);
  client_to_frame(10, 10, 1920, 1080, &x, &y);  // in the left bar
  EXPECT_EQ(x, 0);
  client_to_frame(1919, 1079, 1920, 1080, &x, &y);
  EXPECT_EQ(x, 1023);
  EXPECT_EQ(y, 767);
}

TEST(Present, CursorOverlayIsDrawnIntoTheCopyOnly) {
  ASSERT_TRUE(create_framebuffer(1024, 768));
  std::vector<std::uint32_t> copy(1024 * 768);
  cursor.col = 2, cursor.row = 1, cursor.colour = 0xFF0000, cursor.insert = 0, cursor.visible = 1;
  ASSERT_TRUE(compose_frame(copy.data(), 1024, 1024, 768));
  EXPECT_EQ(copy[(16 + 13) * 1024 + 16], 0xFF0000u) << "overwrite: underline on pixel rows 13-15";
  EXPECT_EQ(copy[(16 + 12) * 1024 + 16], 0u);
  EXPECT_EQ(copy[(16 + 15) * 1024 + 23], 0xFF0000u);
  EXPECT_EQ(fb.front[(16 + 13) * 1024 + 16], 0u) << "never into the framebuffer";
  cursor.insert = 1;
  std::fill(copy.begin(), copy.end(), 0u);
  ASSERT_TRUE(compose_frame(copy.data(), 1024, 1024, 768));
  EXPECT_EQ(copy[16 * 1024 + 17], 0xFF0000u) << "insert: a bar two pixels wide";
  EXPECT_EQ(copy[16 * 1024 + 18], 0u);
  cursor.col = 200;  // beyond the frame: skipped
  ASSERT_TRUE(compose_frame(copy.data(), 1024, 1024, 768));
  cursor.visible = 0;
  EXPECT_FALSE(compose_frame(copy.data(), 1024, 640, 480)) << "size mismatch";
}

TEST(Mouse, ButtonsClicksAndDoubleClicks) {
  clear_clicks();
  mouse.buttons = 0;
  EXPECT_TRUE(mouse_button_down(1, 100, 100, 1000));
  EXPECT_FALSE(mouse_button_down(1, 100, 100, 1001)) << "a held button is not a new press";
  EXPECT_TRUE(mouse_button_up(1)) << "no button remains down";
  EXPECT_TRUE(mouse_button_down(1, 105, 110, 1300));
  EXPECT_TRUE(mouse_button_down(2, 105, 110, 1310));
  EXPECT_FALSE(mouse_button_up(1)) << "the right button is still down";
  EXPECT_TRUE(mouse_button_up(2));
  Click c;
  ASSERT_TRUE(take_click(&c));
  EXPECT_FALSE(c.double_click);
  ASSERT_TRUE(take_click(&c));
  EXPECT_TRUE(c.double_click) << "same button, 300 ms, within 16 pixels";
  ASSERT_TRUE(take_click(&c));
  EXPECT_EQ(c.mask, 3u);
  EXPECT_FALSE(c.double_click) << "another button never pairs";
  EXPECT_FALSE(take_click(&c));
  mouse_button_down(4, 0, 0, 5000);
  mouse_capture_lost();
  EXPECT_EQ(mouse.buttons.load(), 0u);
  mouse.moved = 0;
  mouse_move(0, 0);
  EXPECT_EQ(mouse.moved.load(), 0u) << "no change, no move";
  mouse_move(1, 0);
  EXPECT_EQ(mouse.moved.load(), 1u);
  const std::int32_t w = mouse.wheel.load();
  mouse_wheel(-120);
  EXPECT_EQ(mouse.wheel.load(), w - 120);
  clear_clicks();
}
