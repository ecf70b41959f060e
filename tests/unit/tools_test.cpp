// The developer tools in process: the HELP table covers the whole language,
// HELP's word wrapping, and the F12 debugger driven through the key queue
// with a front end that records every frame the debugger presents.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "core/direct.h"
#include "core/errors.h"
#include "core/exec.h"
#include "core/keywords.h"
#include "core/program.h"
#include "core/statements.h"
#include "files/file_statements.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/ui.h"
#include "screen/console.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "screen/lineedit.h"
#include "tools/help.h"
#include "tools/tools.h"
#include "tools/watches.h"
#include "values/arena.h"
#include "values/builtins.h"
#include "values/variables.h"

namespace {

bool has_help(const std::string& name) { return tools::find_help_entry(name) != nullptr; }

TEST(HelpTable, EveryKeywordFunctionPseudoVariableAndStatementWordHasAnEntry) {
  for (int i = 0; core::kKeywords[i].name[0]; ++i)
    EXPECT_TRUE(has_help(core::kKeywords[i].name)) << "keyword " << core::kKeywords[i].name;
  for (int i = 0; values::function_name(i); ++i)
    EXPECT_TRUE(has_help(values::function_name(i))) << "function " << values::function_name(i);
  for (int i = 0; values::read_only_name(i); ++i)
    EXPECT_TRUE(has_help(values::read_only_name(i))) << "pseudo-variable " << values::read_only_name(i);
  for (int i = 0; values::pseudo_name(i); ++i)
    EXPECT_TRUE(has_help(values::pseudo_name(i))) << "pseudo-variable " << values::pseudo_name(i);
  for (int i = 0; core::statement_word(i); ++i)
    EXPECT_TRUE(has_help(core::statement_word(i))) << "statement " << core::statement_word(i);
  for (const core::NamedStatement& d : tools::kDirectNamed) EXPECT_TRUE(has_help(d.name)) << d.name;
  // The two-word statements and the commands of the later subsystems.
  for (const char* name : {"LINE INPUT", "ON ERROR", "ON BREAK", "ON TIMER", "ON MOUSECLICK", "OPTION BASE",
                           "OPTION ERRORPRINT", "OPTION PARTHREADS", "VIEW PRINT", "PRINT USING", "DEF FN", "JIT",
                           "PROFILE", "SOUND", "NOTE", "LOADMID", "LOADWAV", "NETINFO", "F12"})
    EXPECT_TRUE(has_help(name)) << name;
}

TEST(HelpTable, NamesAreUniqueCategoriesExistAndNeverShadowAnEntry) {
  std::set<std::string> names;
  for (int k = 0; k < tools::kHelpEntryCount; ++k) {
    const tools::HelpEntry& e = tools::kHelpEntries[k];
    EXPECT_TRUE(names.insert(e.name).second) << "twice: " << e.name;
    EXPECT_NE(tools::find_help_category(e.category), nullptr) << e.name << " in " << e.category;
    EXPECT_EQ(tools::find_help_category(e.name), nullptr) << e.name << " is also a category: HELP would never show it";
    EXPECT_TRUE(e.syntax[0] && e.text[0]) << e.name;
  }
  for (int i = 0; i < tools::kHelpCategoryCount; ++i) {
    bool used = false;
    for (int k = 0; k < tools::kHelpEntryCount; ++k)
      used |= std::strcmp(tools::kHelpEntries[k].category, tools::kHelpCategories[i].name) == 0;
    EXPECT_TRUE(used) << "empty category " << tools::kHelpCategories[i].name;
  }
  // Lookups ignore case and extra blanks; aliases find their entry.
  EXPECT_STREQ(tools::find_help_entry("  line   input ")->name, "LINE INPUT");
  EXPECT_STREQ(tools::find_help_entry("?")->name, "PRINT");
  EXPECT_STREQ(tools::find_help_entry("base")->name, "OPTION BASE");
  EXPECT_STREQ(tools::find_help_category("graphics")->name, "GRAPHICS");
  EXPECT_EQ(tools::find_help_entry("GRAPHICS"), nullptr);
}

TEST(HelpWrap, BreaksBetweenWordsIndentsAndCutsOverlongWords) {
  EXPECT_EQ(tools::wrap_text("aaa bbb ccc ddd", 8, 0), "aaa bbb\nccc ddd");
  EXPECT_EQ(tools::wrap_text("aaa bbb ccc ddd eee", 12, 2), "aaa bbb ccc\n  ddd eee");
  EXPECT_EQ(tools::wrap_text("x 0123456789012", 10, 0), "x\n0123456789\n012");
  EXPECT_EQ(tools::wrap_text("  a   b  ", 20, 0), "a b");
  EXPECT_EQ(tools::wrap_text("", 20, 0), "");
}

// A front end that keeps the console's text each time the debugger (or
// anything else) asks for a repaint, and everything printed.
class RecordingUi : public host::Ui {
 public:
  std::vector<std::vector<std::string>> frames;
  std::string printed;
  bool recreate_framebuffer(std::uint32_t, std::uint32_t) override { return false; }
  void post_close() override {}
  void console_echo(std::uint8_t c) override { printed += static_cast<char>(c); }
  bool headless() const override { return true; }
  void repaint_now() override {
    std::vector<std::string> rows;
    for (std::uint32_t r = 0; r < screen::text_rows(); ++r) {
      std::string row(reinterpret_cast<const char*>(screen::con.cells[r]), screen::text_columns());
      while (!row.empty() && row.back() == ' ') row.pop_back();
      rows.push_back(row);
    }
    frames.push_back(rows);
  }
  bool frame_has(std::size_t i, const std::string& text) const {
    for (const std::string& row : frames[i])
      if (row.find(text) != std::string::npos) return true;
    return false;
  }
};

class Debugger : public ::testing::Test {
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
    screen::clear_region();
    screen::keys.clear();
    screen::keys.debugger_request.store(0);
    ui_.frames.clear();
    ui_.printed.clear();
    host::ui = &ui_;
  }
  void TearDown() override {
    host::ui = nullptr;
    tools::clear_watches();
    int n;
    for (std::uint32_t* bp = core::breakpoint_list(&n); n > 0; bp = core::breakpoint_list(&n))
      ASSERT_TRUE(core::toggle_breakpoint(bp[0]));
    core::debug_request = false;
  }
  void type(const char* line) { core::execute_direct(line); }
  void keys(const char* chars) {
    for (const char* c = chars; *c; ++c) screen::keys.push(0, static_cast<std::uint8_t>(*c));
  }
  void key(std::uint16_t code) { screen::keys.push(code, 0); }

  static constexpr std::uint64_t kData = 64u << 20;
  static std::uint8_t* data_;
  RecordingUi ui_;
};
std::uint8_t* Debugger::data_ = nullptr;

TEST_F(Debugger, StepsOneStatementAtATimeThenContinuesAndPutsTheScreenBack) {
  type("10 A = 1: B = 2");
  type("20 A = A + 10");
  type("30 PRINT A; B");
  screen::put_text("before");
  const std::uint8_t cell = screen::con.cells[0][0];
  core::debug_request = true;  // as if F12 had been seen by the break poll
  keys("ss");                  // two single steps, then F5
  key(screen::kKeyF1 + 4);
  type("RUN");
  ASSERT_EQ(ui_.frames.size() >= 3u, true);
  // First view: before line 10's first statement; variables not yet made.
  EXPECT_TRUE(ui_.frame_has(0, "line 10, column 1"));
  EXPECT_TRUE(ui_.frame_has(0, "(none)"));
  // After one step: the second statement of line 10, A already 1.
  std::size_t second = 0;
  for (std::size_t i = 1; i < ui_.frames.size(); ++i)
    if (ui_.frame_has(i, "line 10, column 8")) second = i;
  ASSERT_NE(second, 0u);
  EXPECT_TRUE(ui_.frame_has(second, "A               1"));
  // After the second step: line 20 with B = 2.
  bool line20 = false;
  for (std::size_t i = second; i < ui_.frames.size(); ++i)
    line20 |= ui_.frame_has(i, "line 20, column 1") && ui_.frame_has(i, "B               2");
  EXPECT_TRUE(line20);
  EXPECT_NE(ui_.printed.find(" 11  2"), std::string::npos) << "continue runs the program to its end";
  EXPECT_EQ(screen::con.cells[0][0], cell) << "the program's screen is back";
  EXPECT_FALSE(screen::con.full_screen_override);
}

TEST_F(Debugger, SetsBreakpointsAddsWatchesAndStopsTheProgram) {
  type("10 X = 5");
  type("20 X = X * 2");
  type("30 PRINT X");
  core::debug_request = true;
  // Down to line 20, breakpoint there, a watch on X, then Esc stops the run.
  key(screen::kKeyDown);
  keys("b");
  keys("wx\r");
  key(screen::kKeyEsc);
  type("RUN");
  int n;
  const std::uint32_t* bp = core::breakpoint_list(&n);
  ASSERT_EQ(n, 1);
  EXPECT_EQ(bp[0], 20u);
  ASSERT_EQ(tools::watch_count(), 1u);
  EXPECT_EQ(tools::watch_text(0), "X");
  EXPECT_NE(ui_.printed.find("Break in 10"), std::string::npos) << ui_.printed;
  bool shown = false;
  for (std::size_t i = 0; i < ui_.frames.size(); ++i) shown |= ui_.frame_has(i, "* 20 X = X * 2");
  EXPECT_TRUE(shown) << "the breakpoint is marked in the listing";
  // CONT runs line 10 (the watch reports), then stops at the breakpoint.
  ui_.printed.clear();
  type("CONT");
  EXPECT_NE(ui_.printed.find("[10] X = 5"), std::string::npos) << ui_.printed;
  EXPECT_NE(ui_.printed.find("Breakpoint in 20"), std::string::npos) << ui_.printed;
}

TEST_F(Debugger, ListMarksBreakpointLinesInTheBreakpointColours) {
  type("10 PRINT 1");
  type("20 PRINT 2");
  type("BREAK 20");
  type("CLS");
  type("LIST");
  EXPECT_EQ(screen::con.cells[1][0], '2');
  EXPECT_EQ(screen::con.cell_colours[0][0], 0xFFFFFFu) << "line 10 in the text colour";
  EXPECT_EQ(screen::con.cell_colours[1][0], core::kBreakpointFg);
  EXPECT_EQ(screen::con.cell_colours[1][9], core::kBreakpointFg) << "the whole line, body included";
  EXPECT_EQ(screen::con.fg, 0xFFFFFFu) << "the colours are back after the listing";
}

TEST_F(Debugger, F12AtThePromptShowsThePausedProgramAndGivesTheEditorBack) {
  type("10 A$ = \"hi\": STOP");
  type("20 PRINT A$");
  type("RUN");
  // F12 while the line editor waits, then Esc leaves the debugger; the
  // editor goes on with the line typed after it. The view stands where CONT
  // would go on: behind the STOP, at line 20.
  screen::keys.debugger_request.store(1);
  key(screen::kKeyEsc);
  keys("PRINT 7\r");
  char line[257];
  const int n = screen::line_edit(line, sizeof line, screen::kEditReadyPrompt);
  ASSERT_EQ(n, 7);
  EXPECT_STREQ(line, "PRINT 7");
  bool shown = false;
  for (std::size_t i = 0; i < ui_.frames.size(); ++i)
    shown |= ui_.frame_has(i, "line 20, column 1") && ui_.frame_has(i, "A$              \"hi\"");
  EXPECT_TRUE(shown);
  EXPECT_EQ(screen::keys.debugger_request.load(), 0u);
}

}  // namespace
