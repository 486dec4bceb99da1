#include "tools/JsonObject.h"

#include "tools/Terminal.h"

#include <new>
#include <ostream>

namespace Tesmor::Arkwell::Tools {

using Sandbox::JsonPointer;
using Sandbox::json::required;

namespace {

JsonPointer textValue(std::string_view text) {
    const std::string shown = printable(text);
    return required(json_stringn(shown.data(), shown.size()));
}

}  // namespace

JsonList::JsonList() : list_(required(json_array())) {}

void JsonList::add(std::string_view text) {
    append(textValue(text));
}

void JsonList::add(int number) {
    append(required(json_integer(number)));
}

void JsonList::add(JsonObject object) {
    append(std::move(object.object_));
}

void JsonList::append(JsonPointer value) {
    if (json_array_append_new(list_.get(), value.release()) != 0) {
        throw std::bad_alloc();
    }
}

JsonObject::JsonObject() : object_(required(json_object())) {}

JsonObject& JsonObject::set(const char* key, std::string_view text) {
    return put(key, textValue(text));
}

JsonObject& JsonObject::set(const char* key, bool value) {
    return put(key, required(json_boolean(value)));
}

JsonObject& JsonObject::set(const char* key, int value) {
    return put(key, required(json_integer(value)));
}

JsonObject& JsonObject::set(const char* key, std::uint64_t value) {
    return put(key, required(json_integer(static_cast<json_int_t>(value))));
}

JsonObject& JsonObject::set(const char* key, double value) {
    return put(key, required(json_real(value)));
}

JsonObject& JsonObject::set(const char* key, JsonObject object) {
    return put(key, std::move(object.object_));
}

JsonObject& JsonObject::set(const char* key, JsonList list) {
    return put(key, std::move(list.list_));
}

JsonObject& JsonObject::put(const char* key, JsonPointer value) {
    if (json_object_set_new(object_.get(), key, value.release()) != 0) {
        throw std::bad_alloc();
    }
    return *this;
}

void JsonObject::print(std::ostream& out) const {
    out << Sandbox::json::dump(object_) << "\n";
}

}  // namespace Tesmor::Arkwell::Tools
