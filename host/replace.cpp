// Whole-file replacement through a temporary file beside the target, built
// on the platform's file calls so that both platforms share the order of
// steps (write, force to the disk, rename over the old name).
#include "host/platform.h"

namespace host {

FileFault write_file_replacing(const std::string& cp437_name, const void* data, std::size_t n, bool* created) {
  *created = false;
  const std::string temp = cp437_name + ".TMP";
  std::FILE* f = open_file(temp, "wb");
  if (!f) return path_kind(cp437_name) == 2 ? FileFault::denied : FileFault::path_not_found;
  *created = true;
  bool ok = n == 0 || std::fwrite(data, 1, n, f) == n;
  ok = sync_file(f) && ok;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    // A full disk or a failing device: the old file was never touched.
    (void)delete_file(temp);
    return FileFault::disk_full;
  }
  const FileFault r = replace_file(temp, cp437_name);
  if (r != FileFault::none) (void)delete_file(temp);
  return r;
}

}  // namespace host
