// Shared libraries opened on first use.
//
// Most sessions never open a window's audio device, fetch a URL or decode an
// Opus bank, yet linking libSDL2, libcurl and libopus directly makes every
// start map and relocate some eighty libraries: that was most of the time to
// "Ready." and to a standalone program's first line. Their functions are
// defined here instead as forwarders that open the library the first time one
// is called. A library that is not installed behaves like a device or service
// that is absent: the forwarder returns the caller's failure value.
#pragma once

#include <dlfcn.h>

#include <mutex>

namespace host {

class LazyLibrary {
 public:
  // The runtime package's soname, and another name to try when it is absent.
  constexpr LazyLibrary(const char* name, const char* other = nullptr) : names_{name, other} {}

  void* symbol(const char* name) {
    std::call_once(once_, [this] {
      for (const char* n : names_)
        if (n && (handle_ = dlopen(n, RTLD_NOW | RTLD_LOCAL)) != nullptr) break;
    });
    return handle_ ? dlsym(handle_, name) : nullptr;
  }

 private:
  const char* names_[2];
  std::once_flag once_;
  void* handle_ = nullptr;
};

}  // namespace host

// Defines `name` with C linkage, forwarding to the same function of `lib`;
// when the library or the function is missing it returns `fail` (a value of
// the return type, or void() for a void function).
#define TAMBRIL_LAZY_FORWARD(lib, ret, name, params, args, fail) \
  extern "C" ret name params {                                   \
    using Fn = ret(*) params;                                    \
    static const Fn fn = reinterpret_cast<Fn>((lib).symbol(#name)); \
    if (!fn) return fail;                                        \
    return fn args;                                              \
  }
