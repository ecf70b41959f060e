// The session's audio device, and the WAV-file device of --audio-out: the
// buffers go to the file as they are written and count as played when the
// clock says they would have been, so a program's timing is the same as with
// a sound card.
#include "host/audio.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "host/platform.h"
#include "host/shell.h"

namespace host {

AudioDevice* (*make_system_audio)() = nullptr;

namespace {

using Clock = std::chrono::steady_clock;

class WavAudio final : public AudioDevice {
 public:
  WavAudio(std::string path, AudioFormat best) : path_(std::move(path)), best_(best) {}
  ~WavAudio() override { close(); }

  const char* backend_name() const override { return "WAV file buffered streaming (--audio-out)"; }

  bool open(AudioFormat format, unsigned buffers, unsigned frames) override {
    if (static_cast<int>(format) < static_cast<int>(best_)) return false;
    if (!file_) {
      file_ = open_file(path_, "wb");
      if (!file_) return false;
      data_bytes_ = 0;
      format_ = format;
      write_header();
    } else if (format != format_) {
      // One file holds one format: a later start keeps the first.
      return false;
    }
    buffer_time_ = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(frames / 48000.0));
    ends_.assign(buffers, Clock::time_point{});
    queued_.assign(buffers, false);
    paused_ = false;
    return true;
  }
  void pause() override {
    std::lock_guard g(lock_);
    paused_ = true;
  }
  bool restart() override {
    std::lock_guard g(lock_);
    paused_ = false;
    // The buffers written while paused start playing now, in order.
    Clock::time_point t = Clock::now();
    for (std::size_t k = 0; k < order_.size(); ++k) ends_[order_[k]] = t += buffer_time_;
    last_end_ = t;
    order_.clear();
    return true;
  }
  bool write(unsigned index, const void* data, std::size_t bytes) override {
    if (!file_ || std::fwrite(data, 1, bytes, file_) != bytes) {
      error_ = 1;
      return false;
    }
    data_bytes_ += bytes;
    write_header();
    std::lock_guard g(lock_);
    queued_[index] = true;
    if (paused_) {
      order_.push_back(index);
      ends_[index] = Clock::time_point::max();
    } else {
      const Clock::time_point now = Clock::now();
      last_end_ = (last_end_ > now ? last_end_ : now) + buffer_time_;
      ends_[index] = last_end_;
    }
    return true;
  }
  bool done(unsigned index) override {
    std::lock_guard g(lock_);
    return !queued_[index] || Clock::now() >= ends_[index];
  }
  void wait(unsigned ms) override {
    std::unique_lock g(lock_);
    Clock::time_point until = Clock::now() + std::chrono::milliseconds(ms);
    for (std::size_t i = 0; i < ends_.size(); ++i)
      if (queued_[i] && ends_[i] < until) until = ends_[i];
    cv_.wait_until(g, until, [&] { return woken_; });
    woken_ = false;
  }
  void wake() override {
    {
      std::lock_guard g(lock_);
      woken_ = true;
    }
    cv_.notify_all();
  }
  void reset() override {
    std::lock_guard g(lock_);
    queued_.assign(queued_.size(), false);
    order_.clear();
  }
  void close() override {
    if (file_) {
      write_header();
      std::fclose(file_);
      file_ = nullptr;
    }
  }
  int error_code() const override { return error_; }
  bool enter_audio_thread() override { return false; }

 private:
  // The header is rewritten after every buffer, so the file is complete
  // whenever the process ends.
  void write_header() {
    const unsigned bps = audio_bytes_per_sample(format_);
    std::uint8_t h[44];
    auto p32 = [&](int at, std::uint32_t v) {
      for (int i = 0; i < 4; ++i) h[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
    };
    auto p16 = [&](int at, std::uint32_t v) {
      h[at] = static_cast<std::uint8_t>(v);
      h[at + 1] = static_cast<std::uint8_t>(v >> 8);
    };
    const std::uint32_t data = static_cast<std::uint32_t>(data_bytes_ > 0xFFFFFFD0u ? 0xFFFFFFD0u : data_bytes_);
    std::memcpy(h, "RIFF", 4);
    p32(4, 36 + data);
    std::memcpy(h + 8, "WAVEfmt ", 8);
    p32(16, 16);
    p16(20, format_ == AudioFormat::float32 ? 3 : 1);
    p16(22, 2);
    p32(24, 48000);
    p32(28, 48000 * 2 * bps);
    p16(32, 2 * bps);
    p16(34, 8 * bps);
    std::memcpy(h + 36, "data", 4);
    p32(40, data);
    const long at = std::ftell(file_);
    std::fseek(file_, 0, SEEK_SET);
    std::fwrite(h, 1, sizeof h, file_);
    std::fseek(file_, at < 44 ? 44 : at, SEEK_SET);
  }

  std::string path_;
  AudioFormat best_;
  AudioFormat format_ = AudioFormat::float32;
  std::FILE* file_ = nullptr;
  std::uint64_t data_bytes_ = 0;
  int error_ = 0;
  std::mutex lock_;
  std::condition_variable cv_;
  bool woken_ = false;
  bool paused_ = false;
  Clock::duration buffer_time_{};
  Clock::time_point last_end_{};
  std::vector<Clock::time_point> ends_;
  std::vector<bool> queued_;
  std::vector<unsigned> order_;
};

}  // namespace

AudioDevice* make_wav_audio(const std::string& path, AudioFormat best) { return new WavAudio(path, best); }

AudioDevice* audio_device() {
  static AudioDevice* device = [] () -> AudioDevice* {
    if (!shell.audio_out.empty()) return make_wav_audio(shell.audio_out, static_cast<AudioFormat>(shell.audio_best));
    if (shell.headless && !shell.audio_system) return nullptr;
    return make_system_audio ? make_system_audio() : nullptr;
  }();
  return device;
}

}  // namespace host
