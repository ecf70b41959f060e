// The engine: start and stop, the audio thread's refill loop, the command
// ring, the channel state and the mixer. The voices themselves are in
// sound/voice.cpp.
#include "sound/engine.h"

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "host/platform.h"
#include "sound/midi_player.h"
#include "sound/voice.h"
#include "sound/wav_player.h"

namespace sound {

const char* const kControlNames[kControlCount] = {
    "VOLUME", "PAN",    "BRIGHTNESS", "DAMPING", "ATTACK", "RELEASE",  "PRESSURE", "TIMBRE", "NOISE",
    "VIBRATO", "VIBRATE", "BODY",     "HARDNESS", "BREATH", "REED",    "BOW",      "BAG",    "DETUNE",
    "SPREAD", "POSITION", "RESONANCE", "DRIVE",   "AIR",    "MUTE",    "DRONES",
};

Status status;
std::atomic<double> master_gain{1.0};

namespace {

// The ring: the interpreter owns the write index, the audio thread the read index.
Command ring[kRingSize];
std::atomic<unsigned> write_index{0};
std::atomic<unsigned> read_index{0};
// Commands posted through the ring and applied from it, for sync().
std::uint64_t posted = 0;
std::atomic<std::uint64_t> applied{0};

host::AudioDevice* device = nullptr;
bool device_made = false;
std::thread audio_thread;
std::atomic<bool> stop_flag{false};
host::AudioFormat format = host::AudioFormat::float32;
bool format_open = false;
std::vector<std::uint8_t> buffers[kDeviceBuffers];
std::vector<double> mix(kBufferFrames * 2);

// The interpreter's view of each channel's program (the voices' copy lives
// with the render state and may lag behind by the ring).
int interp_program[kChannels] = {};

host::AudioDevice* get_device() {
  if (!device_made) {
    device = host::audio_device();
    device_made = true;
  }
  return device;
}

void convert(const double* in, std::uint8_t* out, unsigned frames) {
  const unsigned n = frames * 2;
  for (unsigned i = 0; i < n; ++i) {
    double x = in[i];
    x = x > 1 ? 1 : x < -1 ? -1 : x;
    switch (format) {
      case host::AudioFormat::float32: {
        const float f = static_cast<float>(x);
        std::memcpy(out + 4 * i, &f, 4);
        break;
      }
      case host::AudioFormat::pcm24: {
        const auto v = static_cast<std::int32_t>(x * 8388607.0 + (x < 0 ? -0.5 : 0.5));
        out[3 * i] = static_cast<std::uint8_t>(v);
        out[3 * i + 1] = static_cast<std::uint8_t>(v >> 8);
        out[3 * i + 2] = static_cast<std::uint8_t>(v >> 16);
        break;
      }
      case host::AudioFormat::pcm16: {
        const auto v = static_cast<std::int16_t>(x * 32767.0 + (x < 0 ? -0.5 : 0.5));
        std::memcpy(out + 2 * i, &v, 2);
        break;
      }
    }
  }
}

void fill_buffer(unsigned index) {
  apply_pending();
  render(mix.data(), kBufferFrames);
  convert(mix.data(), buffers[index].data(), kBufferFrames);
}

std::uint64_t now_us() {
  const std::uint64_t f = host::perf_frequency();
  const std::uint64_t c = host::perf_counter();
  return f ? static_cast<std::uint64_t>(static_cast<double>(c) * 1e6 / static_cast<double>(f)) : host::tick_ms() * 1000;
}

void thread_body() {
  status.mmcss = device->enter_audio_thread();
  const std::size_t bytes = kBufferFrames * 2 * host::audio_bytes_per_sample(format);
  std::uint64_t last_service = now_us();
  while (!stop_flag.load()) {
    device->wait(5);
    if (stop_flag.load()) break;
    bool done[kDeviceBuffers];
    unsigned count = 0;
    for (unsigned i = 0; i < kDeviceBuffers; ++i) count += (done[i] = device->done(i)) ? 1 : 0;
    if (count == 0) continue;
    const std::uint64_t now = now_us();
    const std::uint64_t gap = now - last_service;
    last_service = now;
    if (gap > status.max_gap_us.load()) status.max_gap_us = gap;
    if (count == kDeviceBuffers) status.starvations.fetch_add(1);
    for (unsigned i = 0; i < kDeviceBuffers; ++i) {
      if (!done[i]) continue;
      if (stop_flag.load()) break;
      const std::uint64_t t0 = now_us();
      fill_buffer(i);
      const std::int64_t took = static_cast<std::int64_t>(now_us() - t0);
      const std::int64_t sample = took * 1000 / 21333;
      std::int64_t load = status.load.load();
      load += (sample - load) / 8;
      status.load = load;
      if (!device->write(i, buffers[i].data(), bytes)) {
        status.device_error = device->error_code() ? device->error_code() : -1;
        status.running = false;
        device->leave_audio_thread();
        status.mmcss = false;
        return;
      }
    }
  }
  device->leave_audio_thread();
  status.mmcss = false;
}

}  // namespace

void use_device_for_tests(host::AudioDevice* d) {
  stop();
  device = d;
  device_made = true;
}

bool present() { return get_device() != nullptr; }

const char* backend_name() { return get_device() ? device->backend_name() : "none"; }

std::string output_name() {
  if (!status.running || !format_open) return "stopped";
  switch (format) {
    case host::AudioFormat::float32: return "48 kHz stereo float32";
    case host::AudioFormat::pcm24: return "48 kHz stereo PCM24";
    case host::AudioFormat::pcm16: return "48 kHz stereo PCM16";
  }
  return "stopped";
}

bool start() {
  if (status.running) return status.device_error == 0;
  if (!get_device()) return false;
  // A thread that ended on a device error is joined before a new start.
  if (audio_thread.joinable()) {
    stop_flag = true;
    device->wake();
    audio_thread.join();
    device->reset();
    device->close();
    format_open = false;
  }
  bool opened = false;
  for (host::AudioFormat f : {host::AudioFormat::float32, host::AudioFormat::pcm24, host::AudioFormat::pcm16}) {
    if (device->open(f, kDeviceBuffers, kBufferFrames)) {
      format = f;
      opened = true;
      break;
    }
  }
  if (!opened) return false;
  format_open = true;
  // Commands posted before the start were applied already; the ring starts empty.
  read_index = 0;
  write_index = 0;
  posted = 0;
  applied = 0;
  status.device_error = 0;
  device->pause();
  const std::size_t bytes = kBufferFrames * 2 * host::audio_bytes_per_sample(format);
  bool ok = true;
  for (unsigned i = 0; i < kDeviceBuffers && ok; ++i) {
    buffers[i].assign(bytes, 0);
    fill_buffer(i);
    ok = device->write(i, buffers[i].data(), bytes);
  }
  stop_flag = false;
  status.running = true;
  if (ok) {
    try {
      audio_thread = std::thread(thread_body);
    } catch (...) {  // no thread: the engine stays stopped
      ok = false;
    }
  }
  if (ok && !device->restart()) {
    stop_flag = true;
    device->wake();
    audio_thread.join();
    ok = false;
  }
  if (!ok) {
    status.running = false;
    status.device_error = device->error_code();
    device->reset();
    device->close();
    format_open = false;
    return false;
  }
  return true;
}

void stop() {
  if (audio_thread.joinable()) {
    stop_flag = true;
    device->wake();
    audio_thread.join();
  }
  if (format_open) {
    device->reset();
    device->close();
    format_open = false;
  }
  status.running = false;
  status.mmcss = false;
  // Commands still in the ring were never heard; their channel changes are kept.
  apply_pending();
}

bool post(const Command& c) {
  if (c.kind == kCmdInstrument && c.channel < kChannels) interp_program[c.channel] = c.value > 0 ? static_cast<int>(c.value) : 0;
  if (c.kind == kCmdReset)
    for (int& p : interp_program) p = 0;
  if (!status.running) {
    if (status.device_error != 0 && audio_thread.joinable()) return false;
    apply(c);
    return true;
  }
  if (status.device_error != 0) return false;
  const unsigned w = write_index.load(std::memory_order_relaxed);
  const unsigned next = (w + 1) % kRingSize;
  if (next == read_index.load(std::memory_order_acquire)) return false;
  ring[w] = c;
  ++posted;
  write_index.store(next, std::memory_order_release);
  return true;
}

bool sync() {
  if (!status.running || !audio_thread.joinable()) return true;
  Command c;
  c.kind = kCmdSync;
  const std::uint64_t start = host::tick_ms();
  while (!post(c)) {  // a full ring empties within a buffer's time
    if (!status.running || status.device_error != 0) return !status.running;
    if (host::tick_ms() - start > 2000) return false;
    host::sleep_ms(1);
  }
  const std::uint64_t want = posted;
  while (applied.load(std::memory_order_acquire) < want) {
    if (!status.running) return true;
    if (host::tick_ms() - start > 2000) return false;
    host::sleep_ms(1);
  }
  return true;
}

void apply_pending() {
  unsigned r = read_index.load(std::memory_order_relaxed);
  const unsigned w = write_index.load(std::memory_order_acquire);
  std::uint64_t n = 0;
  while (r != w) {
    apply(ring[r]);
    r = (r + 1) % kRingSize;
    ++n;
  }
  read_index.store(r, std::memory_order_release);
  if (n) applied.fetch_add(n, std::memory_order_release);
}

int channel_program(int channel) { return channel >= 0 && channel < kChannels ? interp_program[channel] : 0; }

void render(double* out, unsigned frames) {
  const double gain = master_gain.load();
  for (unsigned done = 0; done < frames; done += kBlockFrames) {
    const unsigned n = frames - done < kBlockFrames ? frames - done : kBlockFrames;
    double* block = out + 2 * done;
    std::memset(block, 0, sizeof(double) * 2 * n);
    mix_voices(block, n);
    midi_mix(block, n);
    wav_mix(block, n);
    for (unsigned i = 0; i < 2 * n; ++i) block[i] *= gain;
  }
  status.active_voices = active_voices();
  status.frames_rendered.fetch_add(frames);
}

}  // namespace sound
