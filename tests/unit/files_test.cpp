// The exact contracts under the file statements: the variable image that
// state files and CHAIN rely on, and the platform file operations whose
// behaviour the durability of STATEWRITE/FILECOMMIT and SESSIONLOCK rests on.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "files/var_image.h"
#include "host/platform.h"
#include "values/arena.h"
#include "values/arrays.h"
#include "values/store.h"
#include "values/variables.h"

using namespace values;

namespace {

constexpr std::uint64_t kArenaBytes = 64ull << 20;

class VarImage : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { base_ = static_cast<std::uint8_t*>(host::reserve_memory(kArenaBytes)); }
  void SetUp() override {
    ASSERT_NE(base_, nullptr);
    arena_init(base_, kArenaBytes);
    clear_variables();
    core::reset_errors();
    core::program_running = true;  // errors are recorded, not printed
  }
  void TearDown() override { core::program_running = false; }
  static void set(const char* name, const Value& v) {
    Descriptor* d = scalar_descriptor(name);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(store_value(d->value, d->type, v));
  }
  static Value get(const char* name) {
    Descriptor* d = find_descriptor(name, false, type_of_name(name));
    EXPECT_NE(d, nullptr) << name;
    return d ? load_value(d->value, d->type) : Value();
  }
  // Every byte value, so no encoding can lean on text.
  static std::string all_bytes() {
    std::string s;
    for (int i = 0; i < 256; ++i) s.push_back(static_cast<char>(i));
    return s;
  }
  static inline std::uint8_t* base_ = nullptr;
};

TEST_F(VarImage, RoundTripKeepsEveryTypeAtItsLimits) {
  std::string bytes = all_bytes();
  set("I%", Value::integer(-32768));
  set("L&", Value::integer(2147483647));
  set("Q&&", Value::integer(INT64_MIN, kInt64));
  set("S!", Value::floating(0.1, kSingle));
  set("D#", Value::floating(-1e308));
  set("T$", Value::string(bytes.data(), 256));
  set("E$", Value::string(nullptr, 0));
  Value h;
  h.type = kHyper;
  h.h.kind = 8;
  for (int i = 0; i < 8; ++i) h.h.c[i] = i + 0.5;
  set("H@", h);
  option_base = 1;
  const std::int64_t upper[2] = {2, 3};
  Descriptor* a = array_create("M$", upper, 2, false);
  ASSERT_NE(a, nullptr);
  const std::int64_t sub[2] = {2, 3};
  ASSERT_TRUE(store_value(array_element(a, sub, 2), kString, Value::string(bytes.data() + 65, 3)));

  const std::string image = files::encode_variables(nullptr);
  clear_variables();
  ASSERT_TRUE(files::decode_variables(image, false, "damaged"));
  EXPECT_EQ(descriptor_count(), 0u) << "checking creates nothing";
  ASSERT_TRUE(files::decode_variables(image, true, "damaged"));

  EXPECT_EQ(get("I%").i, -32768);
  EXPECT_EQ(get("L&").i, 2147483647);
  EXPECT_EQ(get("Q&&").i, INT64_MIN);
  EXPECT_EQ(get("S!").d, static_cast<double>(0.1f));
  EXPECT_EQ(get("D#").d, -1e308);
  const Value t = get("T$");
  EXPECT_EQ(std::string(t.s.ptr, t.s.len), bytes);
  EXPECT_EQ(get("E$").s.len, 0u);
  const Value hh = get("H@");
  EXPECT_EQ(hh.h.kind, 8u);
  EXPECT_EQ(hh.h.c[7], 7.5);
  Descriptor* m = find_descriptor("M$", true, kString);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(array_dims(m), 2);
  EXPECT_EQ(array_upper(m, 2), 3);
  EXPECT_EQ(option_base, 1) << "the array brings its OPTION BASE back";
  EXPECT_EQ(array_count(m), 6u);
  const Value e = load_value(array_element(m, sub, 2), kString);
  EXPECT_EQ(std::string(e.s.ptr, e.s.len), "ABC");
}

TEST_F(VarImage, UnsuffixedNamesKeepTheirSavedTypeUnderOtherDefaults) {
  set_default_type('N', 'N', kInteger);
  set("N", Value::integer(12));
  const std::string image = files::encode_variables(nullptr);
  clear_variables();  // N is DOUBLE by default again
  ASSERT_TRUE(files::decode_variables(image, true, "damaged"));
  Descriptor* d = find_descriptor("N", false, kInteger);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(load_value(d->value, kInteger).i, 12);
  EXPECT_EQ(default_type('N'), kDouble) << "the default table is left as it was";
}

TEST_F(VarImage, EveryTruncationAndTrailingByteIsRefused) {
  set("A$", Value::string(const_cast<char*>("hello"), 5));
  const std::int64_t upper = 4;
  ASSERT_NE(array_create("B#", &upper, 1, false), nullptr);
  const std::string image = files::encode_variables(nullptr);
  for (std::size_t n = 0; n < image.size(); ++n) {
    core::clear_error_flag();
    EXPECT_FALSE(files::decode_variables(image.substr(0, n), false, "damaged")) << n;
    EXPECT_STREQ(core::err.message, "damaged");
  }
  core::clear_error_flag();
  EXPECT_FALSE(files::decode_variables(image + "x", false, "damaged"));
}

TEST_F(VarImage, ImpossibleArraySizesAreDamageNotAllocations) {
  std::string image;
  auto put = [&image](const void* p, std::size_t n) { image.append(static_cast<const char*>(p), n); };
  const std::uint32_t count = 1;
  const std::uint8_t len = 2, type = kDouble, array = 1, dims = 2, base = 0;
  const std::int64_t huge = INT64_MAX / 2;
  put(&count, 4);
  put(&len, 1);
  put("X#", 2);
  put(&type, 1);
  put(&array, 1);
  put(&dims, 1);
  put(&huge, 8);
  put(&huge, 8);
  put(&base, 1);
  EXPECT_FALSE(files::decode_variables(image, true, "damaged"));
  EXPECT_STREQ(core::err.message, "damaged");
  EXPECT_EQ(descriptor_count(), 0u);
}

// --- platform file operations --------------------------------------------------

class PlatformFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = host::temp_directory();
    dir_ += host::path_separator();
    dir_ += "tambril-files-test-" + std::to_string(host::perf_counter());
    ASSERT_EQ(host::make_directory(dir_), host::FileFault::none);
    dir_ += host::path_separator();
  }
  void TearDown() override {
    std::vector<host::DirEntry> list;
    host::list_directory(dir_, &list);
    for (const host::DirEntry& e : list) host::delete_file(dir_ + e.name);
    host::remove_directory(dir_.substr(0, dir_.size() - 1));
  }
  void write(const std::string& name, const std::string& text) {
    std::FILE* f = host::open_file(dir_ + name, "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(text.data(), 1, text.size(), f);
    ASSERT_TRUE(host::sync_file(f));
    std::fclose(f);
  }
  std::string read(const std::string& name) {
    std::FILE* f = host::open_file(dir_ + name, "rb");
    if (!f) return "<missing>";
    char buf[256];
    const std::size_t n = std::fread(buf, 1, sizeof buf, f);
    std::fclose(f);
    return std::string(buf, n);
  }
  std::string dir_;
};

TEST_F(PlatformFiles, ReplaceOverwritesButRenameNeverDoes) {
  write("OLD.TXT", "old");
  write("NEW.TMP", "new");
  EXPECT_EQ(host::rename_file(dir_ + "NEW.TMP", dir_ + "OLD.TXT"), host::FileFault::exists);
  EXPECT_EQ(read("OLD.TXT"), "old");
  EXPECT_EQ(host::replace_file(dir_ + "NEW.TMP", dir_ + "OLD.TXT"), host::FileFault::none);
  EXPECT_EQ(read("OLD.TXT"), "new");
  EXPECT_EQ(host::path_kind(dir_ + "NEW.TMP"), 0);
  EXPECT_EQ(host::rename_file(dir_ + "NONE", dir_ + "X"), host::FileFault::not_found);
}

TEST_F(PlatformFiles, DirectoriesAndListing) {
  write("A.TXT", "12345");
  ASSERT_EQ(host::make_directory(dir_ + "SUB"), host::FileFault::none);
  EXPECT_EQ(host::make_directory(dir_ + "SUB"), host::FileFault::exists);
  write("SUB/IN.TXT", "x");
  EXPECT_EQ(host::remove_directory(dir_ + "SUB"), host::FileFault::not_empty);
  std::vector<host::DirEntry> list;
  ASSERT_TRUE(host::list_directory(dir_, &list));
  ASSERT_EQ(list.size(), 2u);
  for (const host::DirEntry& e : list) {
    if (e.name == "A.TXT") EXPECT_EQ(e.size, 5u);
    else EXPECT_TRUE(e.directory && e.name == "SUB");
  }
  EXPECT_EQ(host::path_kind(dir_ + "SUB"), 2);
  EXPECT_EQ(host::delete_file(dir_ + "SUB/IN.TXT"), host::FileFault::none);
  EXPECT_EQ(host::remove_directory(dir_ + "SUB"), host::FileFault::none);
  EXPECT_FALSE(host::list_directory(dir_ + "SUB", &list));
}

TEST_F(PlatformFiles, LockIsExclusiveUntilReleased) {
  void* first = host::lock_file(dir_ + "S.LCK");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(host::lock_file(dir_ + "S.LCK"), nullptr) << "a second holder, even in this process";
  host::unlock_file(first);
  void* again = host::lock_file(dir_ + "S.LCK");
  EXPECT_NE(again, nullptr);
  host::unlock_file(again);
}

TEST_F(PlatformFiles, PositionsBeyondFourGigabytes) {
  std::FILE* f = host::open_file(dir_ + "BIG.DAT", "w+b");
  ASSERT_NE(f, nullptr);
  const std::int64_t far = (std::int64_t{1} << 32) + 7;
  ASSERT_TRUE(host::seek_file(f, far));
  std::fputc('z', f);
  EXPECT_EQ(host::tell_file(f), far + 1);
  EXPECT_EQ(host::file_length(f), far + 1);  // sparse: costs no disk space
  std::fclose(f);
}

}  // namespace
