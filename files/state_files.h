// Shared by the persistence statements.
#pragma once
#include <string>

namespace files {

// Write bytes under `name` so that a crash leaves the old file or the new
// one: a temporary beside it, forced to disk, renamed over. Raises on failure.
bool write_durably(const std::string& name, const std::string& bytes);
// SESSIONLOCK's locks end with the program (END, RUN, NEW, CLEAR, LOAD) or the process.
void release_session_locks();

}  // namespace files
