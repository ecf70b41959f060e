// Reading the descriptor table for the listings (VARINFO, ARRAYINFO, TRACE,
// ECONOMY and the debugger).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "values/types.h"
#include "values/variables.h"

namespace tools {

// Every descriptor in use, sorted by name (scalars before arrays of the same
// name), so that a listing does not depend on the order of creation.
std::vector<const values::Descriptor*> sorted_descriptors();

// A value as the listings show it: numbers as PRINT writes them without the
// blanks, strings in quotes with control characters as "." and cut to
// `limit` characters ("..." marks the cut; 0 means no limit).
std::string value_text(const values::Value& v, std::size_t limit = 0);
// A scalar descriptor's value.
std::string scalar_text(const values::Descriptor& d, std::size_t limit = 0);
// "(10,5)": the upper bounds as DIM wrote them, or "(not dimensioned)".
std::string upper_bounds_text(const values::Descriptor& d);
// "0..10, 0..5" with the lower bounds of the current OPTION BASE.
std::string bounds_text(const values::Descriptor& d);
// The name as listed: arrays with "()".
std::string listed_name(const values::Descriptor& d);
// Bytes a variable takes: its slot (and its string bytes), or its array block.
std::uint64_t descriptor_bytes(const values::Descriptor& d);
// The address of the value: the slot, or the array block (0 when none).
std::uint64_t descriptor_address(const values::Descriptor& d);

}  // namespace tools
