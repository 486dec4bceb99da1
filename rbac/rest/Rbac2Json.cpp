#include "rbac/rest/Rbac2Json.h"

#include "rbac/namespace/NamespaceText.h"

#include <platform/Logger.h>
#include <rbac/EC_exception.h>

#include <cstdarg>
#include <cstdlib>
#include <new>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr int JSON_INVALID = 7610;

boost::shared_ptr<json_t> owned(json_t* value) {
    return {value, json_decref};
}

/// The value, unless there was no memory for it.
boost::shared_ptr<json_t> made(json_t* value) {
    boost::shared_ptr<json_t> handle = owned(value);
    if (!handle) {
        // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): see the header
        throw new std::bad_alloc;
    }
    return handle;
}

}  // namespace

boost::shared_ptr<char> json_dumps_shared(const boost::shared_ptr<json_t>& doc) {
    boost::shared_ptr<char> text(json_dumps(doc.get(), JSON_TEXT_FLAGS), free);
    if (!text) {
        throw std::bad_alloc();
    }
    return text;
}

boost::shared_ptr<json_t> json_loads_shared(const std::string& text) {
    json_error_t error;
    boost::shared_ptr<json_t> document = owned(json_loads(text.c_str(), 0, &error));
    if (!document) {
        logmsgf(16, "json_loads_shared", "Error parsing JSON: %s", error.text);
        throw EC_exception(JSON_INVALID);
    }
    return document;
}

boost::shared_ptr<json_t> json_pack_shared(const char* format, ...) {
    json_error_t error;
    va_list arguments;
    va_start(arguments, format);
    json_t* const packed = json_vpack_ex(&error, 0, format, arguments);
    va_end(arguments);
    boost::shared_ptr<json_t> document = owned(packed);
    if (!document) {
        logmsgf(16, "json_pack_shared", "Error generating JSON: %s", error.text);
        throw std::bad_alloc();
    }
    return document;
}

boost::shared_ptr<json_t> json_array_shared() {
    return made(json_array());
}

boost::shared_ptr<json_t> json_object_shared() {
    return json_array_shared();
}

boost::shared_ptr<json_t> json_string_shared(const std::string& s) {
    return made(json_stringn(s.data(), s.size()));
}

boost::shared_ptr<json_t> json_namespace_shared(const ObjectNamespace& ns) {
    return json_string_shared(NamespaceText::of(ns));
}

boost::shared_ptr<json_t> json_namespaces_shared(const std::list<ObjectNamespace>& list) {
    boost::shared_ptr<json_t> array = json_array_shared();
    for (const ObjectNamespace& ns : list) {
        json_array_append_new(array.get(), json_incref(json_namespace_shared(ns).get()));
    }
    return array;
}

}  // namespace Tesmor::Arkwell::Rbac
