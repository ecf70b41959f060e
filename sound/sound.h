// The sound subsystem's statements and functions: SOUND (ON, OFF, RESET,
// INFO, PRELOAD, GROUPS, LIST, MASTER), INSTRUMENT, NOTE, NOTEOFF, SOUNDCTL,
// SOUNDKEY, BEEP; SOUNDPRESENT, SOUNDACTIVE, SOUNDLOAD, SOUNDNAME$,
// SOUNDAVAILABLE, SOUNDGROUP, SOUNDGROUP$.
#pragma once
#include "core/statements.h"
#include "values/builtins.h"

namespace sound {

void stmt_sound(const core::Token*& t);
void stmt_instrument(const core::Token*& t);
void stmt_note(const core::Token*& t);
void stmt_noteoff(const core::Token*& t);
void stmt_soundctl(const core::Token*& t);
void stmt_soundkey(const core::Token*& t);
void stmt_beep(const core::Token*& t);

inline constexpr core::NamedStatement kSoundNamed[] = {
    {"SOUND", stmt_sound},     {"INSTRUMENT", stmt_instrument}, {"NOTE", stmt_note}, {"NOTEOFF", stmt_noteoff},
    {"SOUNDCTL", stmt_soundctl}, {"SOUNDKEY", stmt_soundkey},   {"BEEP", stmt_beep},
};
inline constexpr int kSoundNamedCount = static_cast<int>(sizeof kSoundNamed / sizeof kSoundNamed[0]);

const values::BuiltinGroup& sound_builtins();

// The console BEL goes through the engine once it can start.
void install_hooks();
// The end of the session: the engine stops and its device closes.
void shutdown();

}  // namespace sound
