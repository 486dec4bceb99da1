#include "sandbox/JsonText.h"

#include <cstdlib>
#include <memory>
#include <new>

namespace Tesmor::Arkwell::Sandbox::json {

JsonPointer required(json_t* value) {
    if (value == nullptr) {
        throw std::bad_alloc();
    }
    return JsonPointer(value);
}

std::string dump(const JsonPointer& document, std::size_t flags) {
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(document.get(), flags), std::free);
    if (!text) {
        throw std::bad_alloc();
    }
    return text.get();
}

}  // namespace Tesmor::Arkwell::Sandbox::json
