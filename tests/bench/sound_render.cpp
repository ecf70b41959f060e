// Render cost of the synthesizer: loads a bank (TAMBRIL_GM_BANK or the one
// beside the executable), fills all 256 voices with sustained notes and
// renders a minute of audio as fast as it goes, then prints the render time
// as a share of one core (the time the audio would take to play).
//
//   build/tambril_soundbench [seconds] [program]
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "sound/bank.h"
#include "sound/engine.h"

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  const int program = argc > 2 ? std::atoi(argv[2]) : 48;  // String Ensemble 1: looped, sustained
  const sound::Bank* bank = sound::preload_bank(0);
  if (!bank) {
    std::fprintf(stderr, "no bank: %s (%s)\n", sound::bank_error().c_str(), sound::bank_path().c_str());
    return 1;
  }
  std::printf("bank %s loaded in %.0f ms (%s)\n", bank->form.c_str(), bank->load_ms, bank->mode.c_str());
  sound::use_device_for_tests(nullptr);  // the engine stopped: commands apply at once
  for (int ch = 0; ch < sound::kChannels; ++ch) {
    sound::Command c;
    c.kind = sound::kCmdInstrument;
    c.channel = static_cast<std::uint8_t>(ch);
    c.value = program;
    (void)sound::post(c);
  }
  // Notes until every voice is busy (a note may take one zone or several).
  for (int i = 0; sound::active_voices() < sound::kMaxVoices && i < 4096; ++i) {
    sound::Command c;
    c.kind = sound::kCmdNoteOn;
    c.channel = static_cast<std::uint8_t>(i % sound::kChannels);
    c.note = static_cast<std::uint8_t>(36 + (i * 7) % 60);
    c.velocity = 100;
    (void)sound::post(c);
    std::vector<double> warm(2 * 128);
    sound::render(warm.data(), 128);
  }
  std::printf("voices: %d\n", sound::active_voices());
  std::vector<double> buf(2 * sound::kBufferFrames);
  const long buffers = static_cast<long>(seconds) * sound::kRate / sound::kBufferFrames;
  int least = sound::kMaxVoices;
  const auto t0 = std::chrono::steady_clock::now();
  // Processor time as well as wall time: on a shared machine the thread may
  // wait for a processor, which is not the render's cost.
  const std::clock_t c0 = std::clock();
  for (long b = 0; b < buffers; ++b) {
    sound::render(buf.data(), sound::kBufferFrames);
    const int v = sound::active_voices();
    least = v < least ? v : least;
  }
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const double cpu = static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC;
  const double audio = static_cast<double>(buffers) * sound::kBufferFrames / sound::kRate;
  std::printf("rendered %.1f s of audio with at least %d voices in %.2f s (%.2f s of processor time): "
              "%.1f%% of one core (%.1f%% by wall time)\n",
              audio, least, took, cpu, 100.0 * cpu / audio, 100.0 * took / audio);
  return 0;
}
