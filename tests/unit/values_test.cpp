// Store rule, descriptor table, block heap, string heap and compaction.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/errors.h"
#include "host/platform.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/memory.h"
#include "values/store.h"
#include "values/strings.h"
#include "values/variables.h"

using namespace values;

namespace {

constexpr std::uint64_t kArenaBytes = 64ull << 20;

class Values : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    base_ = static_cast<std::uint8_t*>(host::reserve_memory(kArenaBytes));
  }
  void SetUp() override {
    ASSERT_NE(base_, nullptr);
    arena_init(base_, kArenaBytes);
    clear_variables();
    core::reset_errors();
    core::program_running = true;  // errors are recorded, not printed
  }
  void TearDown() override {
    core::program_running = false;
    compaction_scratch_fails = false;
  }
  static std::string error() { return core::err.flag ? core::err.message : ""; }
  static void clear() { core::clear_error_flag(); }
  // A string temporary as an expression would produce it.
  static Value temp(const std::string& s) {
    char* p = string_temp(static_cast<std::uint32_t>(s.size()));
    std::memcpy(p, s.data(), s.size());
    return Value::string(p, static_cast<std::uint32_t>(s.size()));
  }
  static std::string str(const Descriptor* d) {
    StringDesc s;
    std::memcpy(&s, d->value, sizeof s);
    return std::string(s.ptr, s.length);
  }
  static inline std::uint8_t* base_ = nullptr;
};

TEST_F(Values, IntegerStoresRoundHalvesAwayFromZero) {
  std::int16_t i16 = 99;
  EXPECT_FALSE(store_value(&i16, kInteger, Value::floating(32767.5)));
  EXPECT_EQ(error(), "Overflow") << "32767.5 rounds to 32768";
  EXPECT_EQ(i16, 99) << "a failed store leaves the slot unchanged";
  clear();
  ASSERT_TRUE(store_value(&i16, kInteger, Value::floating(-32768.4)));
  EXPECT_EQ(i16, -32768);
  ASSERT_TRUE(store_value(&i16, kInteger, Value::floating(2.5)));
  EXPECT_EQ(i16, 3);
  ASSERT_TRUE(store_value(&i16, kInteger, Value::floating(-2.5)));
  EXPECT_EQ(i16, -3);
  std::int32_t i32 = 0;
  EXPECT_FALSE(store_value(&i32, kLong, Value::integer(2147483648LL, kInt64)));
  EXPECT_EQ(error(), "Overflow");
  clear();
  ASSERT_TRUE(store_value(&i32, kLong, Value::integer(-2147483648LL, kInt64)));
  EXPECT_EQ(i32, -2147483647 - 1);
  std::int64_t i64 = 0;
  EXPECT_FALSE(store_value(&i64, kInt64, Value::floating(9223372036854775808.0)));
  clear();
  EXPECT_FALSE(store_value(&i64, kInt64, Value::floating(0.0 / 0.0)));
  EXPECT_EQ(error(), "Overflow") << "NaN to an integer";
  clear();
  ASSERT_TRUE(store_value(&i64, kInt64, Value::floating(-9223372036854775808.0)));
  EXPECT_EQ(i64, INT64_MIN);
}

TEST_F(Values, FloatingStoresAndTypeFamilies) {
  float f = 0;
  EXPECT_FALSE(store_value(&f, kSingle, Value::floating(1e300)));
  EXPECT_EQ(error(), "Overflow");
  clear();
  ASSERT_TRUE(store_value(&f, kSingle, Value::integer(16777217, kLong)));
  EXPECT_EQ(f, 16777216.0f) << "rounded to binary32";
  double d = 0;
  ASSERT_TRUE(store_value(&d, kDouble, Value::floating(1.0 / 0.0)));
  EXPECT_EQ(d, 1.0 / 0.0) << "DOUBLE accepts an infinite value";
  EXPECT_FALSE(store_value(&d, kDouble, Value::string(nullptr, 0)));
  EXPECT_EQ(error(), "Type mismatch");
  clear();
  StringDesc s{};
  EXPECT_FALSE(store_value(&s, kString, Value::integer(3)));
  EXPECT_EQ(error(), "Type mismatch");
  clear();
  Hyper h{};
  ASSERT_TRUE(store_value(&h, kHyper, Value::integer(3)));
  EXPECT_EQ(h.kind, 2u);
  EXPECT_EQ(h.c[0], 3.0);
  Value q;
  q.type = kHyper;
  q.h.kind = 5;  // anything but 4 or 8 is stored as a complex number
  ASSERT_TRUE(store_value(&h, kHyper, q));
  EXPECT_EQ(h.kind, 2u);
  EXPECT_FALSE(store_value(&d, kDouble, q));
  EXPECT_EQ(error(), "Type mismatch");
}

TEST_F(Values, NamesTypesAndDefaultLetters) {
  EXPECT_EQ(type_of_name("A%"), kInteger);
  EXPECT_EQ(type_of_name("A&"), kLong);
  EXPECT_EQ(type_of_name("A&&"), kInt64);
  EXPECT_EQ(type_of_name("A"), kDouble);
  EXPECT_EQ(type_of_name("_X"), kDouble);
  set_default_type('A', 'C', kInteger);
  EXPECT_EQ(type_of_name("BETA"), kInteger);
  EXPECT_EQ(find_descriptor("A", false, kInteger), nullptr);
  Descriptor* a = scalar_descriptor("A");
  EXPECT_EQ(a, scalar_descriptor("A%")) << "with DEFINT A, A and A% are one variable";
  EXPECT_NE(a, scalar_descriptor("A$"));
  EXPECT_NE(a, scalar_descriptor("A#"));
  const std::uint32_t gen = table_generation();
  clear_variables();
  EXPECT_EQ(type_of_name("BETA"), kDouble) << "the clear restores DOUBLE";
  EXPECT_NE(table_generation(), gen);
  EXPECT_EQ(descriptor_count(), 0u);
}

TEST_F(Values, IdentifierRules) {
  char out[40];
  const std::pair<std::string, std::string> cases[] = {
      {std::string(37, 'N') + "$", ""},
      {std::string(38, 'N'), "Identifier too long (37 characters maximum)"},
      {"A$%", "Invalid variable name"},
      {"A&&&", "Invalid variable name"},
      {"1A", "Invalid variable name"},
      {"", "Invalid variable name"},
      {"print$", "Keyword cannot be a variable name"},
      {"total&&", ""},
  };
  for (const auto& [name, message] : cases) {
    clear();
    const bool ok = check_identifier(name.data(), name.size(), out);
    EXPECT_EQ(ok, message.empty()) << name;
    EXPECT_EQ(error(), message) << name;
  }
  EXPECT_STREQ(out, "TOTAL&&");
  EXPECT_TRUE(is_read_only_name("TIMER"));
  EXPECT_FALSE(is_read_only_name("TIMER%"));
  EXPECT_TRUE(is_function_name("SIN#")) << "by base name";
  EXPECT_TRUE(is_function_name("LEFT$"));
  EXPECT_FALSE(is_function_name("SINE"));
}

TEST_F(Values, TableHolds4096Variables) {
  char name[16];
  for (int i = 0; i < 4096; ++i) {
    std::snprintf(name, sizeof name, "V%d", i);
    ASSERT_NE(create_descriptor(name, false), nullptr) << i;
  }
  EXPECT_EQ(create_descriptor("ONEMORE", false), nullptr);
  EXPECT_EQ(error(), "Too many variables");
  clear();
  EXPECT_EQ(create_descriptor("ERROR$", false), nullptr);
  EXPECT_EQ(error(), "Illegal function call");
  clear_variables();
  EXPECT_EQ(create_descriptor("ERROR$", false), nullptr) << "refused even with room";
}

TEST_F(Values, CachedStoreRevalidatesAcrossClears) {
  ScalarCache cache;
  ASSERT_TRUE(cached_store(&cache, "N%", Value::integer(5)));
  Descriptor* first = cache.d;
  ASSERT_TRUE(cached_store(&cache, "N%", Value::integer(6)));
  EXPECT_EQ(cache.d, first);
  clear_variables();
  scalar_descriptor("OTHER");
  ASSERT_TRUE(cached_store(&cache, "N%", Value::integer(7)));
  EXPECT_NE(cache.d, first) << "the old pointer is stale after a clear";
  EXPECT_EQ(load_value(cache.d->value, kInteger).i, 7);
  EXPECT_FALSE(cached_store(&cache, "S$", temp("x")));
  EXPECT_EQ(error(), "Type mismatch");
}

TEST_F(Values, CommonList) {
  ASSERT_TRUE(common_add("A", false));
  ASSERT_TRUE(common_add("A", true));
  ASSERT_TRUE(common_add("A$", false));
  EXPECT_FALSE(common_add("A", false));
  EXPECT_EQ(error(), "Duplicate definition");
  clear();
  char name[16];
  for (int i = 3; i < kMaxCommon; ++i) {
    std::snprintf(name, sizeof name, "C%d", i);
    ASSERT_TRUE(common_add(name, false));
  }
  EXPECT_FALSE(common_add("LAST", false));
  EXPECT_EQ(error(), "Too many variables");
}

TEST_F(Values, HeapFirstFitSplitMergeAndFreebotLowering) {
  const std::uint64_t fre0 = fre();
  EXPECT_EQ(fre0, static_cast<std::uint64_t>(arena.himem - arena.table_end)) << "FRE after a clear";
  void* a = heap_alloc(100);  // 104 bytes
  void* b = heap_alloc(8);
  void* c = heap_alloc(0);  // becomes 8
  ASSERT_TRUE(a && b && c);
  EXPECT_EQ(heap_block_size(a), 104u);
  EXPECT_EQ(heap_block_size(c), 8u);
  EXPECT_EQ(fre(), fre0 - (104 + 16) - (8 + 16) - (8 + 16));
  heap_free(a);
  EXPECT_EQ(fre(), fre0 - (8 + 16) * 2 + 16 * 0 - 16) << "a free block counts its payload";
  void* d = heap_alloc(40);  // splits a's block: 104 - 40 - 16 = 48 left
  EXPECT_EQ(d, a) << "first fit";
  void* e = heap_alloc(40);  // 48 - 40 < 24: the whole block is taken
  EXPECT_EQ(heap_block_size(e), 48u);
  heap_free(e);
  heap_free(d);
  heap_free(d);  // a double free is harmless
  heap_free(reinterpret_cast<std::uint8_t*>(b) + 3);  // a foreign pointer is ignored
  EXPECT_TRUE(arena_consistent());
  const std::uint8_t* bot = arena.freebot;
  heap_free(c);  // the top block: FREEBOT falls by block + header
  EXPECT_EQ(arena.freebot, bot - 24);
  heap_free(b);  // now everything merges down to the table end
  EXPECT_EQ(arena.freebot, arena.table_end);
  EXPECT_EQ(fre(), fre0);
  EXPECT_TRUE(arena_consistent());
  EXPECT_EQ(heap_alloc(kArenaBytes), nullptr);
}

TEST_F(Values, StringsAdoptTemporariesAndEmptyStringsAllocateNothing) {
  Descriptor* s = scalar_descriptor("S$");
  std::uint8_t* top = arena.freetop;
  ASSERT_TRUE(store_value(s->value, kString, Value::string(nullptr, 0)));
  EXPECT_EQ(arena.freetop, top) << "the empty string allocates nothing";
  Value v = temp("hello");
  top = arena.freetop;
  ASSERT_TRUE(store_value(s->value, kString, v));
  EXPECT_EQ(arena.freetop, top) << "a temporary is adopted without a copy";
  Descriptor* t = scalar_descriptor("T$");
  ASSERT_TRUE(store_value(t->value, kString, v));
  EXPECT_EQ(arena.freetop, top - 5) << "the second owner gets its own copy";
  EXPECT_EQ(str(t), "hello");
  set_adoption(false);
  Value w = temp("abc");
  top = arena.freetop;
  ASSERT_TRUE(store_value(s->value, kString, w));
  EXPECT_EQ(arena.freetop, top - 3) << "with adoption off every store copies";
}

TEST_F(Values, OutOfStringSpaceWithoutCompactionInsideAnAllocation) {
  const std::uint64_t gap = static_cast<std::uint64_t>(arena.freetop - arena.freebot);
  EXPECT_EQ(string_alloc(static_cast<std::uint32_t>(gap + 1)), nullptr);
  EXPECT_EQ(error(), "Out of string space");
  EXPECT_EQ(static_cast<std::uint64_t>(arena.freetop - arena.freebot), gap) << "FREETOP unchanged";
}

TEST_F(Values, CompactionSlidesLiveStringsUpAndKeepsAliasesTogether) {
  Descriptor* a = scalar_descriptor("A$");
  Descriptor* b = scalar_descriptor("B$");
  Descriptor* c = scalar_descriptor("C$");
  ASSERT_TRUE(store_value(a->value, kString, temp("first")));
  string_temp(1000);  // garbage between live strings
  ASSERT_TRUE(store_value(b->value, kString, temp("second string")));
  // C$ aliases B$'s bytes with a shorter length, as a raw-memory writer could leave it.
  StringDesc bd;
  std::memcpy(&bd, b->value, sizeof bd);
  StringDesc cd{6, 0, bd.ptr};
  std::memcpy(c->value, &cd, sizeof cd);
  clear_temporaries();
  compact_strings();
  EXPECT_EQ(str(a), "first");
  EXPECT_EQ(str(b), "second string");
  EXPECT_EQ(str(c), "second");
  StringDesc nb, nc;
  std::memcpy(&nb, b->value, sizeof nb);
  std::memcpy(&nc, c->value, sizeof nc);
  EXPECT_EQ(nb.ptr, nc.ptr) << "aliases still share one copy";
  EXPECT_EQ(arena.himem - arena.freetop, 5 + 13) << "the alias group is moved once, at its longest length";
  EXPECT_FALSE(compaction_requested());
}

TEST_F(Values, CompactionMovesStringArrayElements) {
  const std::int64_t upper[2] = {2, 1};
  Descriptor* arr = array_create("S$", upper, 2, false);
  ASSERT_NE(arr, nullptr);
  Descriptor* x = scalar_descriptor("X$");
  for (std::int64_t i = 0; i <= 2; ++i) {
    const std::int64_t sub[2] = {i, 1};
    ASSERT_TRUE(store_value(array_element(arr, sub, 2), kString, temp("element" + std::to_string(i))));
    string_temp(500);  // garbage between them
  }
  ASSERT_TRUE(store_value(x->value, kString, temp("scalar")));
  compact_strings();
  for (std::int64_t i = 0; i <= 2; ++i) {
    const std::int64_t sub[2] = {i, 1};
    StringDesc d;
    std::memcpy(&d, array_element(arr, sub, 2), sizeof d);
    EXPECT_EQ(std::string(d.ptr, d.length), "element" + std::to_string(i));
  }
  EXPECT_EQ(str(x), "scalar");
  EXPECT_EQ(arena.himem - arena.freetop, 3 * 8 + 6) << "only live bytes remain";
}

TEST_F(Values, InPlaceCompactionWhenNoScratchMemory) {
  Descriptor* a = scalar_descriptor("A$");
  Descriptor* b = scalar_descriptor("B$");
  ASSERT_TRUE(store_value(a->value, kString, temp("alpha")));
  string_temp(77);
  ASSERT_TRUE(store_value(b->value, kString, temp("beta")));
  string_temp(33);
  compaction_scratch_fails = true;
  compact_strings();
  EXPECT_EQ(str(a), "alpha");
  EXPECT_EQ(str(b), "beta");
  EXPECT_EQ(arena.himem - arena.freetop, 9);
}

TEST_F(Values, StringLoopKeepsFreStableThroughCompaction) {
  // Builds and drops strings for far longer than the heap could hold without
  // reclaiming: 4000 rounds of ~16 KiB is 64 MiB of garbage in a 64 MiB arena.
  Descriptor* s = scalar_descriptor("S$");
  const std::string chunk(16000, 'x');
  std::uint64_t lowest = fre();
  for (int round = 0; round < 4000; ++round) {
    statement_boundary();
    ASSERT_TRUE(store_value(s->value, kString, temp(chunk + std::to_string(round)))) << round << " " << error();
    if (fre() < lowest) lowest = fre();
  }
  statement_boundary();
  compact_strings();
  EXPECT_EQ(str(s).substr(16000), "3999");
  EXPECT_EQ(static_cast<std::uint64_t>(arena.himem - arena.freetop), 16004u) << "only the live string remains";
  EXPECT_GT(lowest, kArenaBytes - kDescriptorTableBytes - (kCompactThreshold + 2 * 16004))
      << "the heap never grows much past the 8 MiB threshold";
}

TEST_F(Values, PeekAndPokeAreChecked) {
  std::uint64_t word = 0x1122334455667788ull;
  const auto at = reinterpret_cast<std::uint64_t>(&word);
  std::int64_t v = 0;
  ASSERT_TRUE(peek(at, 1, &v));
  EXPECT_EQ(v, 0x88);
  ASSERT_TRUE(peek(at, 2, &v));
  EXPECT_EQ(v, 0x7788);
  ASSERT_TRUE(peek(at + 4, 4, &v));
  EXPECT_EQ(v, 0x11223344) << "unsigned, little-endian";
  ASSERT_TRUE(poke(at, 8, 0xFFFFFFFFFFFFFFFFull));
  ASSERT_TRUE(peek(at, 8, &v));
  EXPECT_EQ(v, -1) << "PEEK64 gives the raw 64 bits";
  EXPECT_FALSE(adoption_on()) << "POKE turns string adoption off";
  EXPECT_FALSE(peek(8, 4, &v));
  EXPECT_EQ(error(), "Invalid memory address");
  clear();
  EXPECT_FALSE(poke(16, 1, 1));
  EXPECT_EQ(error(), "Invalid memory address");
  clear_variables();
  EXPECT_TRUE(adoption_on()) << "until the next clear of variables";
}

}  // namespace
