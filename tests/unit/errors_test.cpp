// The raise routine, ERR numbering and error printing.
#include <gtest/gtest.h>

#include <string>

#include "core/errors.h"
#include "host/ui.h"
#include "screen/console.h"
#include "screen/framebuffer.h"

using namespace core;

namespace {

// Captures what the console puts, as the headless front end would.
struct Capture : host::Ui {
  bool recreate_framebuffer(std::uint32_t, std::uint32_t) override { return false; }
  void post_close() override {}
  void console_echo(std::uint8_t c) override { text += static_cast<char>(c); }
  std::string text;
};

class Errors : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(screen::create_framebuffer(1024, 768));
    screen::con = screen::Console{};
    screen::reset_console();
    host::ui = &ui;
    reset_errors();
    err.print_switch = 0;
    program_running = false;
  }
  void TearDown() override {
    host::ui = nullptr;
    program_running = false;
    err.print_switch = 0;
    err.hook = nullptr;
    err.silent = false;
  }
  Capture ui;
};

TEST_F(Errors, TableNumbersAndUnknownMessages) {
  EXPECT_EQ(err_number(), 0) << "before any error";
  EXPECT_EQ(error_number_for("NEXT without FOR"), 1);
  EXPECT_EQ(error_number_for("Syntax error"), 2);
  EXPECT_EQ(error_number_for("Syntax Error"), 2);
  EXPECT_EQ(error_number_for("Wrong number of subscripts"), 9);
  EXPECT_EQ(error_number_for("Can't continue"), 17);
  EXPECT_EQ(error_number_for("Undefined user function"), 18);
  EXPECT_EQ(error_number_for("Bad file name"), 52);
  EXPECT_EQ(error_number_for("Bad file mode"), 54);
  EXPECT_EQ(error_number_for("Too many tokens"), 255);
  EXPECT_EQ(error_number_for("syntax error"), 255) << "exact and case-sensitive";
}

TEST_F(Errors, DirectModePrintsTheMessageAloneAtTheLeftColumn) {
  screen::put_text("abc");
  raise("Overflow");
  EXPECT_EQ(ui.text, "abc\nOverflow\n");
  EXPECT_TRUE(err.flag);
  EXPECT_EQ(err_number(), 6);
  EXPECT_EQ(err.line, 0u);
}

TEST_F(Errors, FirstErrorOfAStatementWins) {
  raise("Type mismatch");
  raise("Overflow");
  EXPECT_STREQ(err.message, "Type mismatch");
  EXPECT_EQ(ui.text, "Type mismatch\n") << "the second raise prints nothing";
  clear_error_flag();
  raise("Overflow");
  EXPECT_EQ(err_number(), 6);
}

TEST_F(Errors, ErrorStatementNumbers) {
  error_statement(6);
  EXPECT_STREQ(err.message, "User-defined error");
  EXPECT_EQ(err_number(), 6) << "ERR is n even where the table has a message";
  clear_error_flag();
  error_statement(255);
  EXPECT_EQ(err_number(), 255);
  clear_error_flag();
  error_statement(0);
  EXPECT_STREQ(err.message, "Illegal function call");
  EXPECT_EQ(err_number(), 5);
  clear_error_flag();
  error_statement(256);
  EXPECT_EQ(err_number(), 5);
}

TEST_F(Errors, ProgramErrorsPrintWithTheLineWhenTheRunStops) {
  program_running = true;
  raise("Division by zero");
  EXPECT_EQ(ui.text, "") << "OPTION ERRORPRINT 0: nothing at the raise";
  err.line = 120;
  print_stopped_error();
  EXPECT_EQ(ui.text, "Division by zero in 120\n");
  ui.text.clear();
  clear_error_flag();
  err.print_switch = 1;
  screen::put_text("x");
  raise("Out of DATA");
  EXPECT_EQ(ui.text, "x\nOut of DATA") << "OPTION ERRORPRINT 1: the message at once";
  err.line = 30;
  print_stopped_error();
  EXPECT_EQ(ui.text, "x\nOut of DATA in 30\n");
}

TEST_F(Errors, HookSilentModeAndLongMessages) {
  static std::string hooked;
  err.hook = [](const char* m) { hooked = m; };
  raise("Overflow");
  EXPECT_EQ(hooked, "Overflow");
  EXPECT_TRUE(err.flag);
  EXPECT_EQ(ui.text, "");
  err.hook = nullptr;
  clear_error_flag();
  err.silent = true;
  raise("Overflow");
  EXPECT_FALSE(err.flag);
  err.silent = false;
  program_running = true;
  raise(std::string(5000, 'm').c_str());
  EXPECT_EQ(std::string(err.message).size(), 4095u);
  clear_error_flag();
  raise_value("from a value", 12);
  EXPECT_TRUE(err.message_is_value);
  EXPECT_STREQ(err.message, "from a value");
}

}  // namespace
