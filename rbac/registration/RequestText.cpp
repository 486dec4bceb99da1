#include "rbac/registration/RequestText.h"

#include "rbac/rest/Rbac2Json.h"

#include <new>
#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

/// A text that grows until there is no memory. That is remembered, because jansson goes on where a key is not taken.
struct Growing {
    std::string& text;
    bool hasFailed = false;
};

int append(const char* piece, std::size_t size, void* to) {
    Growing& growing = *static_cast<Growing*>(to);
    try {
        growing.text.append(piece, size);
        return 0;
    } catch (const std::bad_alloc&) {
        growing.hasFailed = true;
        return -1;
    }
}

}  // namespace

RequestText::RequestText(const boost::shared_ptr<json_t>& envelope) : text_(json_dumps_shared(envelope).get()) {
    const std::size_t inside = text_.find("[]") + 1;
    tail_ = text_.substr(inside);
    text_.resize(inside);
}

void RequestText::add(const boost::shared_ptr<json_t>& element) {
    if (text_.back() != '[') {
        text_ += ',';
    }
    Growing growing{text_};
    if (json_dump_callback(element.get(), append, &growing, JSON_TEXT_FLAGS) != 0 || growing.hasFailed) {
        throw std::bad_alloc();
    }
}

std::string RequestText::take() {
    text_ += tail_;
    return std::move(text_);
}

}  // namespace Tesmor::Arkwell::Rbac
