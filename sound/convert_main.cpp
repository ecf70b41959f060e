// tambril_bankconv: a SoundFont 2 file to TAMBRIL_GM.QZGM in the raw,
// lossless or Opus form.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sound/bank_writer.h"
#include "sound/sf2.h"

namespace {

const char* const kUsage =
    "Usage: tambril_bankconv [--form raw|lossless|opus] [--block BYTES] [--bitrate BPS] input.sf2 output.qzgm\n";

bool read_all(const char* path, std::vector<std::uint8_t>* out) {
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  std::uint8_t buf[1 << 16];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out->insert(out->end(), buf, buf + n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  sound::BankForm form = sound::BankForm::opus;
  sound::BankWriteOptions options;
  std::vector<const char*> files;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--form" && i + 1 < argc) {
      const std::string f = argv[++i];
      if (f == "raw") form = sound::BankForm::raw;
      else if (f == "lossless") form = sound::BankForm::lossless;
      else if (f == "opus") form = sound::BankForm::opus;
      else return std::fputs(kUsage, stderr), 2;
    } else if (a == "--block" && i + 1 < argc) {
      options.block_length = static_cast<std::uint32_t>(std::strtoul(argv[++i], nullptr, 10));
    } else if (a == "--bitrate" && i + 1 < argc) {
      options.opus_bitrate = static_cast<int>(std::strtol(argv[++i], nullptr, 10));
    } else if (a.size() > 1 && a[0] == '-') {
      std::fputs(kUsage, stderr);
      return 2;
    } else {
      files.push_back(argv[i]);
    }
  }
  if (files.size() != 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const auto t0 = std::chrono::steady_clock::now();
  std::vector<std::uint8_t> sf2;
  if (!read_all(files[0], &sf2)) {
    std::fprintf(stderr, "tambril_bankconv: cannot read %s\n", files[0]);
    return 1;
  }
  sound::Bank bank;
  std::string error;
  std::vector<std::uint8_t> out;
  if (!sound::sf2_to_bank(sf2.data(), sf2.size(), &bank, &error) || !sound::write_bank(bank, form, options, &out, &error)) {
    std::fprintf(stderr, "tambril_bankconv: %s: %s\n", files[0], error.c_str());
    return 1;
  }
  // Written under a temporary name and renamed, so a stopped build leaves no half bank.
  const std::string tmp = std::string(files[1]) + ".tmp";
  std::FILE* f = std::fopen(tmp.c_str(), "wb");
  if (!f || std::fwrite(out.data(), 1, out.size(), f) != out.size() || std::fclose(f) != 0 ||
      std::rename(tmp.c_str(), files[1]) != 0) {
    std::fprintf(stderr, "tambril_bankconv: cannot write %s\n", files[1]);
    return 1;
  }
  int programs = 0;
  for (int p = 0; p < sound::kPrograms; ++p) programs += bank.has_program(p) ? 1 : 0;
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::printf("%s: %d instruments, %zu zones, %zu samples, %zu PCM bytes -> %zu bytes (%.1f s)\n", files[1], programs,
              bank.zones.size(), bank.samples.size(), bank.pcm.size() * 2, out.size(), secs);
  return 0;
}
