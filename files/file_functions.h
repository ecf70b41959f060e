// The files subsystem's built-in functions: EOF, LOC, LOF, FILEATTR,
// DRIVETYPE, DRIVEPATH$, FILECRC; and the file side of core's INPUT$.
#pragma once
#include <cstdint>

#include "values/builtins.h"

namespace files {

const values::BuiltinGroup& file_builtins();

// INPUT$(n, #f): the next n bytes of a file open for INPUT, exactly as they
// are ("Input past end" when fewer remain).
bool input_chars(std::int64_t file_number, std::int64_t count, values::Value* out);

}  // namespace files
