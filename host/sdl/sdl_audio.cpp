// The SDL2 sound card device: SDL's callback takes the engine's buffers in
// the order they were written and marks each one done when it has been
// copied out, as waveOut does when a buffer has played.
#include <SDL.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "host/audio.h"

namespace host {

namespace {

class SdlAudio final : public AudioDevice {
 public:
  const char* backend_name() const override { return "SDL2 audio buffered streaming"; }

  bool open(AudioFormat format, unsigned buffers, unsigned frames) override {
    // SDL has no packed 24-bit format: that one is refused here.
    if (format == AudioFormat::pcm24) return false;
    SDL_AudioSpec want{}, got{};
    want.freq = 48000;
    want.format = format == AudioFormat::float32 ? AUDIO_F32SYS : AUDIO_S16SYS;
    want.channels = 2;
    want.samples = static_cast<Uint16>(frames / 2);
    want.callback = &SdlAudio::callback;
    want.userdata = this;
    dev_ = SDL_OpenAudioDevice(nullptr, 0, &want, &got, 0);
    if (dev_ == 0) return false;
    data_.assign(buffers, {});
    queued_.assign(buffers, false);
    order_.clear();
    at_ = 0;
    error_ = 0;
    return true;
  }
  void pause() override { SDL_PauseAudioDevice(dev_, 1); }
  bool restart() override {
    SDL_PauseAudioDevice(dev_, 0);
    return SDL_GetAudioDeviceStatus(dev_) == SDL_AUDIO_PLAYING;
  }
  bool write(unsigned index, const void* data, std::size_t bytes) override {
    if (dev_ == 0) {
      error_ = 1;
      return false;
    }
    std::lock_guard g(lock_);
    data_[index].assign(static_cast<const std::uint8_t*>(data), static_cast<const std::uint8_t*>(data) + bytes);
    queued_[index] = true;
    order_.push_back(index);
    return true;
  }
  bool done(unsigned index) override {
    std::lock_guard g(lock_);
    return !queued_[index];
  }
  void wait(unsigned ms) override {
    std::unique_lock g(lock_);
    cv_.wait_for(g, std::chrono::milliseconds(ms), [&] { return signalled_; });
    signalled_ = false;
  }
  void wake() override {
    {
      std::lock_guard g(lock_);
      signalled_ = true;
    }
    cv_.notify_all();
  }
  void reset() override {
    if (dev_) SDL_PauseAudioDevice(dev_, 1);
    std::lock_guard g(lock_);
    queued_.assign(queued_.size(), false);
    order_.clear();
    at_ = 0;
  }
  void close() override {
    if (dev_) SDL_CloseAudioDevice(dev_);
    dev_ = 0;
  }
  int error_code() const override { return error_; }
  bool enter_audio_thread() override {
    SDL_SetThreadPriority(SDL_THREAD_PRIORITY_TIME_CRITICAL);
    return false;
  }

 private:
  static void SDLCALL callback(void* user, Uint8* stream, int len) {
    auto* self = static_cast<SdlAudio*>(user);
    bool finished = false;
    {
      std::lock_guard g(self->lock_);
      int filled = 0;
      while (filled < len && !self->order_.empty()) {
        const unsigned b = self->order_.front();
        const std::vector<std::uint8_t>& d = self->data_[b];
        const std::size_t n = std::min<std::size_t>(static_cast<std::size_t>(len - filled), d.size() - self->at_);
        std::memcpy(stream + filled, d.data() + self->at_, n);
        filled += static_cast<int>(n);
        self->at_ += n;
        if (self->at_ >= d.size()) {
          self->queued_[b] = false;
          self->order_.erase(self->order_.begin());
          self->at_ = 0;
          finished = true;
        }
      }
      // Nothing queued: silence (the engine counts the starvation).
      if (filled < len) std::memset(stream + filled, 0, static_cast<std::size_t>(len - filled));
      if (finished) self->signalled_ = true;
    }
    if (finished) self->cv_.notify_all();
  }

  SDL_AudioDeviceID dev_ = 0;
  std::mutex lock_;
  std::condition_variable cv_;
  bool signalled_ = false;
  std::vector<std::vector<std::uint8_t>> data_;
  std::vector<bool> queued_;
  std::vector<unsigned> order_;
  std::size_t at_ = 0;
  int error_ = 0;
};

}  // namespace

// The factory the Linux entry point installs: none when SDL finds no sound card.
AudioDevice* make_sdl_audio() {
  if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) return nullptr;
  // A driver without a device behind it (ALSA with no card) is no device:
  // one trial open tells.
  SDL_AudioSpec want{}, got{};
  want.freq = 48000;
  want.format = AUDIO_S16SYS;
  want.channels = 2;
  want.samples = 512;
  want.callback = nullptr;
  const SDL_AudioDeviceID trial = SDL_OpenAudioDevice(nullptr, 0, &want, &got, SDL_AUDIO_ALLOW_ANY_CHANGE);
  // The subsystem stays initialised either way: quitting it after a failed
  // probe loses memory inside SDL, and the answer is kept for the session.
  if (trial == 0) return nullptr;
  SDL_CloseAudioDevice(trial);
  return new SdlAudio();
}

}  // namespace host
