#pragma once

#include "sandbox/JsonText.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Tools {

class JsonObject;

/// A JSON array that is put together element by element.
class JsonList {
public:
    JsonList();

    void add(std::string_view text);
    void add(int number);
    void add(JsonObject object);

private:
    friend class JsonObject;

    void append(Sandbox::JsonPointer value);

    Sandbox::JsonPointer list_;
};

/// A JSON object that is put together member by member. Texts may hold any bytes: they are taken as printable() shows
/// them.
class JsonObject {
public:
    JsonObject();

    JsonObject& set(const char* key, std::string_view text);
    JsonObject& set(const char* key, const std::string& text) { return set(key, std::string_view(text)); }
    JsonObject& set(const char* key, const char* text) { return set(key, std::string_view(text)); }
    JsonObject& set(const char* key, bool value);
    JsonObject& set(const char* key, int value);
    JsonObject& set(const char* key, std::uint64_t value);
    JsonObject& set(const char* key, double value);
    JsonObject& set(const char* key, JsonObject object);
    JsonObject& set(const char* key, JsonList list);

    template <class Element>
    JsonObject& set(const char* key, const std::vector<Element>& elements) {
        JsonList list;
        for (const Element& element : elements) {
            list.add(element);
        }
        return set(key, std::move(list));
    }

    /// Prints it on a line of its own.
    void print(std::ostream& out) const;

private:
    friend class JsonList;

    JsonObject& put(const char* key, Sandbox::JsonPointer value);

    Sandbox::JsonPointer object_;
};

}  // namespace Tesmor::Arkwell::Tools
