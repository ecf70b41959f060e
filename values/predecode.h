// The evaluator's pre-decoded expressions (see predecode.cpp).
#pragma once
#include <cstddef>

namespace values {

// The program changed: every decoded tree is dropped at the next safe point
// (tokens made anew carry none, and the old ones are never reached again).
void forget_predecoded();
// Bytes the decoded trees hold now.
std::size_t predecoded_bytes();

}  // namespace values
