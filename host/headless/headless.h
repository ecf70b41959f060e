// The headless front end: console output to stdout, keys from stdin.
#pragma once
#include "host/frontend.h"

namespace host {
Frontend* make_headless_frontend();
}
