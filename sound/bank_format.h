// The bank file's layout, shared by the reader (sound/bank.cpp) and our
// SoundFont converter (sound/convert/): CRC-32, the metadata tables, the
// metadata compressor and the lossless PCM block codec.
//
// Decoded metadata:
//   48-byte header  0 "QZMD"  4 u32 version (1)  8 u32 zone count  12 u32 sample count
//                  16 u64 PCM frames  24 u32[5] programs present (bit per id)  44 u32 0
//   zone count x 56 bytes (Zone, below), sorted by program
//   sample count x 24 bytes (SampleInfo)
//
// Zone entry (56 bytes):
//    0 u16 program  2 u8 key lo  3 key hi  4 vel lo  5 vel hi  6 root key  7 flags
//    8 u32 sample  12 i16 tune cents  14 i16 attenuation cB  16 i16 pan  18 u16 exclusive class
//   20 u32 start  24 end  28 loop start  32 loop end (frames of the sample)
//   36 f32 release s  40 attack s  44 decay s  48 sustain level  52 u32 0
//
// Sample entry (24 bytes): 0 u64 first frame  8 u32 frames  12 u32 rate
//   16 u32 CRC-32 of the PCM bytes (0 in the Opus form)  20 u32 flags
//
// Lossless block codec: the PCM area (little-endian i16) is cut into blocks
// of `block length` bytes; each block is coded alone so that workers can
// decode in any order. A block starts with u8 predictor order (0..3) and its
// first `order` samples as i16; the residuals follow in partitions of 256,
// each a u8 Rice parameter (31: raw i16s) then the Rice codes, LSB first.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sound/bank.h"

namespace sound::format {

constexpr std::size_t kMetaHeader = 48;
constexpr std::size_t kZoneEntry = 56;
constexpr std::size_t kSampleEntry = 24;
constexpr std::size_t kLosslessHeader = 96;
constexpr std::size_t kRawHeader = 48;
constexpr std::size_t kOpusHeader = 96;
constexpr std::size_t kOpusIndexEntry = 64;
constexpr std::uint64_t kMaxDecodedMeta = 2147483648ull;
constexpr std::uint64_t kMaxStoredMeta = 12772888;
constexpr std::uint32_t kMaxBlockLength = 1048576;
constexpr std::uint32_t kMaxBlocks = 1048576;

std::uint32_t crc32(const void* data, std::size_t n, std::uint32_t crc = 0);

inline std::uint16_t get16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
inline std::uint32_t get32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 | static_cast<std::uint32_t>(p[2]) << 16 |
         static_cast<std::uint32_t>(p[3]) << 24;
}
inline std::uint64_t get64(const std::uint8_t* p) { return get32(p) | static_cast<std::uint64_t>(get32(p + 4)) << 32; }
// The ASCII bytes of a tag or magic.
void put_tag(std::vector<std::uint8_t>& v, const char* tag);
void put16(std::vector<std::uint8_t>& v, std::uint16_t x);
void put32(std::vector<std::uint8_t>& v, std::uint32_t x);
void put64(std::vector<std::uint8_t>& v, std::uint64_t x);
void set32(std::uint8_t* p, std::uint32_t x);
void set64(std::uint8_t* p, std::uint64_t x);

// Metadata tables to bytes and back. parse_metadata checks every rule the
// voices rely on (zones inside their samples, samples inside the PCM area).
std::vector<std::uint8_t> build_metadata(const Bank& b);
bool parse_metadata(const std::uint8_t* p, std::uint64_t n, std::uint64_t pcm_frames, Bank* out);
// The 48-byte header's counts; false when the size does not match them.
bool metadata_counts(const std::uint8_t* p, std::uint64_t n, std::uint32_t* zones, std::uint32_t* samples, std::uint64_t* frames);

// A byte-oriented LZ coder for the metadata (its tables are mostly zeros and
// repeated ranges).
std::vector<std::uint8_t> lz_compress(const std::uint8_t* p, std::size_t n);
bool lz_decompress(const std::uint8_t* p, std::size_t n, std::uint8_t* out, std::size_t out_n);

// One PCM block (an even number of bytes) coded and decoded.
std::vector<std::uint8_t> encode_block(const std::int16_t* pcm, std::size_t samples);
bool decode_block(const std::uint8_t* p, std::size_t n, std::int16_t* out, std::size_t samples);

// Build the zone index of a bank whose zones are sorted by program.
bool index_zones(Bank* b);

}  // namespace sound::format
