// SoundFont 2 to bank: the RIFF chunks, presets and instruments with their
// global and local zones, generators merged as the SoundFont rules say
// (instrument values absolute, preset values added, ranges intersected).
#include "sound/sf2.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "sound/bank_format.h"
#include "values/mathlib.h"

namespace sound {

namespace {

using format::get16;
using format::get32;

enum Gen {
  kStartOffset = 0, kEndOffset = 1, kLoopStartOffset = 2, kLoopEndOffset = 3, kStartCoarse = 4, kEndCoarse = 12,
  kPan = 17, kAttack = 34, kHold = 35, kDecay = 36, kSustain = 37, kRelease = 38, kInstrument = 41,
  kKeyRange = 43, kVelRange = 44, kLoopStartCoarse = 45, kAttenuation = 48, kLoopEndCoarse = 50,
  kCoarseTune = 51, kFineTune = 52, kSampleId = 53, kSampleModes = 54, kExclusive = 57, kRootKey = 58,
  kGenCount = 61,
};

struct Gens {
  bool set[kGenCount] = {};
  std::uint16_t value[kGenCount] = {};
  void put(std::uint16_t op, std::uint16_t v) {
    if (op < kGenCount) set[op] = true, value[op] = v;
  }
  void over(const Gens& local) {
    for (int i = 0; i < kGenCount; ++i)
      if (local.set[i]) set[i] = true, value[i] = local.value[i];
  }
  int s(int op, int fallback) const { return set[op] ? static_cast<std::int16_t>(value[op]) : fallback; }
  std::uint8_t lo(int op) const { return set[op] ? static_cast<std::uint8_t>(value[op] & 0xFF) : 0; }
  std::uint8_t hi(int op) const { return set[op] ? static_cast<std::uint8_t>(value[op] >> 8) : 127; }
};

struct Chunk {
  const std::uint8_t* p = nullptr;
  std::size_t n = 0;
};

struct Sf2 {
  Chunk smpl, phdr, pbag, pgen, inst, ibag, igen, shdr;
};

bool walk(const std::uint8_t* p, std::size_t n, Sf2* sf) {
  std::size_t i = 0;
  while (i + 8 <= n) {
    const std::uint32_t len = get32(p + i + 4);
    if (len > n - i - 8) return false;
    const std::uint8_t* body = p + i + 8;
    if (std::memcmp(p + i, "LIST", 4) == 0) {
      if (len < 4 || !walk(body + 4, len - 4, sf)) return false;
    } else {
      const Chunk c{body, len};
      if (std::memcmp(p + i, "smpl", 4) == 0) sf->smpl = c;
      else if (std::memcmp(p + i, "phdr", 4) == 0) sf->phdr = c;
      else if (std::memcmp(p + i, "pbag", 4) == 0) sf->pbag = c;
      else if (std::memcmp(p + i, "pgen", 4) == 0) sf->pgen = c;
      else if (std::memcmp(p + i, "inst", 4) == 0) sf->inst = c;
      else if (std::memcmp(p + i, "ibag", 4) == 0) sf->ibag = c;
      else if (std::memcmp(p + i, "igen", 4) == 0) sf->igen = c;
      else if (std::memcmp(p + i, "shdr", 4) == 0) sf->shdr = c;
    }
    i += 8 + len + (len & 1);
  }
  return true;
}

// The zones of a bag range: the global zone (when the first lacks its
// terminal generator) and the others, each as merged generators.
bool zones_of(const Chunk& bags, const Chunk& gens, std::size_t first_bag, std::size_t end_bag, int terminal,
              std::vector<Gens>* out) {
  Gens global;
  out->clear();
  for (std::size_t b = first_bag; b < end_bag; ++b) {
    if ((b + 1) * 4 + 2 > bags.n) return false;
    const std::size_t g0 = get16(bags.p + b * 4), g1 = get16(bags.p + (b + 1) * 4);
    if (g1 < g0 || g1 * 4 > gens.n) return false;
    Gens local;
    for (std::size_t g = g0; g < g1; ++g) local.put(get16(gens.p + g * 4), get16(gens.p + g * 4 + 2));
    if (!local.set[terminal]) {
      if (b == first_bag) global = local;
      continue;
    }
    Gens merged = global;
    merged.over(local);
    out->push_back(merged);
  }
  return true;
}

double timecents(int tc) { return values::exp_raw(tc / 1200.0 * 0.69314718055994530942); }

struct Converter {
  const Sf2& sf;
  Bank* bank;
  std::map<std::uint32_t, std::uint32_t> sample_of;  // SoundFont sample -> ours

  bool sample(std::uint32_t id, std::uint32_t* ours) {
    if (auto it = sample_of.find(id); it != sample_of.end()) {
      *ours = it->second;
      return true;
    }
    if ((id + 1) * 46 > sf.shdr.n) return false;
    const std::uint8_t* h = sf.shdr.p + id * 46;
    const std::uint32_t start = get32(h + 20), end = get32(h + 24), rate = get32(h + 36);
    const std::uint16_t type = get16(h + 46 - 2);
    if ((type & 0x8000) || end <= start || end > sf.smpl.n / 2 || rate < 1000 || rate > 192000) return false;
    SampleInfo s;
    s.offset = bank->pcm.size();
    s.frames = end - start;
    s.rate = rate;
    for (std::uint32_t i = start; i < end; ++i) bank->pcm.push_back(static_cast<std::int16_t>(get16(sf.smpl.p + 2 * i)));
    *ours = static_cast<std::uint32_t>(bank->samples.size());
    bank->samples.push_back(s);
    sample_of[id] = *ours;
    return true;
  }

  void instrument(int program, const Gens& pz, std::size_t inst_index) {
    if ((inst_index + 2) * 22 > sf.inst.n) return;
    const std::size_t b0 = get16(sf.inst.p + inst_index * 22 + 20), b1 = get16(sf.inst.p + (inst_index + 1) * 22 + 20);
    std::vector<Gens> izones;
    if (!zones_of(sf.ibag, sf.igen, b0, b1, kSampleId, &izones)) return;
    for (const Gens& iz : izones) {
      Zone z;
      z.program = static_cast<std::uint16_t>(program);
      z.key_lo = std::max(iz.lo(kKeyRange), pz.lo(kKeyRange));
      z.key_hi = std::min(iz.hi(kKeyRange), pz.hi(kKeyRange));
      z.vel_lo = std::max(iz.lo(kVelRange), pz.lo(kVelRange));
      z.vel_hi = std::min(iz.hi(kVelRange), pz.hi(kVelRange));
      if (z.key_lo > z.key_hi || z.vel_lo > z.vel_hi || z.key_hi > 127 || z.vel_hi > 127) continue;
      const std::uint32_t id = iz.value[kSampleId];
      std::uint32_t ours;
      if (!sample(id, &ours)) continue;
      const std::uint8_t* h = sf.shdr.p + id * 46;
      const std::int64_t s_start = get32(h + 20), s_end = get32(h + 24);
      const std::int64_t len = s_end - s_start;
      auto clamp = [&](std::int64_t v) { return static_cast<std::uint32_t>(std::clamp<std::int64_t>(v, 0, len)); };
      z.sample = ours;
      z.start = clamp(iz.s(kStartOffset, 0) + 32768LL * iz.s(kStartCoarse, 0));
      z.end = clamp(len + iz.s(kEndOffset, 0) + 32768LL * iz.s(kEndCoarse, 0));
      if (z.start >= z.end) continue;
      z.loop_start = clamp(get32(h + 28) - s_start + iz.s(kLoopStartOffset, 0) + 32768LL * iz.s(kLoopStartCoarse, 0));
      z.loop_end = clamp(get32(h + 32) - s_start + iz.s(kLoopEndOffset, 0) + 32768LL * iz.s(kLoopEndCoarse, 0));
      if (z.loop_end < z.loop_start) z.loop_end = z.loop_start;
      const int mode = iz.s(kSampleModes, 0) & 3;
      z.flags = mode == 1 ? kZoneLoop : mode == 3 ? kZoneLoopUntilRelease : 0;
      if (z.loop_end <= z.loop_start + 1) z.flags = 0;
      const int root = iz.s(kRootKey, -1);
      const int original = h[40];
      z.root_key = static_cast<std::uint8_t>(root >= 0 && root <= 127 ? root : original <= 127 ? original : 60);
      const int correction = static_cast<std::int8_t>(h[41]);
      const int cents = (iz.s(kCoarseTune, 0) + pz.s(kCoarseTune, 0)) * 100 + iz.s(kFineTune, 0) + pz.s(kFineTune, 0) + correction;
      z.tune_cents = static_cast<std::int16_t>(std::clamp(cents, -12800, 12800));
      // The customary 0.4 factor on attenuation: SoundFonts are voiced for it.
      const int atten = (iz.s(kAttenuation, 0) + pz.s(kAttenuation, 0)) * 2 / 5;
      z.attenuation_cb = static_cast<std::int16_t>(std::clamp(atten, 0, 1440));
      z.pan = static_cast<std::int16_t>(std::clamp(iz.s(kPan, 0) + pz.s(kPan, 0), -500, 500));
      z.exclusive = static_cast<std::uint16_t>(iz.s(kExclusive, 0));
      z.attack = static_cast<float>(std::clamp(timecents(iz.s(kAttack, -12000) + pz.s(kAttack, 0)), 0.0, 20.0));
      const int decay_tc = iz.s(kDecay, -12000) + pz.s(kDecay, 0);
      const int sustain_cb = std::clamp(iz.s(kSustain, 0) + pz.s(kSustain, 0), 0, 1440);
      z.sustain = static_cast<float>(values::exp_raw(-sustain_cb / 200.0 * 2.30258509299404568402));
      if (sustain_cb >= 1000) z.sustain = 0;
      z.decay = sustain_cb > 0 ? static_cast<float>(std::clamp(timecents(decay_tc), 0.0, 60.0)) : 0.0f;
      z.release = static_cast<float>(std::clamp(timecents(iz.s(kRelease, -12000) + pz.s(kRelease, 0)), 0.005, 20.0));
      bank->zones.push_back(z);
    }
  }

  void preset(int program, std::size_t index) {
    const std::size_t b0 = get16(sf.phdr.p + index * 38 + 24), b1 = get16(sf.phdr.p + (index + 1) * 38 + 24);
    std::vector<Gens> pzones;
    if (!zones_of(sf.pbag, sf.pgen, b0, b1, kInstrument, &pzones)) return;
    for (const Gens& pz : pzones) instrument(program, pz, pz.value[kInstrument]);
  }
};

}  // namespace

bool sf2_to_bank(const std::uint8_t* data, std::size_t size, Bank* out, std::string* error) {
  if (size < 12 || std::memcmp(data, "RIFF", 4) != 0 || std::memcmp(data + 8, "sfbk", 4) != 0) {
    *error = "not a SoundFont 2 file";
    return false;
  }
  Sf2 sf;
  const std::size_t riff = std::min<std::size_t>(get32(data + 4), size - 8);
  if (!walk(data + 12, riff - 4, &sf) || !sf.smpl.p || sf.phdr.n < 76 || !sf.pbag.p || !sf.pgen.p || !sf.inst.p ||
      !sf.ibag.p || !sf.igen.p || !sf.shdr.p) {
    *error = "the SoundFont's chunks are damaged or missing";
    return false;
  }
  // Presets by (bank, program); the last header is the terminal record.
  std::map<std::pair<int, int>, std::size_t> presets;
  const std::size_t count = sf.phdr.n / 38 - 1;
  for (std::size_t i = 0; i < count; ++i)
    presets.emplace(std::make_pair(get16(sf.phdr.p + i * 38 + 22), get16(sf.phdr.p + i * 38 + 20)), i);
  Converter c{sf, out, {}};
  for (int program = 0; program < 128; ++program)
    if (auto it = presets.find({0, program}); it != presets.end()) c.preset(program, it->second);
  const int kits[4] = {0, 8, 16, 24};
  for (int k = 0; k < 4; ++k) {
    auto it = presets.find({128, kits[k]});
    if (it == presets.end()) it = presets.find({128, 0});
    if (it != presets.end()) c.preset(128 + k, it->second);
  }
  if (out->zones.empty()) {
    *error = "the SoundFont has no General MIDI presets";
    return false;
  }
  format::index_zones(out);
  return true;
}

}  // namespace sound
