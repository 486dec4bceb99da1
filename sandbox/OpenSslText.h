#pragma once

#include "jwt/OpenSslHandles.h"

#include <stdexcept>
#include <string>

namespace Tesmor::Arkwell::Sandbox {

/// @param action what was attempted, as in "make a key".
/// @throws std::runtime_error where it did not succeed.
inline void requireOpenSsl(bool succeeded, const char* action) {
    if (!succeeded) {
        throw std::runtime_error(std::string("OpenSSL cannot ") + action);
    }
}

/// The text that `write` writes to a BIO; 1 is its success.
///
/// @throws std::runtime_error
template <class Write>
std::string textOf(const char* action, const Write& write) {
    const BioPointer memory(BIO_new(BIO_s_mem()));
    requireOpenSsl(memory != nullptr && write(memory.get()) == 1, action);
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

}  // namespace Tesmor::Arkwell::Sandbox
