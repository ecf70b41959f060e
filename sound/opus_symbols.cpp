// The libopus functions of the Opus bank form, opened on first use (see
// host/posix/lazy_library.h): most sessions never load an Opus bank. Without
// libopus installed, creating a coder fails with OPUS_INTERNAL_ERROR and the
// bank reader reports it.
#include <opus/opus.h>

#include <cstdarg>

#include "host/posix/lazy_library.h"

namespace {
host::LazyLibrary opus("libopus.so.0");

int* no_library(int* error) {
  if (error) *error = OPUS_INTERNAL_ERROR;
  return nullptr;
}
}  // namespace

#define OPUS_FORWARD(ret, name, params, args, fail) TAMBRIL_LAZY_FORWARD(opus, ret, name, params, args, fail)

OPUS_FORWARD(OpusDecoder*, opus_decoder_create, (opus_int32 fs, int channels, int* error), (fs, channels, error),
             reinterpret_cast<OpusDecoder*>(no_library(error)))
OPUS_FORWARD(int, opus_decode,
             (OpusDecoder * st, const unsigned char* data, opus_int32 len, opus_int16* pcm, int frame_size,
              int decode_fec),
             (st, data, len, pcm, frame_size, decode_fec), OPUS_INTERNAL_ERROR)
OPUS_FORWARD(void, opus_decoder_destroy, (OpusDecoder * st), (st), void())
OPUS_FORWARD(OpusEncoder*, opus_encoder_create, (opus_int32 fs, int channels, int application, int* error),
             (fs, channels, application, error), reinterpret_cast<OpusEncoder*>(no_library(error)))
OPUS_FORWARD(opus_int32, opus_encode,
             (OpusEncoder * st, const opus_int16* pcm, int frame_size, unsigned char* data, opus_int32 max_data_bytes),
             (st, pcm, frame_size, data, max_data_bytes), OPUS_INTERNAL_ERROR)
OPUS_FORWARD(void, opus_encoder_destroy, (OpusEncoder * st), (st), void())

// The requests with an odd number read a value back through a pointer; the
// even ones set a 32-bit value.
extern "C" int opus_encoder_ctl(OpusEncoder* st, int request, ...) {
  using Fn = int (*)(OpusEncoder*, int, ...);
  static const Fn fn = reinterpret_cast<Fn>(opus.symbol("opus_encoder_ctl"));
  if (!fn) return OPUS_INTERNAL_ERROR;
  std::va_list ap;
  va_start(ap, request);
  const int result = request % 2 ? fn(st, request, va_arg(ap, void*)) : fn(st, request, va_arg(ap, opus_int32));
  va_end(ap);
  return result;
}
