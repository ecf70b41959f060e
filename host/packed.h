// Standalone executables: a program (and a General MIDI bank) appended to a
// copy of the interpreter's executable, found again at start-up.
//
// File layout: interpreter bytes | payload | trailer (24 bytes)
//   trailer:  "TAMBRIL2-PACKED!" | u64 payload length (8 .. file size - 24)
//   payload:  "QZP3" | u32 entry count (1..16) | count x entry | blocks
//             (or, in the older form, a bare program block)
//   entry:    tag "BAS2"/"QZGM" | u32 0 | u64 offset | u64 length (from the payload start)
//   program:  "BAS2" | u32 line count (<= 65536) | records: u32 number, u32 length (<= 244), body
// All integers little-endian.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/token.h"

namespace host {

constexpr std::uint64_t kTrailerBytes = 24;
constexpr std::uint32_t kMaxContainerEntries = 16;

// What a file carries behind the interpreter. Offsets are absolute in the file.
struct PackedImage {
  bool payload = false;  // a valid trailer over a well-formed container or bare block
  bool packed = false;   // ... that holds a program block of at least 8 bytes
  std::uint64_t payload_start = 0, payload_length = 0;
  std::uint64_t program_offset = 0, program_length = 0;
  std::uint64_t bank_offset = 0, bank_length = 0;  // 0, 0 when there is no bank
  // The interpreter proper: the bytes before the payload, or the whole file.
  std::uint64_t interpreter_length = 0;
};

// Reads the trailer and the container of an open file; never raises.
PackedImage examine_image(std::FILE* f);

// Start-up: examines the running executable once and remembers the result
// (the packed flag and the block locations). Later calls give the same answer.
bool detect_packed_program(const std::string& exe_path);
const PackedImage& packed_image();

// Fills the program store from a program block; false (and the store holds
// whatever was read) when the block is malformed or a line cannot be stored.
// Errors of the store are silent here: the caller decides what to show.
bool load_program_block(std::FILE* f, std::uint64_t offset, std::uint64_t length);
// The same for the running executable's own block.
bool load_packed_program();

// The program store as a program block.
std::string program_block();

// The General MIDI bank embedded in the running executable: its file (the
// system's own path) and where the bank's bytes lie in it. False when the
// executable carries no bank.
struct EmbeddedBank {
  std::string path;
  std::uint64_t offset = 0, length = 0;
};
bool embedded_gm_bank(EmbeddedBank* out);

// CREATEEXE file$ [NOGM]
void stmt_createexe(const core::Token*& t);

}  // namespace host
