// The libopusfile functions LOADWAV uses for Ogg Opus files, opened on first
// use (see host/posix/lazy_library.h). Without the library, opening a file
// fails with OP_EFAULT and LOADWAV reports the file as unreadable.
#include <opusfile.h>

#include "host/posix/lazy_library.h"

namespace {
host::LazyLibrary opusfile("libopusfile.so.0");

OggOpusFile* no_library(int* error) {
  if (error) *error = OP_EFAULT;
  return nullptr;
}
}  // namespace

#define OPUSFILE_FORWARD(ret, name, params, args, fail) \
  TAMBRIL_LAZY_FORWARD(opusfile, ret, name, params, args, fail)

OPUSFILE_FORWARD(OggOpusFile*, op_open_memory, (const unsigned char* data, size_t size, int* error),
                 (data, size, error), no_library(error))
OPUSFILE_FORWARD(void, op_free, (OggOpusFile * of), (of), void())
OPUSFILE_FORWARD(int, op_link_count, (const OggOpusFile* of), (of), 0)
OPUSFILE_FORWARD(int, op_channel_count, (const OggOpusFile* of, int li), (of, li), 0)
OPUSFILE_FORWARD(ogg_int64_t, op_pcm_total, (const OggOpusFile* of, int li), (of, li), OP_EFAULT)
OPUSFILE_FORWARD(int, op_read_float, (OggOpusFile * of, float* pcm, int buf_size, int* li), (of, pcm, buf_size, li),
                 OP_EFAULT)
