// Any bytes as a namespace's text and as a component of one: what is read must be written so that it reads back the
// same.

#include "FuzzHost.h"
#include "rbac/namespace/NamespaceText.h"

#include <rbac/ObjectNamespace.h>

#include <boost/lexical_cast.hpp>
#include <boost/optional.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

using Tesmor::Arkwell::Rbac::NamespaceText;
using Tesmor::Arkwell::Rbac::ObjectNamespace;

namespace {

boost::optional<ObjectNamespace> cast(const std::string& text) {
    try {
        return boost::lexical_cast<ObjectNamespace>(text);
    } catch (const boost::bad_lexical_cast&) {
        return boost::none;
    }
}

boost::optional<ObjectNamespace> parse(const char* text) {
    try {
        return NamespaceText::parse(text);
    } catch (const boost::bad_lexical_cast&) {
        return boost::none;
    }
}

void lookUp(const ObjectNamespace& ns) {
    const boost::optional<ObjectNamespace> parent = ns.parentNamespace();
    require(parent.has_value() != ns.is_root());
    if (parent) {
        require(parent->is_ancestor_of(ns) && *parent < ns && !ns.is_ancestor_of(*parent));
    }
}

void readText(const std::string& text) {
    const boost::optional<ObjectNamespace> read = cast(text);
    if (text.find('\0') == std::string::npos) {
        require(parse(text.c_str()) == read);
    }
    if (read) {
        require(cast(read->str()) == read && NamespaceText::of(*read) == read->str());
        lookUp(*read);
    }
}

void writeComponent(const std::string& component) {
    const ObjectNamespace ns = ObjectNamespace("A") | component;
    std::string text;
    require(namespaceToString(ns, text) == 0);
    require(text.find_first_of(std::string("\0\r\n\\/ ", 6)) == std::string::npos);
    require(cast(text) == ns && parse(text.c_str()) == ns);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    readText(text);
    writeComponent(text);
    return 0;
}
