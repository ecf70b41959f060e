// The sound card as the audio engine sees it: a queue of a few fixed-size
// buffers that the device plays in order and marks done, and a notification
// the engine's thread waits on. waveOut has exactly this shape; the SDL2
// device, the WAV-file device of --audio-out and the test device imitate it.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace host {

enum class AudioFormat : std::uint8_t { float32, pcm24, pcm16 };
inline unsigned audio_bytes_per_sample(AudioFormat f) { return f == AudioFormat::float32 ? 4 : f == AudioFormat::pcm24 ? 3 : 2; }

class AudioDevice {
 public:
  virtual ~AudioDevice() = default;
  // The "Backend" line of SOUND INFO.
  virtual const char* backend_name() const = 0;
  // Open for 48 kHz stereo in this format with `buffers` buffers of `frames`
  // frames; false when the device refuses the format (the engine tries the next).
  virtual bool open(AudioFormat format, unsigned buffers, unsigned frames) = 0;
  // Playback held while the first buffers are filled, then released.
  virtual void pause() = 0;
  virtual bool restart() = 0;
  // Queue buffer `index` for playing; false on a device error (error_code says which).
  virtual bool write(unsigned index, const void* data, std::size_t bytes) = 0;
  // Whether buffer `index` has been played (or was never written).
  virtual bool done(unsigned index) = 0;
  // Wait up to `ms` for the device's notification; wake() ends a wait early.
  virtual void wait(unsigned ms) = 0;
  virtual void wake() = 0;
  // Stop playing and mark every buffer done; then close.
  virtual void reset() = 0;
  virtual void close() = 0;
  virtual int error_code() const { return 0; }
  // Scheduling of the calling (audio) thread: true when the "Pro Audio" task
  // class was joined, false when only the thread priority was raised.
  virtual bool enter_audio_thread() { return false; }
  virtual void leave_audio_thread() {}
};

// The device of this session, made on first use: the WAV file of
// --audio-out, the platform's sound card (the window, or --audio-system),
// or none (nullptr). The engine owns it for the life of the process.
AudioDevice* audio_device();

// What the front end installs: its own sound card device, or nothing.
extern AudioDevice* (*make_system_audio)();

// A device that writes 48 kHz stereo to a WAV file, paced in real time by the
// clock; `lowest_first` makes it refuse formats above that one (tests).
AudioDevice* make_wav_audio(const std::string& path, AudioFormat best);

}  // namespace host
