#include "sandbox/Json.h"

#include "sandbox/ServiceError.h"

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cstdarg>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace json {

JsonPointer array() {
    return required(json_array());
}

JsonPointer string(std::string_view text) {
    JsonPointer made(json_stringn(text.data(), text.size()));
    if (!made) {
        throw std::invalid_argument("not UTF-8: " + std::string(text));
    }
    return made;
}

JsonPointer pack(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    json_error_t error;
    json_t* const value = json_vpack_ex(&error, 0, format, arguments);
    va_end(arguments);
    if (value == nullptr && json_error_code(&error) == json_error_invalid_utf8) {
        throw std::invalid_argument("a text that is not UTF-8");
    }
    return required(value);
}

void append(const JsonPointer& list, JsonPointer value) {
    if (json_array_append_new(list.get(), value.release()) != 0) {
        throw std::bad_alloc();
    }
}

void set(const JsonPointer& object, const char* key, JsonPointer value) {
    if (json_object_set_new(object.get(), key, value.release()) != 0) {
        throw std::bad_alloc();
    }
}

}  // namespace json

DocumentValue DocumentValue::member(const char* key) const {
    if (!json_is_object(value_)) {
        refuse("must be an object");
    }
    const std::string place = (place_.empty() ? "" : place_ + ".") + key;
    DocumentValue found(json_object_get(value_, key), place);
    if (found.value_ == nullptr) {
        found.refuse("is missing");
    }
    return found;
}

boost::optional<DocumentValue> DocumentValue::optionalMember(const char* key) const {
    if (!json_is_object(value_)) {
        refuse("must be an object");
    }
    const json_t* const found = json_object_get(value_, key);
    if (found == nullptr || json_is_null(found)) {
        return boost::none;
    }
    return DocumentValue(found, (place_.empty() ? "" : place_ + ".") + key);
}

std::vector<DocumentValue> DocumentValue::elements() const {
    if (!json_is_array(value_)) {
        refuse("must be an array");
    }
    std::vector<DocumentValue> found;
    found.reserve(json_array_size(value_));
    for (std::size_t i = 0; i < json_array_size(value_); ++i) {
        found.emplace_back(json_array_get(value_, i), place_ + "[" + std::to_string(i) + "]");
    }
    return found;
}

void DocumentValue::requireOnly(const std::vector<std::string>& keys) const {
    if (!json_is_object(value_)) {
        refuse("must be an object");
    }
    // jansson iterates over objects that may be changed; nothing is changed here.
    auto* const object = const_cast<json_t*>(value_);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
    for (void* i = json_object_iter(object); i != nullptr; i = json_object_iter_next(object, i)) {
        const std::string key = json_object_iter_key(i);
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
            refuse("has a member \"" + key + "\" that is not known");
        }
    }
}

void DocumentValue::requireType(const char* type) const {
    const DocumentValue found = member("type");
    if (found.text() != type) {
        found.refuse(std::string("must be \"") + type + "\"");
    }
}

std::string DocumentValue::text() const {
    if (!json_is_string(value_)) {
        refuse("must be a string");
    }
    return {json_string_value(value_), json_string_length(value_)};
}

bool DocumentValue::boolean() const {
    if (!json_is_boolean(value_)) {
        refuse("must be true or false");
    }
    return json_is_true(value_);
}

std::int32_t DocumentValue::number(std::int32_t smallest) const {
    constexpr auto LARGEST = std::numeric_limits<std::int32_t>::max();
    if (isNumber() && json_integer_value(value_) >= smallest && json_integer_value(value_) <= LARGEST) {
        return static_cast<std::int32_t>(json_integer_value(value_));
    }
    std::int32_t number = 0;
    if (!json_is_string(value_) || !boost::conversion::try_lexical_convert(text(), number) || number < smallest) {
        refuse("must be an integer of " + std::to_string(smallest) + " to " + std::to_string(LARGEST));
    }
    return number;
}

Rbac::ObjectNamespace DocumentValue::objectName() const {
    const std::string name = text();
    try {
        return parseNamespace(name);
    } catch (const ServiceError& error) {
        throw ServiceError(error.kind(), place_ + " must be a namespace: " + name);
    }
}

void DocumentValue::refuse(const std::string& why) const {
    throw ServiceError(error_kinds::DOCUMENT_MALFORMED, (place_.empty() ? "the document" : place_) + " " + why);
}

Document::Document(const std::string& text) {
    json_error_t error;
    value_.reset(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &error));
    if (!value_) {
        throw ServiceError(error_kinds::DOCUMENT_MALFORMED, "line " + std::to_string(error.line) + ", column " +
                                                                std::to_string(error.column) + ": " + error.text);
    }
}

Rbac::ObjectNamespace parseNamespace(const std::string& text) {
    try {
        return boost::lexical_cast<Rbac::ObjectNamespace>(text);
    } catch (const boost::bad_lexical_cast&) {
        throw ServiceError(error_kinds::NAMESPACE_MALFORMED, text);
    }
}

}  // namespace Tesmor::Arkwell::Sandbox
