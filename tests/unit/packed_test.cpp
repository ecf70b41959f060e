// Standalone images: what examine_image accepts as an appended program, how
// a program block loads into the store, and the SMBIOS reading behind
// SYSTEMINFO$(10).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/direct.h"
#include "core/program.h"
#include "host/packed.h"
#include "host/platform.h"
#include "host/shell.h"
#include "host/sysinfo.h"
#include "values/arena.h"

namespace {

void put32(std::string& s, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) s += static_cast<char>(v >> (8 * i));
}
void put64(std::string& s, std::uint64_t v) {
  put32(s, static_cast<std::uint32_t>(v));
  put32(s, static_cast<std::uint32_t>(v >> 32));
}

struct Entry {
  const char* tag;
  std::uint64_t offset, length;
};

std::string container(const std::vector<Entry>& entries, const std::string& blocks) {
  std::string p = "QZP3";
  put32(p, static_cast<std::uint32_t>(entries.size()));
  for (const Entry& e : entries) {
    p += e.tag;
    put32(p, 0);
    put64(p, e.offset);
    put64(p, e.length);
  }
  return p + blocks;
}

std::string block(const std::vector<std::pair<std::uint32_t, std::string>>& lines) {
  std::string b = "BAS2";
  put32(b, static_cast<std::uint32_t>(lines.size()));
  for (const auto& [n, body] : lines) {
    put32(b, n);
    put32(b, static_cast<std::uint32_t>(body.size()));
    b += body;
  }
  return b;
}

const std::string kInterpreter = "MZ pretend interpreter bytes\x7f" "ELF";

// A file of interpreter bytes, the payload and a trailer whose length field
// says `claimed` (the payload's real size by default).
class Image {
 public:
  explicit Image(const std::string& payload, std::int64_t claimed = -1) {
    std::string bytes = kInterpreter + payload + "TAMBRIL2-PACKED!";
    put64(bytes, claimed < 0 ? payload.size() : static_cast<std::uint64_t>(claimed));
    f_ = std::tmpfile();
    std::fwrite(bytes.data(), 1, bytes.size(), f_);
    std::fflush(f_);
  }
  ~Image() { std::fclose(f_); }
  std::FILE* file() const { return f_; }
  host::PackedImage examine() const { return host::examine_image(f_); }

 private:
  std::FILE* f_;
};

TEST(PackedImage, AContainerWithProgramAndBankIsPackedAndLocatesBothBlocks) {
  const std::string prog = block({{10, "PRINT 1"}});
  const std::string bank = "QZGM-bank-bytes";
  const std::uint64_t at = 8 + 2 * 24;
  Image img(container({{"BAS2", at, prog.size()}, {"QZGM", at + prog.size(), bank.size()}}, prog + bank));
  const host::PackedImage p = img.examine();
  EXPECT_TRUE(p.packed);
  EXPECT_EQ(p.payload_start, kInterpreter.size());
  EXPECT_EQ(p.interpreter_length, kInterpreter.size()) << "only the bytes before the payload are the interpreter";
  EXPECT_EQ(p.program_offset, kInterpreter.size() + at);
  EXPECT_EQ(p.program_length, prog.size());
  EXPECT_EQ(p.bank_offset, kInterpreter.size() + at + prog.size());
  EXPECT_EQ(p.bank_length, bank.size());
}

TEST(PackedImage, MalformedTrailersAndContainersMeanNoAppendedProgram) {
  const std::string prog = block({{10, "PRINT 1"}});
  const std::uint64_t at = 8 + 24;
  const std::string good = container({{"BAS2", at, prog.size()}}, prog);
  EXPECT_TRUE(Image(good).examine().packed);

  const host::PackedImage seven = Image(good, 7).examine();
  EXPECT_FALSE(seven.packed) << "a 7-byte payload";
  EXPECT_FALSE(seven.payload);
  EXPECT_EQ(seven.interpreter_length, kInterpreter.size() + good.size() + 24) << "the whole file is the interpreter";
  EXPECT_TRUE(Image(block({}), 8).examine().packed) << "8 bytes is the smallest payload: a bare empty block";
  EXPECT_FALSE(Image(good, static_cast<std::int64_t>(kInterpreter.size() + good.size() + 1)).examine().packed)
      << "a payload longer than the file";
  EXPECT_FALSE(Image("XXXX" + good.substr(4)).examine().packed) << "unknown payload magic";

  // 16 entries fit; 17 do not, however well formed.
  auto with_notes = [&](int notes) {
    std::vector<Entry> e(static_cast<std::size_t>(notes), Entry{"NOTE", 0, 0});
    e.push_back({"BAS2", 8 + 24 * static_cast<std::uint64_t>(notes + 1), prog.size()});
    return container(e, prog);
  };
  EXPECT_TRUE(Image(with_notes(15)).examine().packed);
  EXPECT_FALSE(Image(with_notes(16)).examine().packed) << "17 entries";

  EXPECT_FALSE(Image(container({{"BAS2", at, prog.size() + 1}}, prog)).examine().packed)
      << "a block one byte past the payload";
  const std::uint64_t at2 = 8 + 2 * 24, end2 = at2 + prog.size();
  EXPECT_TRUE(Image(container({{"BAS2", at2, prog.size()}, {"QZGM", end2, 0}}, prog)).examine().packed)
      << "an empty block at the very end is inside";
  EXPECT_FALSE(Image(container({{"BAS2", at2, prog.size()}, {"QZGM", end2 + 1, 0}}, prog)).examine().packed)
      << "an offset past the payload spoils the container even on another entry";
  EXPECT_FALSE(Image(container({{"BAS2", at, 7}}, prog)).examine().packed) << "a program block under 8 bytes";
  std::string zero = "QZP3";
  put32(zero, 0);
  EXPECT_FALSE(Image(zero + prog).examine().packed) << "a container of no entries";
}

TEST(PackedImage, OnlyABankIsNotPackedButTheBankIsKnownAndTheLastEntryOfATagWins) {
  const std::string bank = "bank";
  const host::PackedImage only = Image(container({{"QZGM", 8 + 24, bank.size()}}, bank)).examine();
  EXPECT_FALSE(only.packed);
  EXPECT_TRUE(only.payload) << "a well-formed container: its bank can travel into a new executable";
  EXPECT_EQ(only.bank_length, bank.size());
  EXPECT_EQ(only.interpreter_length, kInterpreter.size());

  const std::string a = block({{10, "REM A"}}), b = block({{20, "REM BB"}});
  const std::uint64_t at = 8 + 2 * 24;
  const host::PackedImage two =
      Image(container({{"BAS2", at, a.size()}, {"BAS2", at + a.size(), b.size()}}, a + b)).examine();
  EXPECT_TRUE(two.packed);
  EXPECT_EQ(two.program_length, b.size());

  const host::PackedImage bare = Image(a).examine();
  EXPECT_TRUE(bare.packed) << "the older form: the payload is the program block itself";
  EXPECT_EQ(bare.program_offset, kInterpreter.size());
  EXPECT_EQ(bare.program_length, a.size());
}

class ProgramBlock : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!host::shell.program_arena)
      host::shell.program_arena = static_cast<std::uint8_t*>(host::reserve_memory(host::kProgramArenaBytes));
    data_ = static_cast<std::uint8_t*>(host::reserve_memory(kData));
  }
  void SetUp() override {
    values::arena_init(data_, kData);
    core::init_interpreter();
  }
  // Loads `b` as the whole payload of an image and reports success.
  bool load(const std::string& b) {
    Image img(b, static_cast<std::int64_t>(b.size()));
    return host::load_program_block(img.file(), kInterpreter.size(), b.size());
  }
  std::string listing() {
    std::string out;
    for (std::uint32_t i = 0; i < core::program.lines; ++i)
      out += std::to_string(core::line_index[i].number) + " " +
             std::string(core::line_body(i), core::line_body_length(i)) + "\n";
    return out;
  }
  static constexpr std::uint64_t kData = 16u << 20;
  static std::uint8_t* data_;
};
std::uint8_t* ProgramBlock::data_ = nullptr;

TEST_F(ProgramBlock, TheStoredProgramRoundTripsThroughItsBlock) {
  ASSERT_TRUE(core::store_line(20, "PRINT \"B\"", 9));
  ASSERT_TRUE(core::store_line(10, "A = 1", 5));
  ASSERT_TRUE(core::store_line(4294967294u, std::string(244, 'X').c_str(), 244));
  const std::string before = listing();
  const std::string b = host::program_block();
  core::program_clear();
  ASSERT_TRUE(load(b));
  EXPECT_EQ(listing(), before);
}

TEST_F(ProgramBlock, EveryMalformedBlockFailsToLoad) {
  const std::string good = block({{10, "PRINT 1"}, {20, "END"}});
  EXPECT_TRUE(load(good));
  EXPECT_FALSE(load(good + "!")) << "one byte left over after the last record";
  EXPECT_FALSE(load(good.substr(0, good.size() - 1))) << "a record cut short";
  std::string more = good;
  more[4] = 3;
  EXPECT_FALSE(load(more)) << "fewer records than the count";
  EXPECT_TRUE(load(block({}))) << "no lines in exactly 8 bytes";
  EXPECT_FALSE(load(block({}) + std::string(8, '\0'))) << "no lines but bytes behind them";
  EXPECT_FALSE(load(block({{10, std::string(245, 'X')}}))) << "a 245-byte body";
  EXPECT_FALSE(load(block({{4294967295u, "REM"}}))) << "line number 4294967295";
  std::string huge = "BAS2";
  put32(huge, 65537);
  EXPECT_FALSE(load(huge));
  std::string wrong = good;
  wrong[3] = '3';
  EXPECT_FALSE(load(wrong)) << "magic";
}

// A type 0 (BIOS) and type 1 (system) structure, one without strings between
// them, and the end marker.
TEST(Smbios, ReadsTheBiosAndSystemStringsByTheirNumbers) {
  std::string t;
  t += std::string("\x00\x12\x00\x00\x01\x02\x00\xF0\x03", 9) + std::string(9, '\0');
  t += std::string("Vendor Inc.\0" "1.23 \0" "04/05/2021\0\0", 30);
  t += std::string("\x20\x0B\x01\x00", 4) + std::string(7, '\0') + std::string(2, '\0');
  t += std::string("\x01\x08\x02\x00\x02\x01\x00\x00", 8);
  t += std::string("Maker\0Model X\0\0", 15);
  t += std::string("\x7F\x04\x03\x00\0\0", 6);
  host::FirmwareFacts f;
  host::parse_smbios(reinterpret_cast<const std::uint8_t*>(t.data()), t.size(), &f);
  EXPECT_EQ(f.bios_vendor, "Vendor Inc.");
  EXPECT_EQ(f.bios_version, "1.23");
  EXPECT_EQ(f.bios_date, "04/05/2021");
  EXPECT_EQ(f.maker, "Model X") << "string 2 of the system structure";
  EXPECT_EQ(f.product, "Maker");

  host::FirmwareFacts cut;
  host::parse_smbios(reinterpret_cast<const std::uint8_t*>(t.data()), 20, &cut);
  EXPECT_EQ(cut.maker, "") << "a table cut inside its first structure yields nothing past it";
}

TEST(SystemInfo, EveryIndexHasALineAndTheFixedOnesKeepTheirWording) {
  for (int i = 0; i < host::kSystemInfoLines; ++i) EXPECT_FALSE(host::system_info_line(i).empty()) << i;
  const std::string simd = host::system_info_line(6);
  EXPECT_TRUE(simd == "SIMD: AVX2 usable for JIT (SSE2 baseline)" ||
              simd == "SIMD: SSE2; AVX2 hardware present, YMM state unavailable" ||
              simd == "SIMD: SSE2; AVX2 hardware unavailable")
      << simd;
  host::parfor_cap = 4;
  host::parfor_last_workers = 3;
  EXPECT_NE(host::system_info_line(7).find("incl. caller; cap 4 (max 32); last 3"), std::string::npos);
  host::parfor_cap = 0;
  host::parfor_last_workers = 0;
  EXPECT_NE(host::system_info_line(7).find("incl. caller; cap auto (max 32); last none"), std::string::npos);
}

}  // namespace
