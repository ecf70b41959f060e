// Reverb, chorus and echo for the MIDI parts' sends. The reverb's comb and
// all-pass lengths are the classic Schroeder-Moorer set rescaled to 48 kHz,
// the right side 23 samples longer so that the two sides decorrelate.
#include "sound/midi_fx.h"

#include "sound/voice.h"

namespace sound {

namespace {

constexpr unsigned kCombLengths[8] = {1214, 1293, 1390, 1476, 1548, 1623, 1695, 1760};
constexpr unsigned kAllpassLengths[4] = {605, 480, 371, 245};
constexpr double kCombFeedback = 0.84;
constexpr double kCombDamp = 0.2;
constexpr double kReverbInput = 0.015;
constexpr double kReverbWet = 3.0;

constexpr unsigned kChorusFrames = 2400;  // 50 ms of line
constexpr double kChorusBase = 0.012 * kRate, kChorusDepth = 0.004 * kRate, kChorusRate = 0.6 / kRate;

constexpr unsigned kEchoFrames = 18000;  // 375 ms: a dotted eighth at 120 bpm
constexpr double kEchoFeedback = 0.35;

}  // namespace

Reverb::Reverb() {
  for (int s = 0; s < 2; ++s) {
    for (int i = 0; i < 8; ++i) comb_[s][i].buf.assign(kCombLengths[i] + 23 * s, 0.0);
    for (int i = 0; i < 4; ++i) all_[s][i].buf.assign(kAllpassLengths[i] + 23 * s, 0.0);
  }
}

void Reverb::clear() {
  for (int s = 0; s < 2; ++s) {
    for (Comb& c : comb_[s]) c.buf.assign(c.buf.size(), 0.0), c.store = 0;
    for (Allpass& a : all_[s]) a.buf.assign(a.buf.size(), 0.0);
  }
}

void Reverb::process(const double* in, double* out, unsigned n) {
  for (unsigned i = 0; i < n; ++i) {
    const double x = (in[2 * i] + in[2 * i + 1]) * kReverbInput;
    for (int s = 0; s < 2; ++s) {
      double y = 0;
      for (Comb& c : comb_[s]) {
        const double o = c.buf[c.at];
        c.store = o * (1 - kCombDamp) + c.store * kCombDamp;
        c.buf[c.at] = x + c.store * kCombFeedback;
        if (++c.at == c.buf.size()) c.at = 0;
        y += o;
      }
      for (Allpass& a : all_[s]) {
        const double b = a.buf[a.at];
        a.buf[a.at] = y + b * 0.5;
        y = b - y;
        if (++a.at == a.buf.size()) a.at = 0;
      }
      out[2 * i + s] += y * kReverbWet;
    }
  }
}

Chorus::Chorus() {
  for (auto& b : buf_) b.assign(kChorusFrames, 0.0);
}

void Chorus::clear() {
  for (auto& b : buf_) b.assign(kChorusFrames, 0.0);
  phase_ = 0;
}

void Chorus::process(const double* in, double* out, unsigned n) {
  for (unsigned i = 0; i < n; ++i) {
    for (int s = 0; s < 2; ++s) buf_[s][at_] = in[2 * i + s];
    for (int s = 0; s < 2; ++s) {
      // The sides' modulations are a quarter cycle apart.
      const double d = kChorusBase + kChorusDepth * sine(phase_ + 0.25 * s);
      double pos = static_cast<double>(at_) - d;
      if (pos < 0) pos += kChorusFrames;
      const unsigned k = static_cast<unsigned>(pos);
      const double f = pos - k;
      const unsigned k1 = k + 1 == kChorusFrames ? 0 : k + 1;
      out[2 * i + s] += buf_[s][k] + (buf_[s][k1] - buf_[s][k]) * f;
    }
    phase_ += kChorusRate;
    if (phase_ >= 1) phase_ -= 1;
    if (++at_ == kChorusFrames) at_ = 0;
  }
}

Echo::Echo() {
  for (auto& b : buf_) b.assign(kEchoFrames, 0.0);
}

void Echo::clear() {
  for (auto& b : buf_) b.assign(kEchoFrames, 0.0);
}

void Echo::process(const double* in, double* out, unsigned n) {
  for (unsigned i = 0; i < n; ++i) {
    const double l = buf_[0][at_], r = buf_[1][at_];
    // Ping-pong: each side's repeat feeds the other.
    buf_[0][at_] = in[2 * i] + r * kEchoFeedback;
    buf_[1][at_] = in[2 * i + 1] + l * kEchoFeedback;
    out[2 * i] += l;
    out[2 * i + 1] += r;
    if (++at_ == kEchoFrames) at_ = 0;
  }
}

}  // namespace sound
