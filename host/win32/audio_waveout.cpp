// The waveOut device: the wave mapper opened with event notification, four
// prepared headers, and the "Pro Audio" task class of the multimedia class
// scheduler, loaded at run time (the library is absent on some systems).
#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>
#include <ks.h>
#include <ksmedia.h>

#include <cstring>
#include <vector>

#include "host/audio.h"

namespace host {

namespace {

using AvSetFn = HANDLE(WINAPI*)(LPCWSTR, LPDWORD);
using AvRevertFn = BOOL(WINAPI*)(HANDLE);

class WaveOutAudio final : public AudioDevice {
 public:
  WaveOutAudio() {
    event_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    stop_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  }
  const char* backend_name() const override { return "Windows waveOut buffered streaming"; }

  bool open(AudioFormat format, unsigned buffers, unsigned frames) override {
    if (!event_ || !stop_) return false;
    const unsigned bps = audio_bytes_per_sample(format);
    // WAVEFORMATEXTENSIBLE for float and 24-bit, which plain WAVEFORMATEX may not carry.
    WAVEFORMATEXTENSIBLE f{};
    f.Format.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
    f.Format.nChannels = 2;
    f.Format.nSamplesPerSec = 48000;
    f.Format.wBitsPerSample = static_cast<WORD>(8 * bps);
    f.Format.nBlockAlign = static_cast<WORD>(2 * bps);
    f.Format.nAvgBytesPerSec = 96000 * bps;
    f.Format.cbSize = sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX);
    f.Samples.wValidBitsPerSample = static_cast<WORD>(8 * bps);
    f.dwChannelMask = SPEAKER_FRONT_LEFT | SPEAKER_FRONT_RIGHT;
    static const GUID kFloat = {0x00000003, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};
    static const GUID kPcm = {0x00000001, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};
    f.SubFormat = format == AudioFormat::float32 ? kFloat : kPcm;
    ResetEvent(stop_);
    const MMRESULT r = waveOutOpen(&wave_, WAVE_MAPPER, &f.Format, reinterpret_cast<DWORD_PTR>(event_), 0, CALLBACK_EVENT);
    if (r != MMSYSERR_NOERROR) {
      wave_ = nullptr;
      error_ = static_cast<int>(r);
      return false;
    }
    headers_.assign(buffers, WAVEHDR{});
    prepared_.assign(buffers, false);
    storage_.assign(buffers, std::vector<char>(static_cast<std::size_t>(frames) * 2 * bps));
    error_ = 0;
    return true;
  }
  void pause() override { waveOutPause(wave_); }
  bool restart() override {
    const MMRESULT r = waveOutRestart(wave_);
    if (r != MMSYSERR_NOERROR) error_ = static_cast<int>(r);
    return r == MMSYSERR_NOERROR;
  }
  bool write(unsigned index, const void* data, std::size_t bytes) override {
    WAVEHDR& h = headers_[index];
    std::memcpy(storage_[index].data(), data, bytes);
    if (!prepared_[index]) {
      h.lpData = storage_[index].data();
      h.dwBufferLength = static_cast<DWORD>(bytes);
      const MMRESULT r = waveOutPrepareHeader(wave_, &h, sizeof h);
      if (r != MMSYSERR_NOERROR) {
        error_ = static_cast<int>(r);
        return false;
      }
      prepared_[index] = true;
    }
    h.dwFlags &= ~static_cast<DWORD>(WHDR_DONE);
    const MMRESULT r = waveOutWrite(wave_, &h, sizeof h);
    if (r != MMSYSERR_NOERROR) {
      error_ = static_cast<int>(r);
      return false;
    }
    return true;
  }
  bool done(unsigned index) override { return !prepared_[index] || (headers_[index].dwFlags & WHDR_DONE) != 0; }
  void wait(unsigned ms) override {
    HANDLE both[2] = {event_, stop_};
    WaitForMultipleObjects(2, both, FALSE, ms);
    ResetEvent(event_);
  }
  void wake() override { SetEvent(stop_); }
  void reset() override {
    if (wave_) waveOutReset(wave_);
  }
  void close() override {
    if (!wave_) return;
    waveOutReset(wave_);
    for (std::size_t i = 0; i < headers_.size(); ++i)
      if (prepared_[i]) waveOutUnprepareHeader(wave_, &headers_[i], sizeof headers_[i]);
    prepared_.assign(prepared_.size(), false);
    waveOutClose(wave_);
    wave_ = nullptr;
    ResetEvent(stop_);
  }
  int error_code() const override { return error_; }

  bool enter_audio_thread() override {
    timeBeginPeriod(1);
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
    avrt_ = LoadLibraryW(L"avrt.dll");
    if (!avrt_) return false;
    auto set = reinterpret_cast<AvSetFn>(reinterpret_cast<void*>(GetProcAddress(avrt_, "AvSetMmThreadCharacteristicsW")));
    revert_ = reinterpret_cast<AvRevertFn>(reinterpret_cast<void*>(GetProcAddress(avrt_, "AvRevertMmThreadCharacteristics")));
    if (!set || !revert_) {
      FreeLibrary(avrt_);
      avrt_ = nullptr;
      return false;
    }
    DWORD index = 0;
    task_ = set(L"Pro Audio", &index);
    return task_ != nullptr;
  }
  void leave_audio_thread() override {
    if (task_ && revert_) revert_(task_);
    task_ = nullptr;
    if (avrt_) FreeLibrary(avrt_);
    avrt_ = nullptr;
    timeEndPeriod(1);
  }

 private:
  HWAVEOUT wave_ = nullptr;
  HANDLE event_ = nullptr, stop_ = nullptr;
  std::vector<WAVEHDR> headers_;
  std::vector<bool> prepared_;
  std::vector<std::vector<char>> storage_;
  int error_ = 0;
  HMODULE avrt_ = nullptr;
  AvRevertFn revert_ = nullptr;
  HANDLE task_ = nullptr;
};

}  // namespace

AudioDevice* make_waveout_audio() {
  // No output device at all: the engine reports none.
  if (waveOutGetNumDevs() == 0) return nullptr;
  return new WaveOutAudio();
}

}  // namespace host
