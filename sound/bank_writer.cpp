// Bank files in the raw, lossless and Opus forms (the layouts are in
// sound/bank_format.h; the reader is sound/bank.cpp).
#include "sound/bank_writer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "sound/bank_format.h"

#ifdef TAMBRIL_HAVE_OPUS
#include <opus/opus.h>
#endif

namespace sound {

namespace {

using namespace format;

void fill_checksums(Bank* b, bool opus) {
  for (SampleInfo& s : b->samples) s.crc = opus ? 0 : crc32(b->pcm.data() + s.offset, s.frames * 2u);
}

std::vector<std::uint8_t> raw_form(const Bank& b) {
  const std::vector<std::uint8_t> meta = build_metadata(b);
  std::vector<std::uint8_t> out;
  put_tag(out, "QZGM0002");
  put32(out, kRawHeader);
  put32(out, 0);
  put64(out, meta.size());
  put64(out, b.pcm.size() * 2);
  put64(out, kRawHeader + meta.size() + b.pcm.size() * 2);
  put32(out, crc32(meta.data(), meta.size()));
  put32(out, 0);
  out.insert(out.end(), meta.begin(), meta.end());
  for (std::int16_t s : b.pcm) put16(out, static_cast<std::uint16_t>(s));
  return out;
}

bool lossless_form(const Bank& b, std::uint32_t block_len, std::vector<std::uint8_t>* out, std::string* error) {
  if (block_len < 2 || block_len > kMaxBlockLength || block_len % 2) {
    *error = "block length must be even, 2 .. 1048576";
    return false;
  }
  const std::vector<std::uint8_t> meta = build_metadata(b);
  const std::vector<std::uint8_t> stored = lz_compress(meta.data(), meta.size());
  if (stored.size() >= meta.size() || stored.size() < kMetaHeader || stored.size() > kMaxStoredMeta) {
    *error = "the metadata does not compress into the lossless form's limits";
    return false;
  }
  const std::uint64_t pcm_bytes = b.pcm.size() * 2;
  const std::uint64_t blocks = (pcm_bytes + block_len - 1) / block_len;
  if (blocks > kMaxBlocks || b.samples.size() > blocks) {
    *error = "too many blocks for the lossless form; choose a longer block";
    return false;
  }
  std::vector<std::uint8_t> index, data;
  for (std::uint64_t i = 0; i < blocks; ++i) {
    const std::uint64_t at = i * block_len;
    const std::uint64_t n = std::min<std::uint64_t>(block_len, pcm_bytes - at);
    const std::vector<std::uint8_t> coded = encode_block(b.pcm.data() + at / 2, n / 2);
    put32(index, static_cast<std::uint32_t>(coded.size()));
    data.insert(data.end(), coded.begin(), coded.end());
  }
  for (std::size_t s = 0; s < b.samples.size(); ++s) {
    const std::uint64_t at = b.samples[s].offset * 2, len = std::uint64_t{b.samples[s].frames} * 2;
    const std::uint64_t first = at / block_len;
    put32(index, static_cast<std::uint32_t>(first));
    put32(index, static_cast<std::uint32_t>((at + len + block_len - 1) / block_len - first));
    put32(index, static_cast<std::uint32_t>(at % block_len));
    put32(index, static_cast<std::uint32_t>(len));
    put32(index, static_cast<std::uint32_t>(s));
    put32(index, 0);
    put32(index, 0);
    put32(index, 0);
  }
  const std::uint64_t index_off = kLosslessHeader + stored.size();
  const std::uint64_t refs_off = index_off + blocks * 4;
  const std::uint64_t data_off = index_off + (blocks + b.samples.size() * 8) * 4;
  std::vector<std::uint8_t>& o = *out;
  o.clear();
  put_tag(o, "QZGM0003");
  put32(o, kLosslessHeader);
  put32(o, 0);
  put64(o, meta.size());
  put64(o, stored.size());
  put32(o, block_len);
  put32(o, static_cast<std::uint32_t>(blocks));
  put32(o, static_cast<std::uint32_t>(b.samples.size()));
  put32(o, 0);
  put64(o, kLosslessHeader);
  put64(o, index_off);
  put64(o, refs_off);
  put64(o, data_off);
  put64(o, data_off + data.size());
  put32(o, crc32(stored.data(), stored.size()));
  put32(o, crc32(index.data(), index.size()));
  o.insert(o.end(), stored.begin(), stored.end());
  o.insert(o.end(), index.begin(), index.end());
  o.insert(o.end(), data.begin(), data.end());
  return true;
}

#ifdef TAMBRIL_HAVE_OPUS
bool opus_form(const Bank& src, const BankWriteOptions& options, std::vector<std::uint8_t>* out, std::string* error) {
  Bank b = resample_to_48k(src);
  fill_checksums(&b, true);
  const std::vector<std::uint8_t> meta = build_metadata(b);
  std::vector<std::uint8_t> index, data;
  constexpr int kFrame = 960;  // 20 ms
  for (const SampleInfo& s : b.samples) {
    int err = 0;
    OpusEncoder* enc = opus_encoder_create(48000, 1, OPUS_APPLICATION_AUDIO, &err);
    if (!enc) {
      *error = "the Opus encoder could not start";
      return false;
    }
    opus_encoder_ctl(enc, OPUS_SET_BITRATE(options.opus_bitrate));
    opus_encoder_ctl(enc, OPUS_SET_COMPLEXITY(options.opus_complexity));
    opus_encoder_ctl(enc, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    opus_int32 lookahead = 0;
    opus_encoder_ctl(enc, OPUS_GET_LOOKAHEAD(&lookahead));
    // The decoder's first `lookahead` samples are the encoder's delay: the
    // input is padded so that every sample of the original comes out.
    const std::size_t total = s.frames + static_cast<std::size_t>(lookahead);
    std::vector<opus_int16> in((total + kFrame - 1) / kFrame * kFrame, 0);
    std::memcpy(in.data(), b.pcm.data() + s.offset, s.frames * 2u);
    const std::size_t start = data.size();
    std::uint32_t packets = 0;
    unsigned char packet[1500];
    for (std::size_t at = 0; at < in.size(); at += kFrame) {
      const int n = opus_encode(enc, in.data() + at, kFrame, packet, sizeof packet);
      if (n < 0) {
        opus_encoder_destroy(enc);
        *error = "Opus encoding failed";
        return false;
      }
      put16(data, static_cast<std::uint16_t>(n));
      data.insert(data.end(), packet, packet + n);
      ++packets;
    }
    opus_encoder_destroy(enc);
    put64(index, start);
    put32(index, static_cast<std::uint32_t>(data.size() - start));
    put32(index, packets);
    put32(index, s.frames);
    put32(index, static_cast<std::uint32_t>(lookahead));
    put32(index, crc32(data.data() + start, data.size() - start));
    index.resize(index.size() + 36, 0);
  }
  const std::uint64_t index_off = kOpusHeader + meta.size();
  const std::uint64_t data_off = index_off + index.size();
  std::vector<std::uint8_t>& o = *out;
  o.clear();
  put_tag(o, "QZGM0004");
  put32(o, kOpusHeader);
  put32(o, 0);
  put64(o, meta.size());
  put64(o, b.pcm.size());
  put32(o, static_cast<std::uint32_t>(b.samples.size()));
  put32(o, kOpusIndexEntry);
  put32(o, 4);  // frame duration code: 20 ms
  put32(o, 0);
  put64(o, kOpusHeader);
  put64(o, index_off);
  put64(o, data_off);
  put64(o, data_off + data.size());
  put32(o, crc32(meta.data(), meta.size()));
  put32(o, crc32(index.data(), index.size()));
  put32(o, static_cast<std::uint32_t>(options.opus_bitrate));
  put32(o, 0);
  o.insert(o.end(), meta.begin(), meta.end());
  o.insert(o.end(), index.begin(), index.end());
  o.insert(o.end(), data.begin(), data.end());
  return true;
}
#endif

}  // namespace

Bank resample_to_48k(const Bank& src) {
  Bank b;
  b.zones = src.zones;
  b.samples = src.samples;
  std::vector<double> ratio(src.samples.size());
  for (std::size_t s = 0; s < src.samples.size(); ++s) {
    const SampleInfo& in = src.samples[s];
    const double k = 48000.0 / in.rate;
    ratio[s] = k;
    const auto frames = static_cast<std::uint32_t>(std::ceil(in.frames * k));
    SampleInfo& o = b.samples[s];
    o.offset = b.pcm.size();
    o.frames = frames;
    o.rate = 48000;
    const std::int16_t* p = src.pcm.data() + in.offset;
    auto at = [&](std::int64_t i) -> double { return p[std::clamp<std::int64_t>(i, 0, in.frames - 1)]; };
    for (std::uint32_t i = 0; i < frames; ++i) {
      const double pos = i / k;
      const auto j = static_cast<std::int64_t>(pos);
      const double t = pos - static_cast<double>(j);
      const double p0 = at(j - 1), p1 = at(j), p2 = at(j + 1), p3 = at(j + 2);
      const double y = p1 + 0.5 * t * (p2 - p0 + t * (2 * p0 - 5 * p1 + 4 * p2 - p3 + t * (3 * (p1 - p2) + p3 - p0)));
      b.pcm.push_back(static_cast<std::int16_t>(std::clamp(std::lround(y), -32768L, 32767L)));
    }
  }
  for (Zone& z : b.zones) {
    const double k = ratio[z.sample];
    const std::uint32_t len = b.samples[z.sample].frames;
    auto move = [&](std::uint32_t x) { return std::min<std::uint32_t>(static_cast<std::uint32_t>(std::lround(x * k)), len); };
    z.start = move(z.start);
    z.end = std::max<std::uint32_t>(move(z.end), std::min(z.start + 1, len));
    z.loop_start = move(z.loop_start);
    z.loop_end = std::max(move(z.loop_end), z.loop_start);
    if (z.start >= z.end) z.start = z.end - 1;
  }
  index_zones(&b);
  return b;
}

bool write_bank(const Bank& in, BankForm form, const BankWriteOptions& options, std::vector<std::uint8_t>* out,
                std::string* error) {
  if (form == BankForm::opus) {
#ifdef TAMBRIL_HAVE_OPUS
    return opus_form(in, options, out, error);
#else
    *error = "this build has no Opus encoder";
    return false;
#endif
  }
  Bank b = in;
  fill_checksums(&b, false);
  if (form == BankForm::raw) {
    *out = raw_form(b);
    return true;
  }
  return lossless_form(b, options.block_length, out, error);
}

}  // namespace sound
