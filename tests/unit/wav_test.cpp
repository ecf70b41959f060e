// WAV slots in process: the resampler's phases, taps and gain, RIFF WAV's
// rules and messages, and the playback channels rendered directly (pan laws,
// the 5 ms ramp and fades, pause and resume, looping).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "sound/engine.h"
#include "sound/resample.h"
#include "sound/wav_decode.h"
#include "sound/wav_player.h"

namespace {

using namespace sound;
using Bytes = std::vector<std::uint8_t>;

TEST(WavResample, PhasesTapsAndCutoff) {
  ResampleFilter f;
  ASSERT_TRUE(make_resample_filter(44100, &f));
  EXPECT_EQ(f.g, 300u);
  EXPECT_EQ(f.phases, 160u);
  EXPECT_EQ(f.taps, 64u);
  EXPECT_DOUBLE_EQ(f.cutoff, 0.94);
  ASSERT_TRUE(make_resample_filter(96000, &f));
  EXPECT_EQ(f.phases, 1u);
  EXPECT_EQ(f.taps, 128u);
  EXPECT_EQ(f.half, 64u);
  EXPECT_NEAR(f.cutoff, 0.47, 1e-12);
  ASSERT_TRUE(make_resample_filter(192000, &f));
  EXPECT_EQ(f.taps, 256u);
  ASSERT_TRUE(make_resample_filter(44099, &f));  // coprime with 48,000
  EXPECT_EQ(f.phases, 48000u);
  // Every phase has unity gain; phase 0's centre tap (x = 0) is the largest.
  ASSERT_TRUE(make_resample_filter(44100, &f));
  for (std::uint32_t p = 0; p < f.phases; ++p) {
    double sum = 0;
    for (std::uint32_t k = 0; k < f.taps; ++k) sum += f.coef[p * f.taps + k];
    ASSERT_NEAR(sum, 1.0, 1e-5) << p;
  }
  // Tap k of phase p sits at x = (k - h + 1) - p / phases: phase 0, tap h - 1 is x = 0.
  const float* row = f.coef.data();
  for (std::uint32_t k = 0; k < f.taps; ++k) {
    if (k != 31) {
      EXPECT_LT(row[k], row[31]);
    }
  }
  // One coefficient against the formula (before normalisation by the row's sum).
  double raw[64], sum = 0;
  const double pi = 3.14159265358979323846, frac = 37.0 / 160;
  for (int k = 0; k < 64; ++k) {
    const double x = (k - 32 + 1) - frac;
    const double w = 0.42 + 0.5 * std::cos(pi * x / 32) + 0.08 * std::cos(2 * pi * x / 32);
    raw[k] = static_cast<float>(std::sin(pi * 0.94 * x) / (pi * x) * w);
    sum += static_cast<float>(raw[k]);
  }
  EXPECT_FLOAT_EQ(f.coef[37 * 64 + 20], static_cast<float>(raw[20] / sum));
}

TEST(WavResample, SineKeepsFrequencyAndLevel) {
  for (std::uint32_t rate : {8000u, 22050u, 44100u, 96000u, 192000u}) {
    std::vector<float> in(rate);
    for (std::uint32_t i = 0; i < rate; ++i) in[i] = static_cast<float>(0.5 * std::sin(2 * 3.141592653589793 * 1000.0 * i / rate));
    ResampleFilter f;
    ASSERT_TRUE(make_resample_filter(rate, &f));
    std::vector<float> out;
    std::string error;
    ASSERT_TRUE(resample(f, in.data(), in.size(), 1, &out, nullptr, &error)) << error;
    ASSERT_EQ(out.size(), 48000u) << rate;
    double sum = 0, first = -1, last = -1;
    int crossings = 0;
    for (std::size_t i = 4800; i < 43200; ++i) {
      sum += static_cast<double>(out[i]) * out[i];
      if (out[i - 1] < 0 && out[i] >= 0) {
        const double at = static_cast<double>(i) - 1 + out[i - 1] / (out[i - 1] - out[i]);
        if (first < 0) first = at;
        last = at;
        ++crossings;
      }
    }
    EXPECT_NEAR((crossings - 1) * 48000.0 / (last - first), 1000.0, 0.01) << rate;
    EXPECT_NEAR(20 * std::log10(std::sqrt(sum / 38400) / (0.5 / std::sqrt(2.0))), 0.0, 0.02) << rate;
  }
}

TEST(WavResample, OutOfFloatRange) {
  // Full-scale floats whose signs follow the taps of output frame 100: the
  // sum of the taps' magnitudes is above 1, so the result leaves float range.
  ResampleFilter f;
  ASSERT_TRUE(make_resample_filter(96000, &f));
  std::vector<float> in(400, 0.0f);
  for (std::uint32_t k = 0; k < f.taps; ++k) in[200 + k - 63] = std::copysign(3.4e38f, f.coef[k]);
  std::vector<float> out;
  std::string error;
  EXPECT_FALSE(resample(f, in.data(), in.size(), 1, &out, nullptr, &error));
  EXPECT_EQ(error, "WAV exceeds float32 range after resampling");
}

void put16(Bytes& b, unsigned v) { b.push_back(static_cast<std::uint8_t>(v)), b.push_back(static_cast<std::uint8_t>(v >> 8)); }
void put32(Bytes& b, std::uint32_t v) { put16(b, v & 0xFFFF), put16(b, v >> 16); }

struct Fmt {
  unsigned tag = 1, channels = 1, bits = 16;
  std::uint32_t rate = 48000;
  int align = -1, byte_rate = -1;
  bool extensible = false;
  unsigned sub = 1, valid = 0;
  std::uint32_t mask = 0;
};

Bytes fmt_chunk(const Fmt& f) {
  Bytes b{'f', 'm', 't', ' '};
  Bytes body;
  put16(body, f.extensible ? 0xFFFE : f.tag);
  put16(body, f.channels);
  put32(body, f.rate);
  const unsigned align = f.align >= 0 ? static_cast<unsigned>(f.align) : f.channels * f.bits / 8;
  put32(body, f.byte_rate >= 0 ? static_cast<std::uint32_t>(f.byte_rate) : f.rate * align);
  put16(body, align);
  put16(body, f.bits);
  if (f.extensible) {
    put16(body, 22);
    put16(body, f.valid ? f.valid : f.bits);
    put32(body, f.mask);
    put16(body, f.sub);
    const std::uint8_t tail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    body.insert(body.end(), tail, tail + 14);
  }
  put32(b, static_cast<std::uint32_t>(body.size()));
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

Bytes data_chunk(const Bytes& pcm) {
  Bytes b{'d', 'a', 't', 'a'};
  put32(b, static_cast<std::uint32_t>(pcm.size()));
  b.insert(b.end(), pcm.begin(), pcm.end());
  if (pcm.size() & 1) b.push_back(0);
  return b;
}

Bytes riff(std::initializer_list<Bytes> chunks) {
  Bytes body{'W', 'A', 'V', 'E'};
  for (const Bytes& c : chunks) body.insert(body.end(), c.begin(), c.end());
  Bytes b{'R', 'I', 'F', 'F'};
  put32(b, static_cast<std::uint32_t>(body.size()));
  b.insert(b.end(), body.begin(), body.end());
  return b;
}

std::string wav_error(const Bytes& file) {
  SourceAudio a;
  std::string e;
  return parse_riff_wav(file.data(), file.size(), &a, &e) ? "" : e;
}

TEST(WavRiff, SampleFormsDecode) {
  SourceAudio a;
  std::string e;
  // 8-bit unsigned, 24-bit, 32-bit integer, 64-bit float, extensible float.
  Bytes p8{0, 128, 255, 64};
  Bytes file = riff({fmt_chunk({.bits = 8}), data_chunk(p8)});
  ASSERT_TRUE(parse_riff_wav(file.data(), file.size(), &a, &e)) << e;
  EXPECT_EQ(a.pcm, (std::vector<float>{-1.0f, 0.0f, 127 / 128.0f, -0.5f}));
  Bytes p24{0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F};
  file = riff({fmt_chunk({.bits = 24}), data_chunk(p24)});
  ASSERT_TRUE(parse_riff_wav(file.data(), file.size(), &a, &e)) << e;
  EXPECT_EQ(a.pcm[0], -1.0f);
  EXPECT_NEAR(a.pcm[1], 1.0, 1e-6);
  double d[2] = {0.25, -0.75};
  Bytes p64(reinterpret_cast<std::uint8_t*>(d), reinterpret_cast<std::uint8_t*>(d) + 16);
  file = riff({fmt_chunk({.tag = 3, .channels = 2, .bits = 64}), data_chunk(p64)});
  ASSERT_TRUE(parse_riff_wav(file.data(), file.size(), &a, &e)) << e;
  EXPECT_EQ(a.pcm, (std::vector<float>{0.25f, -0.75f}));
  EXPECT_EQ(a.channels, 2);
  float fl[1] = {0.5f};
  Bytes p32(reinterpret_cast<std::uint8_t*>(fl), reinterpret_cast<std::uint8_t*>(fl) + 4);
  file = riff({fmt_chunk({.bits = 32, .extensible = true, .sub = 3, .mask = 4}), data_chunk(p32)});
  ASSERT_TRUE(parse_riff_wav(file.data(), file.size(), &a, &e)) << e;
  EXPECT_EQ(a.pcm[0], 0.5f);
  EXPECT_EQ(a.codec, "RIFF WAV (WAVEFORMATEXTENSIBLE)");
}

TEST(WavRiff, EveryRuleHasItsMessage) {
  const Bytes pcm{1, 0, 2, 0};
  const Bytes good = riff({fmt_chunk({}), data_chunk(pcm)});
  EXPECT_EQ(wav_error(good), "");
  EXPECT_EQ(wav_error(Bytes(good.begin(), good.begin() + 10)), "Truncated WAV header");
  Bytes big = good;
  big[4] = 0xFF;
  EXPECT_EQ(wav_error(big), "Invalid RIFF size");
  Bytes over = good;
  over[40] = 0x7F;  // the data chunk's size
  EXPECT_EQ(wav_error(over), "WAV chunk exceeds RIFF size");
  Bytes stub = riff({fmt_chunk({}), data_chunk(pcm), {'J', 'U', 'N'}});
  EXPECT_EQ(wav_error(stub), "Invalid or truncated WAV chunk");
  EXPECT_EQ(wav_error(riff({fmt_chunk({}), fmt_chunk({}), data_chunk(pcm)})), "Invalid or duplicate WAV format");
  EXPECT_EQ(wav_error(riff({data_chunk(pcm)})), "Invalid or duplicate WAV format");
  EXPECT_EQ(wav_error(riff({fmt_chunk({}), data_chunk(pcm), data_chunk(pcm)})), "Multiple WAV data chunks unsupported");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.tag = 2}), data_chunk(pcm)})),
            "WAV needs PCM 8/16/24/32 or float 32/64; compressed codecs unsupported");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.bits = 12}), data_chunk(pcm)})),
            "WAV needs PCM 8/16/24/32 or float 32/64; compressed codecs unsupported");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.tag = 3, .bits = 16}), data_chunk(pcm)})),
            "WAV needs PCM 8/16/24/32 or float 32/64; compressed codecs unsupported");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.extensible = true, .sub = 2}), data_chunk(pcm)})), "Unsupported WAV subformat GUID");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.channels = 3, .bits = 8}), data_chunk({1, 2, 3})})), "WAV must be mono or stereo");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.channels = 2, .extensible = true, .mask = 0x30}), data_chunk(pcm)})),
            "Unsupported WAV speaker layout");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.rate = 3999}), data_chunk(pcm)})), "WAV sample rate must be 4000..192000 Hz");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.rate = 192001}), data_chunk(pcm)})), "WAV sample rate must be 4000..192000 Hz");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.rate = 4000}), data_chunk(pcm)})), "");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.align = 4}), data_chunk(pcm)})), "Invalid WAV precision, alignment or byte rate");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.byte_rate = 1}), data_chunk(pcm)})), "Invalid WAV precision, alignment or byte rate");
  EXPECT_EQ(wav_error(riff({fmt_chunk({.extensible = true, .valid = 17}), data_chunk(pcm)})),
            "Invalid WAV precision, alignment or byte rate");
  EXPECT_EQ(wav_error(riff({fmt_chunk({}), data_chunk({1, 2, 3})})), "WAV missing audio or contains an incomplete frame");
  EXPECT_EQ(wav_error(riff({fmt_chunk({})})), "WAV missing audio or contains an incomplete frame");
  float nan[1] = {NAN};
  Bytes pn(reinterpret_cast<std::uint8_t*>(nan), reinterpret_cast<std::uint8_t*>(nan) + 4);
  EXPECT_EQ(wav_error(riff({fmt_chunk({.tag = 3, .bits = 32}), data_chunk(pn)})),
            "WAV contains NaN, infinity or unsupported float range");
  double huge[1] = {1e300};
  Bytes ph(reinterpret_cast<std::uint8_t*>(huge), reinterpret_cast<std::uint8_t*>(huge) + 8);
  EXPECT_EQ(wav_error(riff({fmt_chunk({.tag = 3, .bits = 64}), data_chunk(ph)})),
            "WAV contains NaN, infinity or unsupported float range");
  // A format chunk cut short, an extension promised and missing.
  Bytes short_fmt{'f', 'm', 't', ' ', 14, 0, 0, 0, 1, 0, 1, 0, 0x80, 0xBB, 0, 0, 0, 0x77, 1, 0, 2, 0};
  EXPECT_EQ(wav_error(riff({short_fmt, data_chunk(pcm)})), "Truncated WAV header");
  Bytes ext = fmt_chunk({.extensible = true});
  ext[4] = 18;  // cbSize 22 promised, 2 bytes present
  ext.resize(8 + 18);
  EXPECT_EQ(wav_error(riff({ext, data_chunk(pcm)})), "Truncated WAVEFORMATEXTENSIBLE");
  Bytes ext16 = fmt_chunk({.extensible = true});
  ext16[4] = 16;  // extensible with no room for its extension size
  ext16.resize(8 + 16);
  EXPECT_EQ(wav_error(riff({ext16, data_chunk(pcm)})), "Truncated WAV format extension");
  Bytes not_audio{'M', 'T', 'h', 'd', 0, 0, 0, 6};
  WavData w;
  std::string e;
  EXPECT_FALSE(decode_audio(not_audio.data(), not_audio.size(), &w, nullptr, &e));
  EXPECT_EQ(e, "Expected RIFF WAV, native FLAC or Ogg Opus");
  Bytes flac{'f', 'L', 'a', 'C', 0x80, 0, 0, 34};
  EXPECT_FALSE(decode_audio(flac.data(), flac.size(), &w, nullptr, &e));
  EXPECT_EQ(e, "Invalid or truncated FLAC");
}

// The channels rendered directly with the engine stopped.
class WavPlay : public ::testing::Test {
 protected:
  void SetUp() override {
    use_device_for_tests(nullptr);
    data_.channels = 1;
    data_.frames = 4800;
    data_.pcm.assign(4800, 0.5f);
  }
  void TearDown() override {
    Command c;
    c.kind = kCmdWavForget;
    set_pointer(c, &data_);
    apply(c);
  }
  void command(std::uint8_t kind, int channel, double volume = 1, double pan = 0, bool loop = false) {
    Command c;
    c.kind = kind;
    c.channel = static_cast<std::uint8_t>(channel);
    c.value = volume;
    c.x = pan;
    c.gate = loop ? 1 : 0;
    c.key = 7;
    set_pointer(c, &data_);
    apply(c);
  }
  static std::vector<double> run(unsigned frames) {
    std::vector<double> out(2 * frames);
    render(out.data(), frames);
    return out;
  }
  WavData data_;
};

TEST_F(WavPlay, PanLaws) {
  double l, r;
  wav_gains(1, 1, 0, &l, &r);
  EXPECT_NEAR(l, std::sqrt(0.5), 1e-12);
  wav_gains(1, 0.5, 1, &l, &r);
  EXPECT_NEAR(l, 0, 1e-12);
  EXPECT_NEAR(r, 0.5, 1e-12);
  wav_gains(2, 0.8, 0.25, &l, &r);
  EXPECT_NEAR(l, 0.6, 1e-12);
  EXPECT_NEAR(r, 0.8, 1e-12);
  wav_gains(2, 0.8, -0.5, &l, &r);
  EXPECT_NEAR(l, 0.8, 1e-12);
  EXPECT_NEAR(r, 0.4, 1e-12);
}

TEST_F(WavPlay, StartsAtItsGainsRampsAndEnds) {
  command(kCmdWavPlay, 5, 1, -1);
  EXPECT_EQ(wav_status.state[5].load(), kWavPlaying);
  EXPECT_EQ(wav_status.slot[5].load(), 7);
  std::vector<double> out = run(1000);
  EXPECT_NEAR(out[0], 0.5, 1e-9);  // no ramp at the start
  EXPECT_NEAR(out[1], 0.0, 1e-9);
  // WAVCTL to the centre: 240 frames of ramp, then the new gains.
  command(kCmdWavCtl, 5, 1, 0);
  out = run(480);
  EXPECT_GT(out[2 * 100], 0.5 * std::sqrt(0.5));
  EXPECT_LT(out[2 * 100], 0.5);
  EXPECT_NEAR(out[2 * 300], 0.5 * std::sqrt(0.5), 1e-9);
  EXPECT_NEAR(out[2 * 300 + 1], 0.5 * std::sqrt(0.5), 1e-9);
  out = run(4800);
  EXPECT_EQ(wav_status.state[5].load(), kWavIdle);
  EXPECT_EQ(wav_status.slot[5].load(), -1);
  EXPECT_NEAR(out[2 * (4800 - 1480 - 1)], 0.5 * std::sqrt(0.5), 1e-9);
  EXPECT_EQ(out[2 * (4800 - 1480)], 0.0);
}

TEST_F(WavPlay, PauseResumeStopAndLoop) {
  command(kCmdWavPlay, 0, 1, 0, true);
  (void)run(1000);
  command(kCmdWavPause, 0);
  EXPECT_EQ(wav_status.state[0].load(), kWavPaused);
  std::vector<double> out = run(480);
  EXPECT_EQ(out[2 * 300], 0.0);
  const std::uint64_t at = wav_status.position[0].load();
  (void)run(1000);
  EXPECT_EQ(wav_status.position[0].load(), at);  // held
  command(kCmdWavResume, 0);
  out = run(480);
  EXPECT_LT(out[2 * 10], out[2 * 200]);  // ramps back up
  // Looping: position wraps past the 4,800 frames.
  (void)run(6000);
  EXPECT_EQ(wav_status.state[0].load(), kWavPlaying);
  EXPECT_LT(wav_status.position[0].load(), 4800u);
  command(kCmdWavStop, 0);
  EXPECT_EQ(wav_status.state[0].load(), kWavStopping);
  out = run(480);
  EXPECT_GT(out[2 * 100], 0.0);
  EXPECT_EQ(out[2 * 300], 0.0);
  EXPECT_EQ(wav_status.state[0].load(), kWavIdle);
}

}  // namespace
