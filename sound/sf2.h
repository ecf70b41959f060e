// Reading a SoundFont 2 file into a bank: bank 0's presets become programs
// 0..127 and the percussion presets of bank 128 (0 Standard, 8 Room,
// 16 Power, 24 Electronic) the kits 128..131. Used by our converter.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "sound/bank.h"

namespace sound {

bool sf2_to_bank(const std::uint8_t* data, std::size_t size, Bank* out, std::string* error);

}  // namespace sound
