// The audio engine: one 48 kHz stereo stream mixed in double precision from
// 32 note channels (at most 256 voices), fed by fixed-size commands through a
// lock-free single-producer, single-consumer ring from the interpreter thread
// to the audio thread, which refills the device's 4 buffers of 1,024 frames.
#pragma once
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include "host/audio.h"

namespace sound {

constexpr int kChannels = 32;
constexpr int kMaxVoices = 256;
constexpr int kRate = 48000;
constexpr unsigned kDeviceBuffers = 4;
constexpr unsigned kBufferFrames = 1024;
constexpr unsigned kBlockFrames = 128;
constexpr unsigned kRingSize = 1024;
constexpr int kControlCount = 25;

enum CommandKind : std::uint8_t {
  kCmdNoteOn = 1,
  kCmdNoteOff = 2,
  kCmdInstrument = 3,
  kCmdReset = 4,
  kCmdControl = 5,
  kCmdMaster = 6,
  kCmdKey = 7,
  kCmdBeep = 8,
  // The MIDI player (sound/midi_player.cpp).
  kCmdMidiPlay = 9,     // pointer: the song; note: loop; key: slot; value: generation
  kCmdMidiStop = 10,    // value: generation
  kCmdMidiCC = 11,      // channel: part (255 all); control: controller; velocity: value
  kCmdMidiFx = 12,      // gate: 0 auto, 1 manual, 2 off; note/velocity/control: reverb/chorus/delay
  kCmdMidiForget = 13,  // pointer: a song about to be freed
  // The WAV channels (sound/wav_player.cpp).
  kCmdWavPlay = 14,     // pointer: the slot's PCM; channel; gate: loop; value: volume; x: pan; key: slot
  kCmdWavStop = 15,     // channel (255 all)
  kCmdWavPause = 16,
  kCmdWavResume = 17,
  kCmdWavCtl = 18,      // channel; value: volume; x: pan
  kCmdWavForget = 19,   // pointer: a slot's PCM about to be freed
  kCmdSync = 20,        // nothing: sync() waits until it has been applied
};

// One queue slot, copied whole.
//
//   0 kind   1 channel   2 note   3 velocity   4 control(u16)   6 gate   7 -
//   8 key (u32)  12 -    16 value (f64)  24 pitch  32 pressure  40 x  48 y
//
// The MIDI and WAV kinds carry a pointer in the bytes of `pitch` (see
// set_pointer), which they do not otherwise use.
struct Command {
  std::uint8_t kind = 0;
  std::uint8_t channel = 0;
  std::uint8_t note = 0;
  std::uint8_t velocity = 0;
  std::uint16_t control = 0;
  std::uint8_t gate = 0;
  std::uint8_t spare0 = 0;
  std::uint32_t key = 0;
  std::uint32_t spare1 = 0;
  double value = 0;
  double pitch = 0;
  double pressure = 0;
  double x = 0;
  double y = 0;
};
static_assert(sizeof(Command) == 56, "sound commands are 56 bytes");

inline void set_pointer(Command& c, const void* p) { std::memcpy(&c.pitch, &p, sizeof p); }
template <class T>
inline T* get_pointer(const Command& c) {
  const void* p;
  std::memcpy(&p, &c.pitch, sizeof p);
  return static_cast<T*>(const_cast<void*>(p));
}

// The live-control names, numbered 0..24.
extern const char* const kControlNames[kControlCount];

// Status words the interpreter reads while the audio thread writes them.
struct Status {
  std::atomic<bool> running{false};
  std::atomic<int> device_error{0};
  std::atomic<std::uint64_t> starvations{0};
  std::atomic<std::uint64_t> max_gap_us{0};
  std::atomic<bool> mmcss{false};
  std::atomic<std::int64_t> load{0};        // thousandths of a buffer's duration, smoothed
  std::atomic<int> active_voices{0};
  std::atomic<std::int64_t> frames_rendered{0};
};
extern Status status;

// Start the engine (first use or SOUND ON): false when there is no device or
// none of the formats opens.
bool start();
// Stop the audio thread and close the device (SOUND OFF, shutdown). The
// channels keep their state.
void stop();
// The device exists (SOUNDPRESENT).
bool present();
// "48 kHz stereo float32" and friends, or "stopped".
std::string output_name();
const char* backend_name();

// Post one command: applied at once when the engine is stopped; false when a
// device error is recorded or the ring is full (the caller raises "Sound
// command queue full").
[[nodiscard]] bool post(const Command& c);

// Wait until the audio thread has applied every command posted so far, so
// that nothing it renders still points at data the caller is about to free.
// True at once when no audio thread runs; false when the thread did not
// answer within two seconds (the caller must then keep the data).
[[nodiscard]] bool sync();

// Tests put their own device in place of the session's (stops the engine).
void use_device_for_tests(host::AudioDevice* d);

// The channels' programs as the interpreter last set them (notes ask the
// bank whether the instrument exists before they are posted).
int channel_program(int channel);

// Render `frames` frames into interleaved stereo doubles, applying pending
// commands first: the audio thread's work, also called by tests and the
// benchmark directly.
void render(double* out, unsigned frames);
void apply_pending();
// Apply one command to the channel and voice state.
void apply(const Command& c);
// Voices sounding now (the render state's own count).
int active_voices();
// A channel's live control as last applied.
double channel_control(int channel, int control);

// The master gain of SOUND MASTER.
extern std::atomic<double> master_gain;

}  // namespace sound
