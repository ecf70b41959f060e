// Writing a bank file in any of its three forms: our SoundFont converter uses
// it, and so do the tests that make banks of their own.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "sound/bank.h"

namespace sound {

enum class BankForm { raw, lossless, opus };

struct BankWriteOptions {
  std::uint32_t block_length = 65536;  // bytes of PCM per lossless block (even)
  int opus_bitrate = 64000;            // bits per second per (mono) sample stream
  int opus_complexity = 8;
};

// `b` holds zones sorted by program and samples over b.pcm; the samples'
// checksums are filled in here. The Opus form resamples every sample to
// 48 kHz first (Opus codes nothing else) and moves the zones' positions with it.
bool write_bank(const Bank& b, BankForm form, const BankWriteOptions& options, std::vector<std::uint8_t>* out,
                std::string* error);

// The bank as the Opus form stores it: every sample at 48 kHz.
Bank resample_to_48k(const Bank& b);

}  // namespace sound
