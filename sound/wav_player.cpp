// The WAV channels: start, stop with a fade, pause and resume, live volume
// and pan ramped over 5 ms, looping, and the status words.
#include "sound/wav_player.h"

#include <cmath>

namespace sound {

WavStatus wav_status;

namespace {

struct Chan {
  int state = kWavIdle;
  int slot = -1;
  const WavData* data = nullptr;
  std::uint64_t pos = 0;
  bool loop = false;
  double gl = 0, gr = 0;            // current gains
  double tl = 0, tr = 0;            // their targets
  double step_l = 0, step_r = 0;    // per frame while ramping
  unsigned ramp = 0;                // frames of gain ramp left
  double fade = 1, fade_step = 0;   // fade in or out
  unsigned fade_left = 0;
  int after_fade = kWavPlaying;     // the state once a fade out ends
  std::uint64_t generation = 0;
};

Chan chans[kWavChannels];

void set_target(Chan& c, double l, double r) {
  c.tl = l;
  c.tr = r;
  c.ramp = kWavRampFrames;
  c.step_l = (l - c.gl) / kWavRampFrames;
  c.step_r = (r - c.gr) / kWavRampFrames;
}

void fade_to(Chan& c, double to, int after) {
  c.fade_left = kWavRampFrames;
  c.fade_step = (to - c.fade) / kWavRampFrames;
  c.after_fade = after;
}

void publish(int i) {
  const Chan& c = chans[i];
  wav_status.state[i] = c.state;
  wav_status.slot[i] = c.state == kWavIdle ? -1 : c.slot;
  wav_status.position[i] = c.pos;
  wav_status.generation[i] = c.generation;
}

void render(Chan& c, double* block, unsigned n) {
  const WavData& d = *c.data;
  const float* pcm = d.pcm.data();
  const bool stereo = d.channels == 2;
  for (unsigned i = 0; i < n; ++i) {
    if (c.pos >= d.frames) {
      if (c.loop && d.frames > 0) {
        c.pos = 0;
      } else {
        c.state = kWavIdle;
        return;
      }
    }
    const double l = stereo ? pcm[2 * c.pos] : pcm[c.pos];
    const double r = stereo ? pcm[2 * c.pos + 1] : l;
    if (c.ramp) {
      c.gl += c.step_l;
      c.gr += c.step_r;
      if (--c.ramp == 0) c.gl = c.tl, c.gr = c.tr;
    }
    if (c.fade_left) {
      c.fade += c.fade_step;
      if (--c.fade_left == 0) {
        c.fade = c.fade_step < 0 ? 0 : 1;
        if (c.fade_step < 0) {
          ++c.pos;
          // Faded out: stopped channels free themselves, paused ones hold.
          c.state = c.after_fade;
          if (c.state == kWavStopping) c.state = kWavIdle;
          if (c.state != kWavPlaying) return;
          continue;
        }
      }
    }
    block[2 * i] += l * c.gl * c.fade;
    block[2 * i + 1] += r * c.gr * c.fade;
    ++c.pos;
  }
}

}  // namespace

void wav_gains(int channels, double volume, double pan, double* left, double* right) {
  if (channels == 1) {
    *left = volume * std::sqrt((1 - pan) / 2);
    *right = volume * std::sqrt((1 + pan) / 2);
  } else {
    *left = pan > 0 ? volume * (1 - pan) : volume;
    *right = pan < 0 ? volume * (1 + pan) : volume;
  }
}

void wav_apply(const Command& c) {
  const auto* forget = c.kind == kCmdWavForget ? get_pointer<const WavData>(c) : nullptr;
  for (int i = 0; i < kWavChannels; ++i) {
    Chan& ch = chans[i];
    if (c.kind == kCmdWavForget) {
      if (ch.data == forget) ch = Chan{.generation = ch.generation};
      publish(i);
      continue;
    }
    if (c.channel != 255 && c.channel != i) continue;
    ch.generation = static_cast<std::uint64_t>(c.pressure);
    switch (c.kind) {
      case kCmdWavPlay: {
        const auto* d = get_pointer<const WavData>(c);
        ch = Chan{};
        ch.generation = static_cast<std::uint64_t>(c.pressure);
        ch.state = kWavPlaying;
        ch.slot = static_cast<int>(c.key);
        ch.data = d;
        ch.loop = c.gate != 0;
        wav_gains(d->channels, c.value, c.x, &ch.gl, &ch.gr);
        ch.tl = ch.gl;
        ch.tr = ch.gr;
        break;
      }
      case kCmdWavStop:
        if (ch.state == kWavPaused) ch.state = kWavIdle;
        else if (ch.state == kWavPlaying) ch.state = kWavStopping, fade_to(ch, 0, kWavStopping);
        break;
      case kCmdWavPause:
        if (ch.state == kWavPlaying) {
          ch.state = kWavPaused;
          fade_to(ch, 0, kWavPaused);
        }
        break;
      case kCmdWavResume:
        if (ch.state == kWavPaused) {
          ch.state = kWavPlaying;
          fade_to(ch, 1, kWavPlaying);
        }
        break;
      case kCmdWavCtl:
        if (ch.data) {
          double l, r;
          wav_gains(ch.data->channels, c.value, c.x, &l, &r);
          set_target(ch, l, r);
        }
        break;
      default: break;
    }
    publish(i);
  }
}

void wav_mix(double* block, unsigned n) {
  for (int i = 0; i < kWavChannels; ++i) {
    Chan& c = chans[i];
    if (c.state == kWavIdle) continue;
    // A paused channel still renders while it fades out.
    if (c.state == kWavPaused && c.fade_left == 0) continue;
    render(c, block, n);
    if (c.state == kWavIdle) c.data = nullptr;
    publish(i);
  }
}

}  // namespace sound
