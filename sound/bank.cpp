// Loading TAMBRIL_GM.QZGM: the raw, lossless and Opus forms with their
// header rules and checksums, serial or parallel block decoding, and the
// process's one bank.
#include "sound/bank.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "host/platform.h"
#include "host/shell.h"
#include "sound/bank_format.h"

#ifdef TAMBRIL_HAVE_OPUS
#include <opus/opus.h>
#endif

namespace sound {

namespace {

using namespace format;

constexpr std::size_t kReadBuffer = 4194304;
constexpr std::uint64_t kSmallBank = 8388608;
constexpr const char* kInvalid = "invalid or truncated bank";
constexpr const char* kCorrupt = "GM compressed block read/decode failed";

// Where the bytes come from: a file read at offsets, or memory.
class Source {
 public:
  Source(std::FILE* f, std::uint64_t size) : f_(f), size_(size) {}
  Source(const std::uint8_t* p, std::uint64_t size) : mem_(p), size_(size) {}
  std::uint64_t size() const { return size_; }
  bool read(std::uint64_t at, void* out, std::size_t n) {
    if (at > size_ || n > size_ - at) return false;
    if (mem_) {
      std::memcpy(out, mem_ + at, n);
      return true;
    }
    return host::seek_file(f_, static_cast<std::int64_t>(at)) && std::fread(out, 1, n, f_) == n;
  }

 private:
  std::FILE* f_ = nullptr;
  const std::uint8_t* mem_ = nullptr;
  std::uint64_t size_;
};

bool fail(std::string* error, const char* message) {
  *error = message;
  return false;
}

template <class T>
bool try_resize(std::vector<T>& v, std::uint64_t n) {
  if (n > (std::uint64_t{1} << 40) / sizeof(T)) return false;
  try {
    v.resize(static_cast<std::size_t>(n));
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// The PCM checksums after decoding (the Opus form has none: lossy decoding
// may differ in its last bits between machines).
bool check_pcm(const Bank& b, std::string* error) {
  for (const SampleInfo& s : b.samples)
    if (crc32(b.pcm.data() + s.offset, s.frames * 2u) != s.crc) return fail(error, "GM sample PCM checksum mismatch");
  return true;
}

// How many decoder threads: 1 means serial, with the reason recorded.
unsigned choose_workers(int requested, std::uint64_t file_size, std::uint64_t units, Bank* b) {
  if (requested == 1) {
    b->reason = "serial requested";
    return 1;
  }
  if (requested == 0 && (file_size < kSmallBank || units < 16)) {
    b->reason = "small bank; serial path";
    return 1;
  }
  unsigned n = host::logical_processors();
  if (requested >= 2 && n > static_cast<unsigned>(requested)) n = static_cast<unsigned>(requested);
  if (n > 8) n = 8;
  if (n <= 1) {
    b->reason = "one usable processor / serial requested";
    return 1;
  }
  return n;
}

// Runs job(i) for i in [0, count) on `workers` threads; false when the
// threads could not be made (nothing ran then).
template <class Job>
bool run_parallel(unsigned workers, std::size_t count, Job job) {
  std::atomic<std::size_t> next{0};
  auto body = [&] {
    for (std::size_t i; (i = next.fetch_add(1)) < count;) job(i);
  };
  std::vector<std::thread> threads;
  try {
    for (unsigned w = 1; w < workers; ++w) threads.emplace_back(body);
  } catch (...) {
    // Those that started finish the work with this thread.
    if (threads.empty()) return false;
  }
  body();
  for (std::thread& t : threads) t.join();
  return true;
}

bool load_raw(Source& src, int, Bank* b, std::string* error) {
  std::uint8_t h[kRawHeader];
  if (!src.read(0, h, sizeof h)) return fail(error, kInvalid);
  const std::uint64_t meta = get64(h + 16), pcm = get64(h + 24), size = get64(h + 32);
  if (get32(h + 8) != kRawHeader || get32(h + 12) != 0 || get32(h + 44) != 0 || meta < kMetaHeader ||
      meta > kMaxDecodedMeta || pcm % 2 != 0 || size != src.size() || meta > size || pcm > size ||
      kRawHeader + meta + pcm != size)
    return fail(error, kInvalid);
  std::vector<std::uint8_t> body;
  if (!try_resize(body, meta) || !try_resize(b->pcm, pcm / 2)) return fail(error, "not enough memory for GM bank");
  if (!src.read(kRawHeader, body.data(), body.size()) || !src.read(kRawHeader + meta, b->pcm.data(), pcm))
    return fail(error, kInvalid);
  if (crc32(body.data(), body.size()) != get32(h + 40)) return fail(error, "GM metadata/index checksum mismatch");
  if (!parse_metadata(body.data(), meta, pcm / 2, b)) return fail(error, "invalid decoded bank");
  b->form = "QZGM2 raw";
  b->mode = "raw bank / serial";
  b->stored_bytes = size;
  return check_pcm(*b, error);
}

bool load_lossless(Source& src, int requested, Bank* b, std::string* error) {
  std::uint8_t h[kLosslessHeader];
  if (!src.read(0, h, sizeof h)) return fail(error, kInvalid);
  const std::uint64_t decoded_meta = get64(h + 16), stored_meta = get64(h + 24);
  const std::uint32_t block_len = get32(h + 32), blocks = get32(h + 36), samples = get32(h + 40);
  const std::uint64_t meta_off = get64(h + 48), index_off = get64(h + 56), refs_off = get64(h + 64);
  const std::uint64_t data_off = get64(h + 72), size = get64(h + 80);
  if (get32(h + 8) != kLosslessHeader || get32(h + 12) != 0 || get32(h + 44) != 0 ||
      decoded_meta < kMetaHeader || decoded_meta > kMaxDecodedMeta || stored_meta < kMetaHeader ||
      stored_meta >= decoded_meta || stored_meta > kMaxStoredMeta || block_len < 2 ||
      block_len > kMaxBlockLength || block_len % 2 != 0 || blocks > kMaxBlocks || samples < 1 || samples > blocks ||
      meta_off != kLosslessHeader || index_off != kLosslessHeader + stored_meta ||
      refs_off != index_off + std::uint64_t{blocks} * 4 ||
      data_off != index_off + (std::uint64_t{blocks} + std::uint64_t{samples} * 8) * 4 || size != src.size() ||
      data_off > size)
    return fail(error, kInvalid);
  std::vector<std::uint8_t> meta, stored, index;
  if (decoded_meta / 44 > stored_meta) return fail(error, "invalid compressed GM metadata or block index");
  if (!try_resize(meta, decoded_meta) || !try_resize(stored, stored_meta) ||
      !try_resize(index, (std::uint64_t{blocks} + std::uint64_t{samples} * 8) * 4))
    return fail(error, "not enough memory for GM bank");
  std::vector<std::uint8_t> buffer;
  if (!try_resize(buffer, kReadBuffer)) return fail(error, "not enough memory for GM read buffer");
  if (!src.read(meta_off, stored.data(), stored.size()) || !src.read(index_off, index.data(), index.size()))
    return fail(error, kInvalid);
  if (crc32(stored.data(), stored.size()) != get32(h + 88) || crc32(index.data(), index.size()) != get32(h + 92))
    return fail(error, "GM metadata/index checksum mismatch");
  constexpr const char* kBadMeta = "invalid compressed GM metadata or block index";
  std::uint32_t zc, sc;
  std::uint64_t frames;
  if (!lz_decompress(stored.data(), stored.size(), meta.data(), meta.size()) ||
      !metadata_counts(meta.data(), meta.size(), &zc, &sc, &frames) || sc != samples)
    return fail(error, kBadMeta);
  const std::uint64_t pcm_bytes = frames * 2;
  // A coded sample takes at least one bit: a claim beyond that is damage, and
  // is refused before anything that large is allocated.
  if (pcm_bytes / 17 > size - data_off || blocks == 0 || pcm_bytes > std::uint64_t{blocks} * block_len ||
      pcm_bytes <= std::uint64_t{blocks - 1} * block_len)
    return fail(error, kBadMeta);
  if (!parse_metadata(meta.data(), meta.size(), frames, b)) return fail(error, kBadMeta);
  // Each sample's reference agrees with its metadata entry.
  const std::uint8_t* refs = index.data() + std::uint64_t{blocks} * 4;
  for (std::uint32_t s = 0; s < samples; ++s) {
    const std::uint8_t* r = refs + 32u * s;
    const SampleInfo& info = b->samples[s];
    const std::uint64_t at = info.offset * 2, len = std::uint64_t{info.frames} * 2;
    const std::uint32_t first = get32(r), count = get32(r + 4), inside = get32(r + 8);
    if (get32(r + 12) != len || get32(r + 16) != s || get32(r + 20) || get32(r + 24) || get32(r + 28) ||
        std::uint64_t{first} * block_len + inside != at || inside >= block_len || first >= blocks ||
        count > blocks - first || (at + len + block_len - 1) / block_len - first != count)
      return fail(error, kBadMeta);
  }
  // Block positions; every block must lie inside the file.
  std::vector<std::uint64_t> where;
  if (!try_resize(where, std::uint64_t{blocks} + 1)) return fail(error, "not enough memory for GM bank");
  where[0] = data_off;
  for (std::uint32_t i = 0; i < blocks; ++i) {
    const std::uint32_t n = get32(index.data() + 4u * i);
    if (n == 0 || n > block_len + block_len / 8 + 64 || where[i] + n > size)
      return fail(error, "invalid compressed GM block reference");
    where[i + 1] = where[i] + n;
  }
  if (!try_resize(b->pcm, frames)) return fail(error, "not enough memory for GM bank");
  unsigned workers = choose_workers(requested, size, blocks, b);
  b->mode = workers > 1 ? "Windows block workers" : "serial";
  std::atomic<bool> bad{false};
  auto decode = [&](std::uint32_t i, const std::uint8_t* chunk, std::uint64_t chunk_at) {
    const std::uint64_t first = std::uint64_t{i} * block_len;
    const std::uint64_t n = std::min<std::uint64_t>(block_len, pcm_bytes - first);
    if (!decode_block(chunk + (where[i] - chunk_at), where[i + 1] - where[i], b->pcm.data() + first / 2, n / 2))
      bad = true;
  };
  // Whole blocks through the one read buffer; a buffer's blocks are decoded
  // together, by the workers when there are several.
  for (std::uint32_t i = 0; i < blocks && !bad;) {
    std::uint32_t j = i;
    while (j < blocks && where[j + 1] - where[i] <= kReadBuffer) ++j;
    if (!src.read(where[i], buffer.data(), where[j] - where[i]))
      return fail(error, workers > 1 ? "GM parallel block read failed" : kCorrupt);
    const std::uint64_t chunk_at = where[i];
    if (workers > 1) {
      const bool ran = run_parallel(workers, j - i, [&](std::size_t k) {
        decode(i + static_cast<std::uint32_t>(k), buffer.data(), chunk_at);
      });
      if (!ran) {
        workers = 1;
        b->mode = "Windows workers (limited resources)";
        b->reason = "thread creation unavailable; serial fallback";
      }
    }
    if (workers == 1)
      for (std::uint32_t k = i; k < j; ++k) decode(k, buffer.data(), chunk_at);
    i = j;
  }
  if (bad) return fail(error, kCorrupt);
  b->workers = workers;
  b->form = "QZGM3 lossless";
  b->stored_bytes = size;
  return check_pcm(*b, error);
}

bool load_opus(Source& src, int requested, Bank* b, std::string* error) {
  std::uint8_t h[kOpusHeader];
  if (!src.read(0, h, sizeof h)) return fail(error, kInvalid);
  const std::uint64_t meta_size = get64(h + 16), frames = get64(h + 24);
  const std::uint32_t samples = get32(h + 32);
  const std::uint64_t meta_off = get64(h + 48), index_off = get64(h + 56), data_off = get64(h + 64), size = get64(h + 72);
  if (get32(h + 8) != kOpusHeader || get32(h + 12) != 0 || get32(h + 36) != kOpusIndexEntry || get32(h + 40) < 1 ||
      get32(h + 40) > 6 || get32(h + 44) != 0 || get32(h + 92) != 0 || meta_size < kMetaHeader ||
      meta_size > kMaxDecodedMeta || samples < 1 || meta_off != kOpusHeader || index_off != kOpusHeader + meta_size ||
      data_off != index_off + std::uint64_t{samples} * kOpusIndexEntry || size != src.size() || data_off > size)
    return fail(error, kInvalid);
  std::vector<std::uint8_t> meta, index, data;
  if (!try_resize(meta, meta_size) || !try_resize(index, std::uint64_t{samples} * kOpusIndexEntry) ||
      !try_resize(data, size - data_off))
    return fail(error, "not enough memory for GM bank");
  if (!src.read(meta_off, meta.data(), meta.size()) || !src.read(index_off, index.data(), index.size()) ||
      !src.read(data_off, data.data(), data.size()))
    return fail(error, kInvalid);
  if (crc32(meta.data(), meta.size()) != get32(h + 80) || crc32(index.data(), index.size()) != get32(h + 84))
    return fail(error, "Opus metadata/index checksum mismatch");
  constexpr const char* kBadIndex = "invalid Opus metadata/sample index";
  // An Opus packet of 3 stored bytes decodes to 120 ms at most.
  if (frames / 2000 > data.size()) return fail(error, kBadIndex);
  if (!parse_metadata(meta.data(), meta.size(), frames, b) || b->samples.size() != samples) return fail(error, kBadIndex);
  for (std::uint32_t s = 0; s < samples; ++s) {
    const std::uint8_t* e = index.data() + std::uint64_t{s} * kOpusIndexEntry;
    const std::uint64_t at = get64(e);
    const std::uint32_t n = get32(e + 8);
    if (at > data.size() || n > data.size() - at || get32(e + 16) != b->samples[s].frames || get32(e + 20) > 48000 ||
        b->samples[s].rate != 48000)
      return fail(error, kBadIndex);
    for (int k = 28; k < 64; ++k)
      if (e[k]) return fail(error, kBadIndex);
    if (crc32(data.data() + at, n) != get32(e + 24)) return fail(error, "Opus metadata/index checksum mismatch");
  }
#ifdef TAMBRIL_HAVE_OPUS
  if (!try_resize(b->pcm, frames)) return fail(error, "not enough memory for GM bank");
  std::atomic<bool> bad{false};
  auto decode = [&](std::size_t s) {
    const std::uint8_t* e = index.data() + s * kOpusIndexEntry;
    const std::uint8_t* p = data.data() + get64(e);
    const std::uint8_t* end = p + get32(e + 8);
    std::uint32_t skip = get32(e + 20);
    std::int16_t* out = b->pcm.data() + b->samples[s].offset;
    std::uint32_t left = b->samples[s].frames;
    int err = 0;
    OpusDecoder* dec = opus_decoder_create(48000, 1, &err);
    if (!dec) {
      bad = true;
      return;
    }
    std::int16_t frame[5760];
    while (left > 0 && p + 2 <= end) {
      const std::uint32_t len = get16(p);
      p += 2;
      if (len > static_cast<std::uint32_t>(end - p)) break;
      const int got = opus_decode(dec, p, static_cast<opus_int32>(len), frame, 5760, 0);
      p += len;
      if (got < 0) break;
      std::uint32_t from = std::min<std::uint32_t>(skip, static_cast<std::uint32_t>(got));
      skip -= from;
      const std::uint32_t take = std::min<std::uint32_t>(left, static_cast<std::uint32_t>(got) - from);
      std::memcpy(out, frame + from, take * 2u);
      out += take;
      left -= take;
    }
    opus_decoder_destroy(dec);
    if (left != 0) bad = true;
  };
  unsigned workers = choose_workers(requested, size, samples, b);
  b->mode = "Opus PCM expansion during loading";
  if (workers > 1 && !run_parallel(workers, samples, decode)) {
    workers = 1;
    b->reason = "thread creation unavailable; serial fallback";
  }
  if (workers == 1)
    for (std::size_t s = 0; s < samples; ++s) decode(s);
  if (bad) return fail(error, kCorrupt);
  b->workers = workers;
  b->form = "QZGM4 Opus (fully expanded PCM)";
  b->stored_bytes = size;
  return true;
#else
  (void)requested;
  return fail(error, "Opus banks cannot be decoded by this build");
#endif
}

bool load(Source& src, int workers, Bank* b, std::string* error) {
  char magic[8];
  if (!src.read(0, magic, 8)) return fail(error, kInvalid);
  const std::uint64_t t0 = host::perf_counter();
  bool ok;
  if (std::memcmp(magic, "QZGM0002", 8) == 0) ok = load_raw(src, workers, b, error);
  else if (std::memcmp(magic, "QZGM0003", 8) == 0) ok = load_lossless(src, workers, b, error);
  else if (std::memcmp(magic, "QZGM0004", 8) == 0) ok = load_opus(src, workers, b, error);
  else return fail(error, kInvalid);
  if (!ok) return false;
  b->decoded_bytes = b->pcm.size() * 2 + b->zones.size() * kZoneEntry + b->samples.size() * kSampleEntry + kMetaHeader;
  const std::uint64_t f = host::perf_frequency();
  b->load_ms = f ? static_cast<double>(host::perf_counter() - t0) * 1000.0 / static_cast<double>(f) : 0;
  return true;
}

Bank* the_bank = nullptr;
std::atomic<const Bank*> published{nullptr};
bool tried = false;
std::string last_error;

const Bank* try_load(int workers) {
  tried = true;
  auto b = std::make_unique<Bank>();
  std::string error;
  if (!load_bank_file(bank_path(), workers, b.get(), &error)) {
    last_error = error;
    return nullptr;
  }
  last_error.clear();
  // Kept for the life of the process: voices point into it.
  the_bank = b.release();
  published.store(the_bank, std::memory_order_release);
  return the_bank;
}

}  // namespace

bool load_bank_file(const std::string& path, int workers, Bank* out, std::string* error) {
  std::FILE* f = host::open_file(path, "rb");
  if (!f) return fail(error, "bank file not found");
  const std::int64_t size = host::file_length(f);
  bool ok = false;
  if (size < 0) {
    *error = kInvalid;
  } else {
    Source src(f, static_cast<std::uint64_t>(size));
    ok = load(src, workers, out, error);
  }
  std::fclose(f);
  return ok;
}

bool load_bank_memory(const std::uint8_t* data, std::size_t size, int workers, Bank* out, std::string* error) {
  Source src(data, size);
  return load(src, workers, out, error);
}

std::string bank_path() {
  if (const char* p = std::getenv("TAMBRIL_GM_BANK"); p && *p) return p;
  std::string dir = host::shell.module_dir;
  if (!dir.empty() && dir.back() != host::path_separator()) dir += host::path_separator();
  return dir + "TAMBRIL_GM.QZGM";
}

const Bank* need_bank() {
  if (the_bank) return the_bank;
  if (tried) return nullptr;
  return try_load(0);
}

const Bank* loaded_bank() { return published.load(std::memory_order_acquire); }

const Bank* preload_bank(int workers) {
  if (the_bank) return the_bank;
  return try_load(workers);
}

const Bank* reload_bank_for_tests() {
  published.store(nullptr, std::memory_order_release);
  delete the_bank;
  the_bank = nullptr;
  return try_load(1);
}

const std::string& bank_error() { return last_error; }

int find_zones(const Bank& b, int program, int key, int velocity, const Zone** out, int max) {
  if (program < 0 || program >= kPrograms) return 0;
  int n = 0;
  for (std::uint32_t i = b.first_zone[program]; i < b.first_zone[program + 1] && n < max; ++i) {
    const Zone& z = b.zones[i];
    if (key >= z.key_lo && key <= z.key_hi && velocity >= z.vel_lo && velocity <= z.vel_hi) out[n++] = &z;
  }
  return n;
}

}  // namespace sound
