// What the MIDI and WAV statements share: argument reading, Esc while a
// statement waits or loads, reading a whole media file, and the wait for the
// audio thread before a slot's data is freed.
#pragma once
#include <cstdint>
#include <string>

#include "core/token.h"
#include "values/eval.h"

namespace sound::media {

bool fail(const char* message);
bool int_arg(const core::Token*& t, std::int64_t* out);
bool double_arg(const core::Token*& t, double* out);
bool comma(const core::Token*& t);
bool end_of_statement(const core::Token* t);
bool is_word(const core::Token* t, const char* upper);

// Esc pressed (taken from the key queue).
bool esc_taken();
// An Esc seen while waiting goes back to the run loop as its break.
void pass_break_on();

enum class ReadResult { ok, not_found, too_big, failed };
// Read a whole file of at most `limit` bytes.
ReadResult read_file(const std::string& name, std::uint64_t limit, std::string* bytes);

// Start the engine for playback; false when there is no device or it fails.
bool engine_up();

}  // namespace sound::media
