// The sound engine and the bank in process: CRC-32, the block and metadata
// coders, every header rule of the three bank forms, the command ring's
// capacity on a device that never finishes a buffer, format fallback, and the
// voice's pitch, release, pan and volume measured on rendered output.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <chrono>
#include <string>
#include <vector>

#include "sound/bank.h"
#include "sound/bank_format.h"
#include "sound/bank_writer.h"
#include "sound/engine.h"

namespace {

using namespace sound;

std::uint32_t crc_bitwise(const std::uint8_t* p, std::size_t n) {
  std::uint32_t c = 0xFFFFFFFF;
  for (std::size_t i = 0; i < n; ++i) {
    c ^= p[i];
    for (int k = 0; k < 8; ++k) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
  }
  return ~c;
}

TEST(SoundCrc, KnownValueAndEveryTailLength) {
  EXPECT_EQ(format::crc32("123456789", 9), 0xCBF43926u);
  EXPECT_EQ(format::crc32("", 0), 0u);
  std::mt19937 rng(7);
  std::vector<std::uint8_t> data(300);
  for (auto& b : data) b = static_cast<std::uint8_t>(rng());
  // Eight bytes at a time must agree with the bytewise definition for every
  // length and alignment.
  for (std::size_t start = 0; start < 8; ++start)
    for (std::size_t n = 0; n + start <= 80; ++n)
      ASSERT_EQ(format::crc32(data.data() + start, n), crc_bitwise(data.data() + start, n)) << start << " " << n;
}

TEST(SoundCodec, BlocksRoundTrip) {
  std::mt19937 rng(1);
  std::vector<std::vector<std::int16_t>> cases;
  cases.push_back({});
  cases.push_back({5});
  cases.push_back({-32768, 32767, -32768, 32767, 0, 0, 0});
  std::vector<std::int16_t> sine(5000), noise(777), spikes(1024, 0);
  for (std::size_t i = 0; i < sine.size(); ++i) sine[i] = static_cast<std::int16_t>(20000 * std::sin(i * 0.05));
  for (auto& s : noise) s = static_cast<std::int16_t>(rng());
  for (std::size_t i = 0; i < spikes.size(); i += 100) spikes[i] = i % 200 ? 32767 : -32768;
  cases.push_back(sine);
  cases.push_back(noise);
  cases.push_back(spikes);
  for (const auto& c : cases) {
    const std::vector<std::uint8_t> coded = format::encode_block(c.data(), c.size());
    std::vector<std::int16_t> back(c.size());
    ASSERT_TRUE(format::decode_block(coded.data(), coded.size(), back.data(), back.size()));
    EXPECT_EQ(back, c);
    // A cut block is refused, never read past its end.
    if (coded.size() > 2) {
      EXPECT_FALSE(format::decode_block(coded.data(), coded.size() / 2, back.data(), back.size()));
    }
  }
  // A smooth signal compresses.
  EXPECT_LT(format::encode_block(sine.data(), sine.size()).size(), sine.size() * 2 / 2);
}

TEST(SoundCodec, MetadataCompressorRoundTrip) {
  std::vector<std::uint8_t> data(4000, 0);
  for (std::size_t i = 0; i < data.size(); i += 56) data[i] = static_cast<std::uint8_t>(i / 56);
  const std::vector<std::uint8_t> z = format::lz_compress(data.data(), data.size());
  EXPECT_LT(z.size(), data.size() / 4);
  std::vector<std::uint8_t> back(data.size());
  ASSERT_TRUE(format::lz_decompress(z.data(), z.size(), back.data(), back.size()));
  EXPECT_EQ(back, data);
  EXPECT_FALSE(format::lz_decompress(z.data(), z.size(), back.data(), back.size() - 1));
  EXPECT_FALSE(format::lz_decompress(z.data(), z.size() - 1, back.data(), back.size()));
}

// A bank of one looped sine (440 Hz at 44,000 Hz: exactly 100 frames a
// period) on program 0 and a one-shot on kit 128.
Bank test_bank(float release = 0.5f) {
  Bank b;
  SampleInfo s;
  s.frames = 44000;
  s.rate = 44000;
  b.samples.push_back(s);
  for (std::uint32_t i = 0; i < s.frames; ++i)
    b.pcm.push_back(static_cast<std::int16_t>(std::lround(16384 * std::sin(2 * M_PI * i / 100.0))));
  SampleInfo drum = s;
  drum.offset = b.pcm.size();
  drum.frames = 4800;
  b.samples.push_back(drum);
  for (std::uint32_t i = 0; i < drum.frames; ++i) b.pcm.push_back(static_cast<std::int16_t>((i * 37) % 2000 - 1000));
  Zone z;
  z.program = 0;
  z.root_key = 69;
  z.flags = kZoneLoop;
  z.sample = 0;
  z.start = 0;
  z.end = 44000;
  z.loop_start = 1000;
  z.loop_end = 43000;
  z.release = release;
  z.attack = 0.001f;
  b.zones.push_back(z);
  Zone k = z;
  k.program = 128;
  k.sample = 1;
  k.flags = 0;
  k.end = 4800;
  k.loop_start = k.loop_end = 0;
  b.zones.push_back(k);
  format::index_zones(&b);
  return b;
}

std::vector<std::uint8_t> written(BankForm form, const Bank& b = test_bank()) {
  std::vector<std::uint8_t> out;
  std::string error;
  BankWriteOptions o;
  o.block_length = 4096;
  EXPECT_TRUE(write_bank(b, form, o, &out, &error)) << error;
  return out;
}

std::string load_error(const std::vector<std::uint8_t>& file, int workers = 0) {
  Bank b;
  std::string error;
  return load_bank_memory(file.data(), file.size(), workers, &b, &error) ? "" : error;
}

TEST(SoundBank, EachFormLoadsTheSamePcm) {
  const Bank ref = test_bank();
  for (BankForm f : {BankForm::raw, BankForm::lossless}) {
    const std::vector<std::uint8_t> file = written(f);
    for (int workers : {1, 0, 2}) {
      Bank b;
      std::string error;
      ASSERT_TRUE(load_bank_memory(file.data(), file.size(), workers, &b, &error)) << error;
      EXPECT_EQ(b.pcm, ref.pcm);
      EXPECT_TRUE(b.has_program(0));
      EXPECT_TRUE(b.has_program(128));
      EXPECT_FALSE(b.has_program(1));
    }
  }
  // Opus is lossy: the sine comes back close, at 48 kHz, with its loop moved along.
  const std::vector<std::uint8_t> file = written(BankForm::opus);
  Bank b;
  std::string error;
  ASSERT_TRUE(load_bank_memory(file.data(), file.size(), 0, &b, &error)) << error;
  EXPECT_EQ(b.form, "QZGM4 Opus (fully expanded PCM)");
  ASSERT_EQ(b.samples[0].rate, 48000u);
  EXPECT_EQ(b.zones[0].loop_end - b.zones[0].loop_start, 42000u * 48 / 44);
  double err = 0, sum = 0;
  for (std::uint32_t i = 2000; i < 40000; ++i) {
    const double want = 16384 * std::sin(2 * M_PI * i / (100.0 * 48 / 44));
    err += (b.pcm[i] - want) * (b.pcm[i] - want);
    sum += want * want;
  }
  EXPECT_LT(err / sum, 0.01);
}

struct Rule {
  std::size_t offset;
  int width;
  std::uint64_t value;
  const char* message;
};

void expect_rules(const std::vector<std::uint8_t>& good, const std::vector<Rule>& rules) {
  ASSERT_EQ(load_error(good), "");
  for (const Rule& r : rules) {
    std::vector<std::uint8_t> bad = good;
    if (r.width == 4) format::set32(bad.data() + r.offset, static_cast<std::uint32_t>(r.value));
    else format::set64(bad.data() + r.offset, r.value);
    EXPECT_EQ(load_error(bad), r.message) << "offset " << r.offset << " value " << r.value;
  }
}

TEST(SoundBank, LosslessHeaderRules) {
  const std::vector<std::uint8_t> g = written(BankForm::lossless);
  const char* bad = "invalid or truncated bank";
  const std::uint64_t decoded = format::get64(g.data() + 16), stored = format::get64(g.data() + 24);
  const std::uint32_t blocks = format::get32(g.data() + 36);
  expect_rules(g, {
                      {8, 4, 95, bad},
                      {12, 4, 1, bad},
                      {16, 8, 47, bad},
                      {16, 8, 2147483649ull, bad},
                      {24, 8, 47, bad},
                      {24, 8, decoded, bad},
                      {24, 8, 12772889, bad},
                      {32, 4, 4095, bad},
                      {32, 4, 0, bad},
                      {32, 4, 1048578, bad},
                      {36, 4, 1048577, bad},
                      {40, 4, 0, bad},
                      {40, 4, blocks + 1, bad},
                      {44, 4, 1, bad},
                      {48, 8, 97, bad},
                      {56, 8, 96 + stored + 1, bad},
                      {64, 8, format::get64(g.data() + 64) + 4, bad},
                      {72, 8, format::get64(g.data() + 72) - 4, bad},
                      {80, 8, g.size() + 1, bad},
                      {88, 4, format::get32(g.data() + 88) ^ 1, "GM metadata/index checksum mismatch"},
                      {92, 4, format::get32(g.data() + 92) ^ 1, "GM metadata/index checksum mismatch"},
                  });
  // Truncation anywhere, a wrong magic, a damaged block.
  EXPECT_EQ(load_error(std::vector<std::uint8_t>(g.begin(), g.end() - 1)), bad);
  EXPECT_EQ(load_error(std::vector<std::uint8_t>(g.begin(), g.begin() + 50)), bad);
  std::vector<std::uint8_t> m = g;
  m[7] = '5';
  EXPECT_EQ(load_error(m), bad);
  m = g;
  m[g.size() - 3000] ^= 0x5A;
  const std::string e = load_error(m);
  EXPECT_TRUE(e == "GM compressed block read/decode failed" || e == "GM sample PCM checksum mismatch") << e;
}

TEST(SoundBank, LosslessIndexAndMetadataChecks) {
  const std::vector<std::uint8_t> g = written(BankForm::lossless);
  const std::uint64_t index = format::get64(g.data() + 56);
  // A block size that runs past the file (checksum fixed up so the index is believed).
  std::vector<std::uint8_t> m = g;
  format::set32(m.data() + index, 1000000);
  const std::size_t index_bytes = format::get64(g.data() + 72) - index;
  format::set32(m.data() + 92, format::crc32(m.data() + index, index_bytes));
  EXPECT_EQ(load_error(m), "invalid compressed GM block reference");
  // A sample reference that disagrees with the metadata.
  m = g;
  const std::uint64_t refs = format::get64(g.data() + 64);
  format::set32(m.data() + refs + 12, 2);
  format::set32(m.data() + 92, format::crc32(m.data() + index, index_bytes));
  EXPECT_EQ(load_error(m), "invalid compressed GM metadata or block index");
}

TEST(SoundBank, RawAndOpusHeaderRules) {
  const std::vector<std::uint8_t> raw = written(BankForm::raw);
  expect_rules(raw, {
                        {8, 4, 96, "invalid or truncated bank"},
                        {12, 4, 1, "invalid or truncated bank"},
                        {32, 8, raw.size() + 2, "invalid or truncated bank"},
                        {40, 4, format::get32(raw.data() + 40) ^ 1, "GM metadata/index checksum mismatch"},
                    });
  // A PCM byte changed: the sample's checksum catches it.
  std::vector<std::uint8_t> m = raw;
  m[raw.size() - 10] ^= 1;
  EXPECT_EQ(load_error(m), "GM sample PCM checksum mismatch");

  const std::vector<std::uint8_t> opus = written(BankForm::opus);
  const char* bad = "invalid or truncated bank";
  expect_rules(opus, {
                         {8, 4, 48, bad},
                         {12, 4, 2, bad},
                         {36, 4, 63, bad},
                         {40, 4, 0, bad},
                         {40, 4, 7, bad},
                         {44, 4, 1, bad},
                         {72, 8, opus.size() - 1, bad},
                         {80, 4, format::get32(opus.data() + 80) ^ 1, "Opus metadata/index checksum mismatch"},
                         {84, 4, format::get32(opus.data() + 84) ^ 1, "Opus metadata/index checksum mismatch"},
                     });
  // Damaged Opus data fails its own checksum before decoding.
  m = opus;
  m[opus.size() - 5] ^= 0x40;
  EXPECT_EQ(load_error(m), "Opus metadata/index checksum mismatch");
}

// A device that opens only from PCM24 down and never finishes a buffer, so
// nothing drains the ring after the first four buffers.
class StalledDevice final : public host::AudioDevice {
 public:
  const char* backend_name() const override { return "test"; }
  bool open(host::AudioFormat f, unsigned, unsigned) override { return f != host::AudioFormat::float32; }
  void pause() override {}
  bool restart() override { return true; }
  bool write(unsigned, const void*, std::size_t) override { return true; }
  bool done(unsigned) override { return false; }
  void wait(unsigned ms) override { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
  void wake() override {}
  void reset() override {}
  void close() override {}
};

TEST(SoundEngine, RingHolds1023CommandsAndPcm24IsTheFallback) {
  StalledDevice dev;
  use_device_for_tests(&dev);
  ASSERT_TRUE(start());
  EXPECT_EQ(output_name(), "48 kHz stereo PCM24");
  Command c;
  c.kind = kCmdControl;
  c.channel = 3;
  c.control = 0;
  for (int i = 0; i < 1023; ++i) {
    c.value = i;
    ASSERT_TRUE(post(c)) << i;
  }
  EXPECT_FALSE(post(c));
  stop();
  // Stopping applies what was queued; with the engine stopped a command takes effect at once.
  EXPECT_EQ(channel_control(3, 0), 1022);
  c.value = 0.25;
  EXPECT_TRUE(post(c));
  EXPECT_EQ(channel_control(3, 0), 0.25);
  use_device_for_tests(nullptr);
  c.value = 1;
  EXPECT_TRUE(post(c));
}

// Rendering the test bank directly (the engine stopped, commands applied at once).
class SoundVoice : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static std::string path = ::testing::TempDir() + "tambril_sound_test.qzgm";
    const std::vector<std::uint8_t> file = written(BankForm::lossless);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f);
    std::fwrite(file.data(), 1, file.size(), f);
    std::fclose(f);
    setenv("TAMBRIL_GM_BANK", path.c_str(), 1);
    Command r;  // no voice may read the bank being replaced
    r.kind = kCmdReset;
    apply(r);
    ASSERT_TRUE(reload_bank_for_tests()) << bank_error();
  }
  void SetUp() override {
    use_device_for_tests(nullptr);
    Command r;
    r.kind = kCmdReset;
    apply(r);
  }
  static void send(std::uint8_t kind, int ch, int note = 0, int vel = 127, int control = 0, double value = 0) {
    Command c;
    c.kind = kind;
    c.channel = static_cast<std::uint8_t>(ch);
    c.note = static_cast<std::uint8_t>(note);
    c.velocity = static_cast<std::uint8_t>(vel);
    c.control = static_cast<std::uint16_t>(control);
    c.value = value;
    ASSERT_TRUE(post(c));
  }
  static std::vector<double> run(unsigned frames) {
    std::vector<double> out(2 * frames);
    render(out.data(), frames);
    return out;
  }
  static double rms(const std::vector<double>& s, int side, std::size_t from, std::size_t to) {
    double sum = 0;
    for (std::size_t i = from; i < to; ++i) sum += s[2 * i + side] * s[2 * i + side];
    return std::sqrt(sum / static_cast<double>(to - from));
  }
  static double frequency(const std::vector<double>& s, std::size_t from, std::size_t to) {
    double first = -1, last = -1;
    int crossings = 0;
    for (std::size_t i = from + 1; i < to; ++i) {
      const double a = s[2 * (i - 1)], b = s[2 * i];
      if (a < 0 && b >= 0) {
        const double at = static_cast<double>(i - 1) + a / (a - b);
        if (first < 0) first = at;
        last = at;
        ++crossings;
      }
    }
    return (crossings - 1) * 48000.0 / (last - first);
  }
};

TEST_F(SoundVoice, PitchFollowsTheRootKey) {
  send(kCmdNoteOn, 0, 69);
  std::vector<double> s = run(48000);
  EXPECT_NEAR(frequency(s, 4800, 48000), 440.0, 0.05);
  send(kCmdNoteOff, 0, 69);
  send(kCmdNoteOn, 1, 81);
  s = run(96000);
  EXPECT_NEAR(frequency(s, 48000, 96000), 880.0, 0.1);
  // The bend of DETUNE moves it by cents.
  send(kCmdControl, 1, 0, 0, 17, 100);
  s = run(48000);
  EXPECT_NEAR(frequency(s, 4800, 48000), 880.0 * std::pow(2.0, 1 / 12.0), 0.2);
}

TEST_F(SoundVoice, ReleaseFalls60dBInTheZonesTime) {
  send(kCmdNoteOn, 0, 69);
  const std::vector<double> held = run(9600);
  const double level = rms(held, 0, 4800, 9600);
  send(kCmdNoteOff, 0, 69);
  const std::vector<double> s = run(48000);
  // 10 ms windows: the window that starts at 0.5 s is 60 dB down within 5%.
  const double at_t = rms(s, 0, 24000 - 240, 24000 + 240);
  EXPECT_NEAR(20 * std::log10(at_t / level), -60.0, 60.0 * 0.05);
  // Below 0.00001 the voice ends (100 dB down: 0.83 s).
  EXPECT_EQ(active_voices(), 0);
  // The channel's RELEASE setting stretches it: r = 0.9 doubles T.
  send(kCmdControl, 0, 0, 0, 5, 0.9);
  send(kCmdNoteOn, 0, 69);
  (void)run(9600);
  send(kCmdNoteOff, 0, 69);
  const std::vector<double> slow = run(48000);
  EXPECT_NEAR(20 * std::log10(rms(slow, 0, 48000 - 480, 48000) / level), -60.0, 60.0 * 0.05);
}

TEST_F(SoundVoice, PanLawAndVolume) {
  send(kCmdNoteOn, 0, 69);
  const std::vector<double> centre = run(9600);
  const double l0 = rms(centre, 0, 4800, 9600), r0 = rms(centre, 1, 4800, 9600);
  EXPECT_NEAR(l0, r0, 1e-9);
  // The sine's amplitude is 0.5: its RMS is 0.5 / sqrt 2, times 0.7071.
  EXPECT_NEAR(l0, 0.5 / std::sqrt(2.0) * 0.7071, 0.002);
  for (double p : {-1.0, 1.0}) {
    send(kCmdControl, 0, 0, 0, 1, p);
    const std::vector<double> s = run(4800);
    EXPECT_NEAR(rms(s, 0, 0, 4800) / l0, 1 - 0.78 * p, 0.001) << p;
    EXPECT_NEAR(rms(s, 1, 0, 4800) / r0, 1 + 0.78 * p, 0.001) << p;
  }
  send(kCmdControl, 0, 0, 0, 1, 0);
  send(kCmdControl, 0, 0, 0, 0, 0.5);
  const std::vector<double> half = run(4800);
  EXPECT_NEAR(rms(half, 0, 0, 4800) / l0, 0.5, 0.001);
  // MUTE silences the channel; master gain scales everything.
  send(kCmdControl, 0, 0, 0, 0, 1);
  master_gain = 0.25;
  EXPECT_NEAR(rms(run(4800), 0, 0, 4800) / l0, 0.25, 0.001);
  master_gain = 1;
  send(kCmdControl, 0, 0, 0, 23, 1);
  EXPECT_EQ(rms(run(4800), 0, 0, 4800), 0);
}

TEST_F(SoundVoice, VoiceLimitAndKits) {
  // 300 notes over 32 channels: never more than 256 voices.
  for (int i = 0; i < 300; ++i) send(kCmdNoteOn, i % 32, 20 + i % 100);
  (void)run(128);
  EXPECT_EQ(active_voices(), kMaxVoices);
  Command r;
  r.kind = kCmdReset;
  apply(r);
  // A one-shot kit sound ends by itself at the end of its sample.
  Command k;
  k.kind = kCmdInstrument;
  k.channel = 9;
  k.value = 128;
  ASSERT_TRUE(post(k));
  send(kCmdNoteOn, 9, 93);
  (void)run(600);
  EXPECT_EQ(active_voices(), 1);
  (void)run(9600);
  EXPECT_EQ(active_voices(), 0);
}

TEST_F(SoundVoice, ExpressiveKeysStrikeUpdateAndRelease) {
  auto key = [](double pitch, double pressure, double x, int gate) {
    Command c;
    c.kind = kCmdKey;
    c.channel = 2;
    c.key = 40000;
    c.pitch = pitch;
    c.pressure = pressure;
    c.x = x;
    c.y = 1;
    c.gate = static_cast<std::uint8_t>(gate);
    ASSERT_TRUE(post(c));
  };
  // A quarter tone above A: the fraction of the pitch bends the note.
  key(69.5, 1, 0, 1);
  std::vector<double> s = run(48000);
  EXPECT_NEAR(frequency(s, 4800, 48000), 440.0 * std::pow(2.0, 0.5 / 12), 0.1);
  const double level = rms(s, 0, 4800, 48000);
  // Gate 1 again moves the same voice: no second strike, and half the
  // pressure halves the level; x = 1 pans it right.
  key(81, 0.5, 0, 1);
  s = run(48000);
  EXPECT_EQ(active_voices(), 1);
  EXPECT_NEAR(frequency(s, 4800, 48000), 880.0, 0.1);
  EXPECT_NEAR(rms(s, 0, 4800, 48000) / level, 0.5, 0.01);
  key(81, 0.5, 1, 1);
  s = run(9600);
  EXPECT_GT(rms(s, 1, 4800, 9600), 3 * rms(s, 0, 4800, 9600));
  // Gate 0 releases it; NOTEOFF of the same note number leaves key voices alone.
  key(69, 1, 0, 1);
  send(kCmdNoteOff, 2, 69);
  (void)run(4800);
  EXPECT_EQ(active_voices(), 1);
  key(69, 0, 0, 0);
  (void)run(48000);
  EXPECT_EQ(active_voices(), 0);
}

TEST(SoundNames, TablesAndGroups) {
  EXPECT_STREQ(program_name(0), "Acoustic Grand Piano");
  EXPECT_STREQ(program_name(80), "Lead 1 (square)");
  EXPECT_STREQ(program_name(127), "Gunshot");
  EXPECT_STREQ(program_name(131), "Electronic Drum Kit");
  EXPECT_EQ(group_of(7), 0);
  EXPECT_EQ(group_of(127), 15);
  EXPECT_EQ(group_of(128), 16);
  EXPECT_EQ(group_of(132), -1);
}

}  // namespace
