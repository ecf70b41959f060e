// The tools' hooks into the executor and the line editor.
#include "tools/tools.h"

namespace tools {

void install_debugger();

void install_hooks() { install_debugger(); }

}  // namespace tools
