// Confinement of every BASIC file operation to one directory tree, for the
// fuzz targets: random programs may name any path, and KILL "/*" must not
// reach the machine's files. Linux only; nothing in the product calls it.
#pragma once
#include <string>

namespace host {

// From now on, file names that resolve outside `dir` (after "." and ".."
// are folded) behave as missing files. False when dir does not exist.
bool confine_files(const std::string& dir);

}  // namespace host
