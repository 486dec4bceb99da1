#pragma once

#include "sandbox/JsonText.h"

#include <rbac/ObjectNamespace.h>

#include <boost/optional.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

// Making documents. Every function throws std::bad_alloc where memory runs out or, for pack(), where the format does
// not suit its arguments, and std::invalid_argument for a text that is not UTF-8, which string() names.
namespace json {

JsonPointer array();
JsonPointer string(std::string_view text);
/// As json_pack().
JsonPointer pack(const char* format, ...);
/// Appends the value, whose reference it takes over.
void append(const JsonPointer& list, JsonPointer value);
/// Sets a member of the object to the value, whose reference it takes over.
void set(const JsonPointer& object, const char* key, JsonPointer value);

}  // namespace json

/// A value in a document that somebody sent, and where it stands in it. Valid for as long as the document lives.
///
/// What is not as it has to be is a ServiceError of the kind DOCUMENT_MALFORMED whose detail names the place, such as
/// "data.attributes.name must be a string".
class DocumentValue {
public:
    DocumentValue(const json_t* value, std::string place) : value_(value), place_(std::move(place)) {}

    /// The member of an object.
    DocumentValue member(const char* key) const;
    /// The same, or none where it is absent or null.
    boost::optional<DocumentValue> optionalMember(const char* key) const;
    /// The elements of an array.
    std::vector<DocumentValue> elements() const;
    /// That it is an object without other members than these.
    void requireOnly(const std::vector<std::string>& keys) const;
    /// That the member "type" is this text.
    void requireType(const char* type) const;

    std::string text() const;
    bool boolean() const;
    bool isNumber() const { return json_is_integer(value_); }
    /// An integer, or a text that spells one in decimal: at least `smallest`, of 32 bits.
    std::int32_t number(std::int32_t smallest = 0) const;
    /// @throws ServiceError of the kind NAMESPACE_MALFORMED for a text that is none.
    Rbac::ObjectNamespace objectName() const;

    [[noreturn]] void refuse(const std::string& why) const;

private:
    const json_t* value_;  // borrowed
    std::string place_;
};

/// A whole document.
class Document {
public:
    /// @throws ServiceError of the kind DOCUMENT_MALFORMED, saying where the text stops being JSON.
    explicit Document(const std::string& text);

    DocumentValue root() const { return {value_.get(), ""}; }

private:
    JsonPointer value_;
};

/// The namespace with this text form.
///
/// @throws ServiceError of the kind NAMESPACE_MALFORMED.
Rbac::ObjectNamespace parseNamespace(const std::string& text);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
