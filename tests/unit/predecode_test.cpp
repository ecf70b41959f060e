// Decoded expressions against the token walk: random expressions over every
// numeric type, strings and array elements must give the same type, the same
// bits and the same error on every evaluation, decoded or not.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/errors.h"
#include "core/tokenizer.h"
#include "host/platform.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/eval_detail.h"
#include "values/predecode.h"
#include "values/store.h"
#include "values/strings.h"
#include "values/variables.h"

using namespace values;

namespace {

constexpr std::uint64_t kArenaBytes = 64ull << 20;

struct Outcome {
  std::string error;
  std::uint8_t type = 0;
  std::string bits;  // the payload the type names
};

class Predecode : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { base_ = static_cast<std::uint8_t*>(host::reserve_memory(kArenaBytes)); }
  void SetUp() override {
    ASSERT_NE(base_, nullptr);
    arena_init(base_, kArenaBytes);
    clear_variables();
    core::reset_errors();
    core::program_running = true;  // errors are recorded, not printed
    set("A%", Value::integer(-7));
    set("B&", Value::integer(100000, kLong));
    set("C!", Value::floating(2.5, kSingle));
    set("D#", Value::floating(-0.1));
    set("E&&", Value::integer(1ll << 40, kInt64));
    set("Z%", Value::integer(0));
    set("S$", make_temp("ab"));
    const std::int64_t upper = 3;
    Descriptor* x = array_create("X%", &upper, 1, false);
    ASSERT_NE(x, nullptr);
    for (std::int64_t i = 0; i <= 3; ++i) {
      std::int64_t sub = i;
      ASSERT_TRUE(store_value(array_element(x, &sub, 1), kInteger, Value::integer(i * 10 - 5)));
    }
  }
  void TearDown() override { core::program_running = false; }

  static Value make_temp(const std::string& s) {
    char* p = string_temp(static_cast<std::uint32_t>(s.size()));
    std::memcpy(p, s.data(), s.size());
    return Value::string(p, static_cast<std::uint32_t>(s.size()));
  }
  static void set(const char* name, const Value& v) {
    Descriptor* d = scalar_descriptor(name);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(store_value(d->value, d->type, v));
  }

  // Tokens of text, kept (with the text) for as long as the test needs them.
  struct Line {
    std::string text;
    std::vector<core::Token> tokens;
  };
  static void tokenize(Line* line) {
    const int n = core::tokenize(line->text.c_str());
    ASSERT_FALSE(core::err.flag) << line->text;
    line->tokens.assign(core::scratch_tokens, core::scratch_tokens + n);
  }

  static Outcome outcome(bool ok, const Value& v) {
    Outcome o;
    if (!ok || core::err.flag) {
      o.error = core::err.flag ? core::err.message : "(false without an error)";
      core::clear_error_flag();
      return o;
    }
    o.type = v.type;
    if (v.type == kString) o.bits.assign(v.s.ptr, v.s.len);
    else if (is_integer_type(v.type)) o.bits = std::to_string(v.i);
    else o.bits.assign(reinterpret_cast<const char*>(&v.d), 8);
    return o;
  }
  static Outcome walk(const core::Token* t, std::ptrdiff_t* length) {
    const core::Token* start = t;
    Value v;
    const bool ok = detail::level_imp(t, &v);
    *length = t - start;
    return outcome(ok, v);
  }
  static Outcome cached(const core::Token* t, std::ptrdiff_t* length) {
    const core::Token* start = t;
    Value v;
    const bool ok = eval(t, &v);
    *length = t - start;
    const Outcome o = outcome(ok, v);
    statement_boundary();
    return o;
  }

  static inline std::uint8_t* base_ = nullptr;
};

// A random expression of at most `depth` levels over the variables above.
std::string expression(std::mt19937& rng, int depth) {
  static const char* const kLeaves[] = {"A%", "B&", "C!", "D#", "E&&", "Z%", "Q", "7", "2.5", "40000",
                                        "&H7FFF", "0.5#", "X%(1)", "X%(A% + 9)", "X%(Z%)", "3"};
  static const char* const kOps[] = {" + ", " - ", " * ", " / ", " \\ ", " MOD ", " ^ ", " = ", " <> ",
                                     " < ", " <= ", " > ", " >= ", " AND ", " OR ", " XOR ", " EQV ", " IMP "};
  std::uniform_int_distribution<int> pick(0, 9);
  if (depth == 0 || pick(rng) < 3) {
    std::uniform_int_distribution<std::size_t> leaf(0, sizeof kLeaves / sizeof kLeaves[0] - 1);
    return kLeaves[leaf(rng)];
  }
  switch (pick(rng)) {
    case 0: return "-" + expression(rng, depth - 1);
    case 1: return "NOT " + expression(rng, depth - 1);
    case 2: return "(" + expression(rng, depth - 1) + ")";
    case 3: {
      static const char* const kFunctions[] = {"ABS(", "SQR(", "LOG(", "INT(", "SIN(", "CINT(", "EXP(", "SGN("};
      std::uniform_int_distribution<std::size_t> f(0, sizeof kFunctions / sizeof kFunctions[0] - 1);
      return kFunctions[f(rng)] + expression(rng, depth - 1) + ")";
    }
    default: {
      std::uniform_int_distribution<std::size_t> op(0, sizeof kOps / sizeof kOps[0] - 1);
      return expression(rng, depth - 1) + kOps[op(rng)] + expression(rng, depth - 1);
    }
  }
}

TEST_F(Predecode, RandomExpressionsGiveTheWalksValueTypeAndError) {
  std::mt19937 rng(20261123);
  int decoded_errors = 0;
  for (int i = 0; i < 3000; ++i) {
    Line line{expression(rng, 3), {}};
    tokenize(&line);
    std::ptrdiff_t n0, n;
    const Outcome expected = walk(line.tokens.data(), &n0);
    // The first evaluation walks, the second decodes, the later ones run the tree.
    for (int pass = 0; pass < 4; ++pass) {
      const Outcome got = cached(line.tokens.data(), &n);
      ASSERT_EQ(got.error, expected.error) << line.text << " pass " << pass;
      ASSERT_EQ(got.type, expected.type) << line.text << " pass " << pass;
      ASSERT_EQ(got.bits, expected.bits) << line.text << " pass " << pass;
      if (expected.error.empty()) {
        ASSERT_EQ(n, n0) << line.text << ": the cursor ends where the walk ends";
      }
    }
    if (!expected.error.empty()) ++decoded_errors;
  }
  EXPECT_GT(decoded_errors, 50) << "overflow, division by zero and subscripts were exercised";
}

TEST_F(Predecode, StringsFunctionsAndComponentsStayExact) {
  for (const char* text : {"S$ + \"c\" + S$", "S$ < \"b\"", "LEFT$(S$ + S$, A% + 10) + CHR$(65)",
                           "LEN(S$) * C! + D#", "IIF(A% < 0, S$, \"no\")", "S$ + 1", "CPLX(1, 2).I + 1",
                           "(CPLX(C!, 1)).R", "X%(4)", "X%(1, 2)", "-2 ^ 2 ^ -1", "2 ^ -C! ^ 2"}) {
    Line line{text, {}};
    tokenize(&line);
    std::ptrdiff_t n0, n;
    const Outcome expected = walk(line.tokens.data(), &n0);
    for (int pass = 0; pass < 3; ++pass) {
      const Outcome got = cached(line.tokens.data(), &n);
      EXPECT_EQ(got.error, expected.error) << text;
      EXPECT_EQ(got.type, expected.type) << text;
      EXPECT_EQ(got.bits, expected.bits) << text;
    }
  }
}

TEST_F(Predecode, TreesFollowNewVariablesAndTypesAndAreDroppedWithTheProgram) {
  Line line{"Q + W", {}};
  tokenize(&line);
  std::ptrdiff_t n;
  auto same_as_walk = [&](const Line& l, const char* what) {
    const Outcome expected = walk(l.tokens.data(), &n);
    const Outcome got = cached(l.tokens.data(), &n);
    EXPECT_EQ(got.error, expected.error) << what;
    EXPECT_EQ(got.type, expected.type) << what;
    EXPECT_EQ(got.bits, expected.bits) << what;
    return got;
  };
  for (int pass = 0; pass < 3; ++pass) same_as_walk(line, "absent variables read as zero");
  EXPECT_GT(predecoded_bytes(), 0u);
  // A variable made after decoding, then a DEFINT that gives the names another type.
  set("Q", Value::integer(3));
  EXPECT_EQ(same_as_walk(line, "Q now exists").bits.empty(), false);
  set_default_type('Q', 'W', kInteger);
  EXPECT_EQ(same_as_walk(line, "Q is now the INTEGER Q, absent").type, kInteger);
  set("W", Value::integer(4));
  EXPECT_EQ(same_as_walk(line, "W made as an INTEGER").bits, "4");
  // The program changed: the next decoding starts an empty pool.
  forget_predecoded();
  Line other{"A% * 2", {}};
  tokenize(&other);
  for (int pass = 0; pass < 2; ++pass) EXPECT_EQ(same_as_walk(other, "after the change").bits, "-14");
  EXPECT_LT(predecoded_bytes(), 1024u);
  for (int pass = 0; pass < 3; ++pass) EXPECT_EQ(same_as_walk(line, "old tokens decode again").bits, "4");
}

}  // namespace
