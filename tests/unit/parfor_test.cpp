// PARFOR under load (many loops on every worker, errors raised by several
// workers at once) and the profiler's figures and marks. The sanitizer
// builds run these: ASan/UBSan, and ThreadSanitizer (TAMBRIL_TSAN).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/direct.h"
#include "core/errors.h"
#include "core/exec.h"
#include "core/program.h"
#include "files/file_statements.h"
#include "host/options.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/ui.h"
#include "jit/native.h"
#include "jit/parfor.h"
#include "screen/graphics.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "tools/profile.h"
#include "tools/tools.h"
#include "values/arena.h"
#include "values/variables.h"

namespace {

class Printed : public host::Ui {
 public:
  std::string text;
  bool recreate_framebuffer(std::uint32_t, std::uint32_t) override { return false; }
  void post_close() override {}
  void console_echo(std::uint8_t c) override { text += c == 13 ? '\n' : static_cast<char>(c); }
  bool headless() const override { return true; }
  void repaint_now() override {}
};

class Parfor : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!host::shell.program_arena)
      host::shell.program_arena = static_cast<std::uint8_t*>(host::reserve_memory(host::kProgramArenaBytes));
    data_ = static_cast<std::uint8_t*>(host::reserve_memory(kData));
  }
  void SetUp() override {
    ASSERT_TRUE(screen::create_framebuffer(1024, 768));
    values::arena_init(data_, kData);
    core::init_interpreter();
    files::install_hooks();
    tools::install_hooks();
    screen::con = screen::Console{};
    screen::reset_console();
    screen::keys.clear();
    ui_.text.clear();
    host::ui = &ui_;
  }
  void TearDown() override {
    type("PROFILE OFF");
    type("OPTION PARTHREADS 0");
    host::ui = nullptr;
  }
  void type(const char* line) { core::execute_direct(line); }
  std::string run(const char* program) {
    type("NEW");
    std::string p = program;
    for (std::size_t at = 0; at < p.size();) {
      std::size_t end = p.find('\n', at);
      if (end == std::string::npos) end = p.size();
      type(p.substr(at, end - at).c_str());
      at = end + 1;
    }
    ui_.text.clear();
    type("RUN");
    return ui_.text;
  }

  static constexpr std::uint64_t kData = 64u << 20;
  static std::uint8_t* data_;
  Printed ui_;
};
std::uint8_t* Parfor::data_ = nullptr;

// Thousands of iterations on every worker, loop after loop through the same
// pool, each compared with the sequential answer.
TEST_F(Parfor, ManyLoopsOnEveryWorkerAgreeWithTheSequentialSum) {
  const std::string out = run(
      "10 OPTION PARTHREADS 32: DIM A&&(3999): BAD = 0\n"
      "20 FOR R = 1 TO 60\n"
      "30 PARFOR I = 0 TO 3999\n"
      "40 S&& = 0: FOR K% = 1 TO 20: S&& = S&& + (I * K% + R) MOD 97: NEXT K%\n"
      "50 A&&(I) = S&&\n"
      "60 NEXT I\n"
      "70 T&& = 0: FOR I = 0 TO 3999: T&& = T&& + A&&(I): NEXT I\n"
      "80 U&& = 0: FOR I = 0 TO 3999: FOR K% = 1 TO 20: U&& = U&& + (I * K% + R) MOD 97: NEXT K%, I\n"
      "90 IF T&& <> U&& THEN BAD = BAD + 1\n"
      "100 NEXT R\n"
      "110 PRINT \"bad\"; BAD; \"workers\"; PARWORKERS\n");
  EXPECT_NE(out.find("bad 0 workers"), std::string::npos) << out;
}

// Every worker fails at once: one message arrives, the first, and the pool
// is ready for the next loop.
TEST_F(Parfor, ErrorsFromManyWorkersAtOnceRaiseOneAndThePoolCarriesOn) {
  for (int round = 0; round < 20; ++round) {
    const std::string out = run(
        "10 OPTION PARTHREADS 32: DIM A%(2000)\n"
        "20 PARFOR I = 0 TO 2000\n"
        "30 A%(I) = 100 * I\n"
        "40 NEXT I\n");
    ASSERT_NE(out.find("Overflow in 30"), std::string::npos) << out;
  }
  const std::string out = run(
      "10 DIM A(999)\n"
      "20 PARFOR I = 0 TO 999\n"
      "30 A(I) = I\n"
      "40 NEXT I\n"
      "50 PRINT A(999)\n");
  EXPECT_NE(out.find(" 999"), std::string::npos) << out;
}

// Many workers drawing into the shared frame through a subroutine, loop
// after loop: each row is one iteration's, so every pixel is known.
TEST_F(Parfor, DrawingWorkersCallingSubroutinesFillTheirOwnRows) {
  const std::string out = run(
      "10 OPTION PARTHREADS 32\n"
      "20 FOR R = 1 TO 10\n"
      "30 PARFOR Y = 0 TO 767\n"
      "40 GOSUB 200\n"
      "50 NEXT Y\n"
      "60 NEXT R\n"
      "70 BAD = 0: FOR Y = 0 TO 767 STEP 7: FOR X = 0 TO 1023 STEP 31\n"
      "80 IF POINT(X, Y) <> ((X + Y * 3 + 10) MOD 256) * 65536 + 16 THEN BAD = BAD + 1\n"
      "90 NEXT X, Y: PRINT \"bad\"; BAD\n"
      "100 END\n"
      "200 LINE (0, Y)-(1023, Y), 0, 0, 0\n"
      "210 FOR X = 0 TO 1023: PSET (X, Y), ((X + Y * 3 + R) MOD 256) * 65536 + 16: NEXT X\n"
      "220 RETURN\n");
  EXPECT_NE(out.find("bad 0"), std::string::npos) << out;
}

// The drawing helper of compiled worker code: its arguments as the frame
// holds them (integers, or binary64 where the mask says so), the run-time
// guards for a state it cannot draw in.
TEST_F(Parfor, DrawHelperDecodesItsArgumentsAndKeepsTheGuards) {
  core::set_thread_error_sink([](const char*) {});
  jit::NativeFrame f{};
  double x = 2.5, colour = 14.6;
  std::memcpy(&f.subs[0], &x, sizeof x);
  f.subs[1] = 3;
  std::memcpy(&f.subs[2], &colour, sizeof colour);
  EXPECT_EQ(jit::helper_draw(&f, std::int64_t{1} << jit::kDrawColourShift, 0b101), 0)
      << "no parallel drawing in force: the state changed";
  core::set_thread_error_sink(nullptr);
  ASSERT_TRUE(screen::begin_parallel_drawing());
  EXPECT_EQ(jit::helper_draw(&f, std::int64_t{1} << jit::kDrawColourShift, 0b101), 1);
  // LINE (0,0)-(4,0), 255, 0, 0 with XOR: the worker's guard.
  const std::int64_t xor_line = jit::kDrawLine | jit::kDrawHasStart | jit::kDrawXor | std::int64_t{3} << jit::kDrawColourShift;
  static std::string raised;
  raised.clear();
  core::set_thread_error_sink([](const char* m) { raised = m; });
  for (int k = 0; k < 7; ++k) f.subs[k] = k == 2 ? 4 : k == 4 ? 255 : 0;
  EXPECT_EQ(jit::helper_draw(&f, xor_line, 0), 0);
  EXPECT_EQ(raised, "PARFOR LINE XOR is not supported; use FOR");
  core::set_thread_error_sink(nullptr);
  screen::end_parallel_drawing();
  // 2.5 rounds to 3 as the interpreter rounds pixels (halves away from 0); 14.6 to colour 15.
  EXPECT_EQ(screen::fb.back[3 * screen::fb.pitch + 3], screen::kPalette[15]);
  EXPECT_EQ(screen::fb.back[0], 0u) << "the XOR line drew nothing";
}

// MODE as the report shows it: all native, all interpreted, mixed with the
// native share rounded half up, time from PARFOR workers only, nothing.
TEST(ProfileMode, ColumnText) {
  EXPECT_EQ(tools::profile_mode_text(5, 0, 10), "JIT");
  EXPECT_EQ(tools::profile_mode_text(0, 5, 10), "INT");
  EXPECT_EQ(tools::profile_mode_text(1, 3, 10), "MIX 25J");
  EXPECT_EQ(tools::profile_mode_text(1, 7, 0), "MIX 13J");  // 12.5 rounds up
  EXPECT_EQ(tools::profile_mode_text(1, 39, 0), "MIX  3J");
  EXPECT_EQ(tools::profile_mode_text(999, 1, 0), "MIX 99J");  // never 100
  EXPECT_EQ(tools::profile_mode_text(0, 0, 10), "PAR");
  EXPECT_EQ(tools::profile_mode_text(0, 0, 0), "-");
}

TEST_F(Parfor, ProfileMarksEachStatementByHowItLastRan) {
  type("PROFILE ON MARK");
  run("10 X = 1: A$ = \"a\": B$ = A$\n"
      "20 FOR I = 1 TO 3000: Y = Y + I: NEXT I\n"
      "30 Z = 2\n");
  // Line 10: X = 1 is compiled; the string stores are not.
  // X = 1 ran natively (the region starts there and falls back at A$).
  EXPECT_EQ(tools::profile_mark(0, 0), tools::Mark::native);
  EXPECT_EQ(tools::profile_mark(0, 4), tools::Mark::unsupported);
  EXPECT_EQ(tools::profile_mark(1, 0), tools::Mark::native);
  // The loop's lines counted every run natively.
  bool found = false;
  for (const tools::LineReport& r : tools::profile_lines())
    if (r.number == 20) {
      found = true;
      EXPECT_EQ(r.mode, "JIT");
      EXPECT_EQ(r.jit_runs, 1u + 3000u + 3000u);
    }
  EXPECT_TRUE(found);
  // PROFILE MARK OFF keeps the statistics; an edit clears them.
  type("PROFILE MARK OFF");
  EXPECT_FALSE(tools::profile_lines().empty());
  type("40 REM");
  EXPECT_TRUE(tools::profile_lines().empty());
  EXPECT_EQ(tools::profile_mark(1, 0), tools::Mark::none);
}

TEST_F(Parfor, ExactProfilingRunsEverythingInTheInterpreter) {
  type("PROFILE EXACT");
  run("10 FOR I = 1 TO 50: Y = Y + I: NEXT I\n"
      "20 X = 1\n");
  for (const tools::LineReport& r : tools::profile_lines()) {
    EXPECT_EQ(r.jit_runs, 0u) << r.number;
    EXPECT_EQ(r.mode, "INT") << r.number;
  }
  EXPECT_EQ(tools::profile_mark(1, 0), tools::Mark::capable);
}

// Workers add sampled time only: the body's hot line shows PAR.
TEST_F(Parfor, ProfiledParforBodyTimeComesFromTheWorkers) {
  type("PROFILE ON");
  run("10 OPTION PARTHREADS 2: DIM A#(399)\n"
      "20 PARFOR I = 0 TO 399\n"
      "30 S# = 0: FOR K% = 1 TO 3000: S# = S# + K% * I: NEXT K%: A#(I) = S#\n"
      "40 NEXT I\n");
  bool par = false;
  for (const tools::LineReport& r : tools::profile_lines())
    if (r.number == 30) {
      par = true;
      EXPECT_EQ(r.mode, "PAR");
      EXPECT_GT(r.cycles, 0u);
    }
  EXPECT_TRUE(par);
}

}  // namespace
