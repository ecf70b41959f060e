// Variables as bytes: the image STATEWRITE/STATELOAD keep on disk and CHAIN
// carries COMMON variables across a program change in.
//
// Image: u32 count, then per variable
//   u8 name length, name (with suffix), u8 type, u8 array flag,
//   arrays: u8 dimensions (1..4), i64 upper bound per dimension, u8 OPTION BASE at creation,
//   then the values (one for a scalar, every element in row-major order):
//   types 1-3 i64, 4-5 f64, 6 u32 length + bytes, 7 the 72-byte record.
// All numbers little-endian.
#pragma once
#include <string>

#include "values/variables.h"

namespace files {

// Append one variable (scalar or array) to the image body.
void encode_variable(const values::Descriptor& d, std::string* body);
// The whole image of the descriptors selected by `keep` (all when null).
std::string encode_variables(bool (*keep)(const values::Descriptor&));

// Check an image (apply = false) or create its variables (apply = true):
// absent ones are created, existing ones of the same name and type are
// overwritten; an array brings back the OPTION BASE it was made under. A
// malformed image is false with `damaged` raised.
bool decode_variables(const std::string& image, bool apply, const char* damaged);

}  // namespace files
