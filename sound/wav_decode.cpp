// RIFF WAV reading, Ogg Opus through libopusfile, and the path from a file's
// bytes to a slot's 48 kHz PCM.
#include "sound/wav_decode.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <new>

#include "host/platform.h"
#include "sound/flac.h"
#include "sound/resample.h"

#ifdef TAMBRIL_HAVE_OPUSFILE
#include <opusfile.h>
#endif

namespace sound {

namespace {

constexpr std::uint64_t kLimitBytes = 1ull << 31;

std::uint16_t le16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
std::uint32_t le32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

bool fail(std::string* error, const char* m) {
  *error = m;
  return false;
}

// The GUID of KSDATAFORMAT_SUBTYPE_PCM and _IEEE_FLOAT after its first two bytes.
constexpr std::uint8_t kGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                        0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

std::string describe(std::uint32_t rate, int bits, bool is_float, int channels) {
  return std::to_string(rate) + " Hz, " + std::to_string(bits) + "-bit " + (is_float ? "float" : "PCM") + ", " +
         (channels == 1 ? "mono" : "stereo");
}

bool is_ogg_opus(const std::uint8_t* data, std::size_t size) {
  if (size < 36 || std::memcmp(data, "OggS", 4) != 0) return false;
  const std::size_t n = size < 512 ? size : 512;
  for (std::size_t i = 4; i + 8 <= n; ++i)
    if (std::memcmp(data + i, "OpusHead", 8) == 0) return true;
  return false;
}

}  // namespace

bool parse_riff_wav(const std::uint8_t* data, std::size_t size, SourceAudio* out, std::string* error) {
  if (size < 12) return fail(error, "Truncated WAV header");
  if (std::memcmp(data, "RIFF", 4) != 0 || std::memcmp(data + 8, "WAVE", 4) != 0)
    return fail(error, "Expected RIFF WAV, native FLAC or Ogg Opus");
  const std::uint64_t riff_end = 8 + static_cast<std::uint64_t>(le32(data + 4));
  if (riff_end < 12 || riff_end > size) return fail(error, "Invalid RIFF size");
  const std::uint8_t* fmt = nullptr;
  std::uint32_t fmt_len = 0;
  const std::uint8_t* pcm = nullptr;
  std::uint32_t pcm_len = 0;
  std::uint64_t at = 12;
  while (at < riff_end) {
    if (riff_end - at < 8) return fail(error, "Invalid or truncated WAV chunk");
    const std::uint32_t len = le32(data + at + 4);
    if (len > riff_end - at - 8) return fail(error, "WAV chunk exceeds RIFF size");
    const std::uint8_t* body = data + at + 8;
    if (std::memcmp(data + at, "fmt ", 4) == 0) {
      if (fmt) return fail(error, "Invalid or duplicate WAV format");
      fmt = body;
      fmt_len = len;
    } else if (std::memcmp(data + at, "data", 4) == 0) {
      if (pcm) return fail(error, "Multiple WAV data chunks unsupported");
      pcm = body;
      pcm_len = len;
    }
    at += 8 + static_cast<std::uint64_t>(len) + (len & 1);
  }
  if (!fmt) return fail(error, "Invalid or duplicate WAV format");
  if (fmt_len < 16) return fail(error, "Truncated WAV header");
  std::uint16_t tag = le16(fmt);
  const int channels = le16(fmt + 2);
  const std::uint32_t rate = le32(fmt + 4);
  const std::uint32_t byte_rate = le32(fmt + 8);
  const int align = le16(fmt + 12);
  const int bits = le16(fmt + 14);
  int valid_bits = bits;
  bool extensible = false;
  if (tag == 0xFFFE) {
    if (fmt_len < 18) return fail(error, "Truncated WAV format extension");
    const int cb = le16(fmt + 16);
    if (cb < 22 || fmt_len < 40) return fail(error, "Truncated WAVEFORMATEXTENSIBLE");
    valid_bits = le16(fmt + 18);
    const std::uint32_t mask = le32(fmt + 20);
    const std::uint16_t sub = le16(fmt + 24);
    if ((sub != 1 && sub != 3) || std::memcmp(fmt + 26, kGuidTail, 14) != 0)
      return fail(error, "Unsupported WAV subformat GUID");
    if (channels == 1 && mask != 0 && mask != 4) return fail(error, "Unsupported WAV speaker layout");
    if (channels == 2 && mask != 0 && mask != 3) return fail(error, "Unsupported WAV speaker layout");
    tag = sub;
    extensible = true;
  } else if (fmt_len >= 18 && tag != 1) {
    if (18 + static_cast<std::uint32_t>(le16(fmt + 16)) > fmt_len) return fail(error, "Truncated WAV format extension");
  }
  const bool is_float = tag == 3;
  if (!((tag == 1 && (bits == 8 || bits == 16 || bits == 24 || bits == 32)) || (is_float && (bits == 32 || bits == 64))))
    return fail(error, "WAV needs PCM 8/16/24/32 or float 32/64; compressed codecs unsupported");
  if (channels < 1 || channels > 2) return fail(error, "WAV must be mono or stereo");
  if (rate < 4000 || rate > 192000) return fail(error, "WAV sample rate must be 4000..192000 Hz");
  if (align != channels * bits / 8 || byte_rate != rate * static_cast<std::uint32_t>(align) || valid_bits < 1 ||
      valid_bits > bits || (is_float && valid_bits != bits))
    return fail(error, "Invalid WAV precision, alignment or byte rate");
  if (!pcm || pcm_len == 0 || pcm_len % static_cast<std::uint32_t>(align) != 0)
    return fail(error, "WAV missing audio or contains an incomplete frame");
  const std::uint64_t samples = pcm_len / (bits / 8);
  if (samples * 4 > kLimitBytes) return fail(error, "Decoded WAV exceeds 2 GiB limit");
  try {
    out->pcm.reserve(static_cast<std::size_t>(samples));
    host::advise_large_buffer(out->pcm.data(), samples * sizeof(float));
    out->pcm.resize(static_cast<std::size_t>(samples));
  } catch (const std::bad_alloc&) {
    return fail(error, "Decoded WAV exceeds 2 GiB limit");
  }
  float* o = out->pcm.data();
  const std::uint8_t* p = pcm;
  for (std::uint64_t i = 0; i < samples; ++i) {
    double v;
    switch (bits) {
      case 8: v = (p[0] - 128) / 128.0; p += 1; break;
      case 16: v = static_cast<std::int16_t>(le16(p)) / 32768.0; p += 2; break;
      case 24: {
        const std::int32_t x = static_cast<std::int32_t>(static_cast<std::uint32_t>(p[0]) << 8 | static_cast<std::uint32_t>(p[1]) << 16 |
                                                         static_cast<std::uint32_t>(p[2]) << 24) >> 8;
        v = x / 8388608.0;
        p += 3;
        break;
      }
      case 32:
        if (is_float) {
          float f;
          std::memcpy(&f, p, 4);
          v = f;
        } else {
          v = static_cast<std::int32_t>(le32(p)) / 2147483648.0;
        }
        p += 4;
        break;
      default: {
        double d;
        std::memcpy(&d, p, 8);
        v = d;
        p += 8;
        break;
      }
    }
    if (is_float && !(std::fabs(v) <= FLT_MAX)) return fail(error, "WAV contains NaN, infinity or unsupported float range");
    o[i] = static_cast<float>(v);
  }
  out->rate = rate;
  out->channels = channels;
  out->codec = extensible ? "RIFF WAV (WAVEFORMATEXTENSIBLE)" : "RIFF WAV";
  out->format = describe(rate, valid_bits, is_float, channels);
  return true;
}

bool decode_ogg_opus(const std::uint8_t* data, std::size_t size, SourceAudio* out, bool (*cancel)(), std::string* error) {
#ifdef TAMBRIL_HAVE_OPUSFILE
  int err = 0;
  OggOpusFile* of = op_open_memory(data, size, &err);
  if (!of) return fail(error, "Invalid, damaged or unsupported Ogg Opus");
  struct Closer {
    OggOpusFile* f;
    ~Closer() { op_free(f); }
  } closer{of};
  const int links = op_link_count(of);
  const int channels = op_channel_count(of, 0);
  for (int li = 0; li < links; ++li)
    if (op_channel_count(of, li) != channels) return fail(error, "Opus needs consistent mono/stereo channels across links");
  if (channels < 1 || channels > 2) return fail(error, "Invalid, damaged or unsupported Ogg Opus");
  const ogg_int64_t total = op_pcm_total(of, -1);
  if (total > 0 && static_cast<std::uint64_t>(total) * channels * 4 > kLimitBytes)
    return fail(error, "Decoded Opus exceeds 2 GiB limit");
  try {
    out->pcm.clear();
    if (total > 0) out->pcm.reserve(static_cast<std::size_t>(total * channels));
    std::vector<float> buf(static_cast<std::size_t>(5760 * channels));
    for (int reads = 0;; ++reads) {
      if ((reads & 255) == 255 && cancel && cancel()) return fail(error, "WAV load cancelled");
      int li = 0;
      const int n = op_read_float(of, buf.data(), static_cast<int>(buf.size()), &li);
      if (n == 0) break;
      if (n < 0) return fail(error, "Invalid, damaged or unsupported Ogg Opus");
      if ((out->pcm.size() + static_cast<std::size_t>(n) * channels) * 4 > kLimitBytes)
        return fail(error, "Decoded Opus exceeds 2 GiB limit");
      out->pcm.insert(out->pcm.end(), buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(n) * channels);
    }
  } catch (const std::bad_alloc&) {
    return fail(error, "Decoded Opus exceeds 2 GiB limit");
  }
  if (out->pcm.empty()) return fail(error, "Invalid, damaged or unsupported Ogg Opus");
  out->rate = 48000;
  out->channels = channels;
  out->codec = "Ogg Opus";
  out->format = "Opus, " + std::to_string(links) + (links == 1 ? " link, " : " links, ") +
                (channels == 1 ? "mono" : "stereo") + " (decoded at 48000 Hz)";
  return true;
#else
  (void)data;
  (void)size;
  (void)out;
  (void)cancel;
  return fail(error, "Invalid, damaged or unsupported Ogg Opus");
#endif
}

bool decode_audio(const std::uint8_t* data, std::size_t size, WavData* out, bool (*cancel)(), std::string* error) {
  SourceAudio src;
  if (size >= 4 && std::memcmp(data, "RIFF", 4) == 0) {
    if (!parse_riff_wav(data, size, &src, error)) return false;
  } else if (is_flac(data, size)) {
    FlacAudio fa;
    if (!decode_flac(data, size, &fa, cancel, error)) return false;
    try {
      src.pcm.reserve(fa.samples.size());
      host::advise_large_buffer(src.pcm.data(), fa.samples.size() * sizeof(float));
      src.pcm.resize(fa.samples.size());
    } catch (const std::bad_alloc&) {
      return fail(error, "Decoded FLAC exceeds 2 GiB limit");
    }
    const double scale = 1.0 / static_cast<double>(1ull << (fa.bits - 1));
    for (std::size_t i = 0; i < fa.samples.size(); ++i) src.pcm[i] = static_cast<float>(fa.samples[i] * scale);
    src.rate = fa.rate;
    src.channels = fa.channels;
    src.codec = "FLAC";
    src.format = describe(fa.rate, fa.bits, false, fa.channels);
  } else if (is_ogg_opus(data, size)) {
    if (!decode_ogg_opus(data, size, &src, cancel, error)) return false;
  } else {
    return fail(error, "Expected RIFF WAV, native FLAC or Ogg Opus");
  }
  if (cancel && cancel()) return fail(error, "WAV load cancelled");
  const std::uint64_t frames = src.pcm.size() / src.channels;
  out->channels = src.channels;
  out->codec = src.codec;
  out->source = src.format;
  out->source_rate = src.rate;
  if (src.rate == 48000) {
    out->pcm = std::move(src.pcm);
    out->frames = frames;
    return true;
  }
  if (resampled_frames(frames, src.rate) * src.channels * 4 > kLimitBytes)
    return fail(error, "Decoded audio exceeds 2 GiB limit");
  ResampleFilter f;
  if (!make_resample_filter(src.rate, &f)) return fail(error, "Out of memory resampling WAV");
  if (!resample(f, src.pcm.data(), frames, src.channels, &out->pcm, cancel, error)) return false;
  out->frames = out->pcm.size() / src.channels;
  return true;
}

}  // namespace sound
