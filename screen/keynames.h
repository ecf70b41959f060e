// The key names KEYDOWN(key$) understands, turned into host::KeyId numbers.
#pragma once
#include <cstdint>

namespace screen {

// A letter or digit names its key; the other names are listed in
// docs/screen.md. Case does not matter. Returns -1 for an unknown name.
int key_id_from_name(const char* name, std::uint32_t n);

}  // namespace screen
