// The terminal front end's portable halves: key decoding from escape
// sequences, incremental drawing, the text grid sized to the terminal, and
// INKEY$ pacing.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "host/headless/term_keys.h"
#include "host/headless/term_screen.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"

using host::TermKeyDecoder;
using screen::KeyEntry;

namespace {

std::vector<KeyEntry> decode(const std::string& bytes, bool flush = false) {
  TermKeyDecoder d;
  std::vector<KeyEntry> out;
  d.feed(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), &out);
  if (flush) d.flush(&out);
  return out;
}

std::vector<std::uint16_t> codes(const std::string& bytes, bool flush = false) {
  std::vector<std::uint16_t> out;
  for (const KeyEntry& k : decode(bytes, flush)) out.push_back(k.code ? k.code : static_cast<std::uint16_t>(1000 + k.ch));
  return out;
}

constexpr std::uint16_t ch(char c) { return static_cast<std::uint16_t>(1000 + static_cast<unsigned char>(c)); }

TEST(TermKeys, CursorAndEditingKeysInTheirCommonSpellings) {
  using namespace screen;
  EXPECT_EQ(codes("\x1b[A\x1b[B\x1b[C\x1b[D"), (std::vector<std::uint16_t>{kKeyUp, kKeyDown, kKeyRight, kKeyLeft}));
  EXPECT_EQ(codes("\x1bOA\x1bOH\x1bOF"), (std::vector<std::uint16_t>{kKeyUp, kKeyHome, kKeyEnd}));
  EXPECT_EQ(codes("\x1b[H\x1b[F\x1b[1~\x1b[4~\x1b[7~\x1b[8~"),
            (std::vector<std::uint16_t>{kKeyHome, kKeyEnd, kKeyHome, kKeyEnd, kKeyHome, kKeyEnd}));
  EXPECT_EQ(codes("\x1b[2~\x1b[3~\x1b[5~\x1b[6~"),
            (std::vector<std::uint16_t>{kKeyInsert, kKeyDelete, kKeyPageUp, kKeyPageDown}));
  // Modifier parameters are read past: Ctrl+Right is still Right.
  EXPECT_EQ(codes("\x1b[1;5C\x1b[3;2~"), (std::vector<std::uint16_t>{kKeyRight, kKeyDelete}));
}

TEST(TermKeys, FunctionKeys) {
  using namespace screen;
  std::vector<std::uint16_t> f;
  for (int i = 0; i < 10; ++i) f.push_back(static_cast<std::uint16_t>(kKeyF1 + i));
  EXPECT_EQ(codes("\x1bOP\x1bOQ\x1bOR\x1bOS\x1b[15~\x1b[17~\x1b[18~\x1b[19~\x1b[20~\x1b[21~"), f);
  EXPECT_EQ(codes("\x1b[11~\x1b[12~\x1b[13~\x1b[14~"), (std::vector<std::uint16_t>(f.begin(), f.begin() + 4)));
  EXPECT_EQ(codes("\x1b[[A\x1b[[E"), (std::vector<std::uint16_t>{kKeyF1, kKeyF1 + 4}));  // Linux console
  EXPECT_EQ(codes("\x1b[1;2P"), (std::vector<std::uint16_t>{kKeyF1}));
  EXPECT_EQ(codes("\x1b[23~\x1b[24~"), (std::vector<std::uint16_t>{kKeyF11, kKeyDebugger}));
  EXPECT_TRUE(codes("\x1b[99~\x1b[I").empty()) << "unknown keys and focus reports are dropped";
}

TEST(TermKeys, EscNeedsItsTimeOutAndAltGivesTheKey) {
  TermKeyDecoder d;
  std::vector<KeyEntry> out;
  const unsigned char esc = 27;
  d.feed(&esc, 1, &out);
  EXPECT_TRUE(out.empty()) << "a lone Esc waits: it may start a sequence";
  EXPECT_TRUE(d.pending());
  d.flush(&out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].code, screen::kKeyEsc);
  EXPECT_FALSE(d.pending());
  EXPECT_EQ(codes("\x1b\x1b", true), (std::vector<std::uint16_t>{screen::kKeyEsc, screen::kKeyEsc}));
  EXPECT_EQ(codes("\x1bx"), (std::vector<std::uint16_t>{ch('x')})) << "Alt+x";
  EXPECT_TRUE(codes("\x1b[", true).empty()) << "an unfinished sequence is not an Esc";
}

TEST(TermKeys, ControlBytesUtf8AndLineEnds) {
  using namespace screen;
  EXPECT_EQ(codes("\x03"), (std::vector<std::uint16_t>{kKeyEsc})) << "Ctrl+C breaks";
  EXPECT_EQ(codes("a\r\n\rb\n"), (std::vector<std::uint16_t>{ch('a'), ch('\r'), ch('\r'), ch('b'), ch('\r')}))
      << "CR, LF and CR LF are one Enter each";
  EXPECT_EQ(codes("\x7f\x08\t\x04"), (std::vector<std::uint16_t>{ch(8), ch(8), ch(9), ch(4)}));
  EXPECT_EQ(codes("\xc3\xa9\xe2\x94\x80"), (std::vector<std::uint16_t>{ch('\x82'), ch('\xc4')})) << "é and ─";
  EXPECT_EQ(codes("\xc3x"), (std::vector<std::uint16_t>{ch('?'), ch('x')})) << "broken UTF-8";
  EXPECT_TRUE(codes("\xe2\x82\xac").empty()) << "no code page 437 euro sign";
}

host::TermFrame frame(std::uint32_t cols, std::uint32_t rows) {
  host::TermFrame f;
  f.cols = cols;
  f.rows = rows;
  f.cells.assign(static_cast<std::size_t>(cols) * rows, host::TermCell{});
  return f;
}

TEST(TermScreen, FirstFrameWholeThenOnlyChangedCells) {
  host::TermScreen s(host::TermColours::kTrue);
  host::TermFrame f = frame(4, 2);
  f.cells[0].ch = 'A';
  std::string out;
  s.update(f, &out);
  EXPECT_NE(out.find("\x1b[2J"), std::string::npos);
  EXPECT_NE(out.find("38;2;255;255;255;48;2;0;0;0m"), std::string::npos);
  EXPECT_NE(out.find("A   "), std::string::npos) << "a row's cells follow each other without moves";
  out.clear();
  s.update(f, &out);
  EXPECT_EQ(out, "") << "nothing changed, nothing written";
  f.cells[6] = {'Z', 0xFFFF55, 0x0000AA};  // row 2, column 3
  s.update(f, &out);
  EXPECT_EQ(out, "\x1b[?25l\x1b[2;3H\x1b[38;2;255;255;85;48;2;0;0;170mZ\x1b[?25l");
  out.clear();
  f.cursor_visible = true;
  f.cursor_row = 1;
  f.cursor_col = 0;
  s.update(f, &out);
  EXPECT_EQ(out, "\x1b[2;1H\x1b[6 q\x1b[?25h") << "insert mode shows a bar";
  out.clear();
  s.invalidate();
  s.update(f, &out);
  EXPECT_NE(out.find("\x1b[2J"), std::string::npos) << "invalidated: everything again";
}

TEST(TermScreen, FewerColoursAndCodePage437Glyphs) {
  host::TermFrame f = frame(3, 1);
  f.cells[0] = {1, 0xFFFF55, 0x0000AA};  // ☺ in yellow on blue
  f.cells[1] = {219, 0x00AA00, 0x123456};
  std::string out;
  host::TermScreen(host::TermColours::k16).update(f, &out);
  EXPECT_NE(out.find("\x1b[93;44m\xe2\x98\xba"), std::string::npos) << out;
  EXPECT_NE(out.find("\x1b[32;100m\xe2\x96\x88"), std::string::npos) << "nearest console colours: " << out;
  out.clear();
  host::TermScreen(host::TermColours::k256).update(f, &out);
  EXPECT_NE(out.find("38;5;227;48;5;19m"), std::string::npos) << out;
  EXPECT_EQ(host::detect_term_colours("truecolor", "xterm"), host::TermColours::kTrue);
  EXPECT_EQ(host::detect_term_colours(nullptr, "xterm-256color"), host::TermColours::k256);
  EXPECT_EQ(host::detect_term_colours("", "vt100"), host::TermColours::k16);
}

TEST(TermGrid, TheTerminalSizesTheTextGridAndBackgroundsAreKept) {
  ASSERT_TRUE(screen::create_framebuffer(1024, 768));
  screen::con = screen::Console{};
  screen::reset_console();
  screen::set_text_grid(40, 10);
  EXPECT_EQ(screen::text_columns(), 40u);
  EXPECT_EQ(screen::text_rows(), 10u);
  screen::con.bg = 0x0000AA;
  for (int i = 0; i < 41; ++i) screen::put_char('x');
  EXPECT_EQ(screen::con.row, 1u) << "wrapped at the terminal's width";
  EXPECT_EQ(screen::con.cell_backgrounds[0][5], 0x0000AAu);
  for (int i = 0; i < 20; ++i) screen::put_char(13);
  EXPECT_EQ(screen::con.row, 9u) << "scrolled at the terminal's height";
  screen::set_text_grid(0, 0);
  EXPECT_EQ(screen::text_columns(), 128u);
  screen::reset_console();
}

TEST(InkeyPacing, AWaitLoopWaitsAndAKeyEndsTheWaitAtOnce) {
  screen::KeyQueue q;
  KeyEntry k;
  using Clock = std::chrono::steady_clock;
  // Unpaced, every empty poll returns within microseconds; paced, once the
  // polls have kept coming for 10 ms each one waits about 2 ms. Counting the
  // long polls (not all polls) keeps a preempted test from failing, and a
  // busy machine (whose preemptions break the runs of polls) gets longer.
  const auto start = Clock::now();
  int long_polls = 0;
  while (long_polls < 10 && Clock::now() - start < std::chrono::seconds(5)) {
    const auto t0 = Clock::now();
    EXPECT_FALSE(q.poll(&k));
    if (Clock::now() - t0 >= std::chrono::milliseconds(1)) ++long_polls;
  }
  EXPECT_GE(long_polls, 10) << "no pacing";
  std::thread typist([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    q.push(0, 'k');
  });
  const auto wait_start = Clock::now();
  while (!q.poll(&k)) {
  }
  typist.join();
  EXPECT_EQ(k.ch, 'k');
  EXPECT_LT(Clock::now() - wait_start, std::chrono::seconds(5));
}

}  // namespace
