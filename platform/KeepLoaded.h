#pragma once

#include <dlfcn.h>

namespace platform_detail {

/// Keeps the library that the function or variable is in loaded until the process ends.
inline void keepLoaded(const void* address) {
    Dl_info library{};
    if (dladdr(address, &library) != 0) {
        dlopen(library.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

}  // namespace platform_detail
