// libFuzzer target for the GM bank reader: any bytes either load as a bank
// whose every zone lies inside its sample and every sample inside the PCM,
// or are refused with a message; never a crash, a read outside the input or
// an allocation out of proportion to it. A bank that loads comes back the
// same through the lossless writer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "sound/bank.h"
#include "sound/bank_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  sound::Bank b;
  std::string error;
  // Serial and parallel decoding take different paths through the blocks.
  const int workers = size > 0 && (data[size - 1] & 1) ? 2 : 1;
  if (!sound::load_bank_memory(data, size, workers, &b, &error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  for (const sound::SampleInfo& s : b.samples)
    if (s.offset + s.frames > b.pcm.size()) std::abort();
  for (const sound::Zone& z : b.zones)
    if (z.sample >= b.samples.size() || z.end > b.samples[z.sample].frames || z.start >= z.end ||
        z.loop_end > b.samples[z.sample].frames)
      std::abort();
  std::vector<std::uint8_t> again;
  sound::BankWriteOptions o;
  o.block_length = 4096;
  if (!sound::write_bank(b, sound::BankForm::lossless, o, &again, &error)) return 0;  // metadata too small to compress
  sound::Bank back;
  if (!sound::load_bank_memory(again.data(), again.size(), 1, &back, &error) || back.pcm != b.pcm ||
      back.zones.size() != b.zones.size())
    std::abort();
  return 0;
}
