// The sound subsystem's statements and functions: SOUND (ON, OFF, RESET,
// INFO, PRELOAD, GROUPS, LIST, MASTER), INSTRUMENT, NOTE, NOTEOFF, SOUNDCTL,
// SOUNDKEY, BEEP; SOUNDPRESENT, SOUNDACTIVE, SOUNDLOAD, SOUNDNAME$,
// SOUNDAVAILABLE, SOUNDGROUP, SOUNDGROUP$; the MIDI player's and the WAV
// slots' statements and functions.
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

// sound/midi_statements.cpp
void stmt_loadmid(const core::Token*& t);
void stmt_playmid(const core::Token*& t);
void stmt_stopmid(const core::Token*& t);
void stmt_waitmid(const core::Token*& t);
void stmt_delmid(const core::Token*& t);
void stmt_midinfo(const core::Token*& t);
void stmt_midcc(const core::Token*& t);
void stmt_midccinfo(const core::Token*& t);
void stmt_midfx(const core::Token*& t);
extern const values::Builtin kMidiFunctions[];
extern const int kMidiFunctionCount;
// RUN, CLEAR, NEW and LOAD empty the song slots.
void clear_midi_slots();

// sound/wav_statements.cpp
void stmt_loadwav(const core::Token*& t);
void stmt_playwav(const core::Token*& t);
void stmt_stopwav(const core::Token*& t);
void stmt_pausewav(const core::Token*& t);
void stmt_resumewav(const core::Token*& t);
void stmt_waitwav(const core::Token*& t);
void stmt_delwav(const core::Token*& t);
void stmt_wavctl(const core::Token*& t);
void stmt_wavinfo(const core::Token*& t);
extern const values::Builtin kWavFunctions[];
extern const int kWavFunctionCount;
// WAVCHANNEL() is -1 again after RUN, CLEAR, NEW and LOAD.
void reset_wav_channel_choice();

inline constexpr core::NamedStatement kSoundNamed[] = {
    {"SOUND", stmt_sound},       {"INSTRUMENT", stmt_instrument}, {"NOTE", stmt_note},
    {"NOTEOFF", stmt_noteoff},   {"SOUNDCTL", stmt_soundctl},     {"SOUNDKEY", stmt_soundkey},
    {"BEEP", stmt_beep},         {"LOADMID", stmt_loadmid},       {"PLAYMID", stmt_playmid},
    {"STOPMID", stmt_stopmid},   {"WAITMID", stmt_waitmid},       {"DELMID", stmt_delmid},
    {"MIDINFO", stmt_midinfo},   {"MIDCC", stmt_midcc},           {"MIDCCINFO", stmt_midccinfo},
    {"MIDFX", stmt_midfx},       {"LOADWAV", stmt_loadwav},       {"PLAYWAV", stmt_playwav},
    {"STOPWAV", stmt_stopwav},   {"PAUSEWAV", stmt_pausewav},     {"RESUMEWAV", stmt_resumewav},
    {"WAITWAV", stmt_waitwav},   {"DELWAV", stmt_delwav},         {"WAVCTL", stmt_wavctl},
    {"WAVINFO", stmt_wavinfo},
};
inline constexpr int kSoundNamedCount = static_cast<int>(sizeof kSoundNamed / sizeof kSoundNamed[0]);

const values::BuiltinGroup& sound_builtins();

// The console BEL goes through the engine once it can start.
void install_hooks();
// The end of the session: the engine stops and its device closes.
void shutdown();

}  // namespace sound
