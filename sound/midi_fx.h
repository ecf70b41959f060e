// The MIDI parts' effect processors: a reverb (parallel combs into series
// all-passes per side), a stereo chorus (two modulated delay lines) and a
// ping-pong echo. Each takes its send bus and adds its wet output, nothing
// of the dry signal.
#pragma once
#include <vector>

namespace sound {

class Reverb {
 public:
  Reverb();
  // in: interleaved stereo send, out: wet added; n frames.
  void process(const double* in, double* out, unsigned n);
  void clear();

 private:
  struct Comb {
    std::vector<double> buf;
    unsigned at = 0;
    double store = 0;
  };
  struct Allpass {
    std::vector<double> buf;
    unsigned at = 0;
  };
  Comb comb_[2][8];
  Allpass all_[2][4];
};

class Chorus {
 public:
  Chorus();
  void process(const double* in, double* out, unsigned n);
  void clear();

 private:
  std::vector<double> buf_[2];
  unsigned at_ = 0;
  double phase_ = 0;
};

class Echo {
 public:
  Echo();
  void process(const double* in, double* out, unsigned n);
  void clear();

 private:
  std::vector<double> buf_[2];
  unsigned at_ = 0;
};

}  // namespace sound
