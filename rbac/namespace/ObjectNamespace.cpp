#include "rbac/namespace/NamespaceText.h"

#include <platform/Text.h>
#include <rbac/EC_exception.h>
#include <rbac/ObjectNamespace.h>

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <istream>
#include <iterator>
#include <ostream>
#include <typeinfo>
#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr char BAR = '|';
constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
constexpr char CONVERSION_FAILED[] = "[conversion failed]";
constexpr int STATUS_NO_TEXT = 114;

bool standsForItself(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return std::isalnum(byte) != 0 || byte == '-' || byte == '*' || byte == '_' || byte == '.';
}

void appendEncoded(std::string& out, char c) {
    if (standsForItself(c)) {
        out += c;
        return;
    }
    if (c == ' ') {
        out += '+';
        return;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += '%';
    out += HEX_DIGITS[byte >> 4];
    out += HEX_DIGITS[byte & 0x0F];
}

template <class... Components>
std::list<std::string> listOf(const Components&... components) {
    std::list<std::string> list;
    (list.push_back(components), ...);
    return list;
}

std::size_t leastTextSize(const std::list<std::string>& components) {
    std::size_t size = 1;
    for (const std::string& component : components) {
        size += component.size() + 1;
    }
    return size;
}

}  // namespace

ObjectNamespace::ObjectNamespace() = default;

ObjectNamespace::ObjectNamespace(const std::string& c1) : components_(listOf(c1)) {}

ObjectNamespace::ObjectNamespace(const std::string& c1, const std::string& c2) : components_(listOf(c1, c2)) {}

ObjectNamespace::ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3)
    : components_(listOf(c1, c2, c3)) {}

ObjectNamespace::ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3,
                                 const std::string& c4)
    : components_(listOf(c1, c2, c3, c4)) {}

ObjectNamespace::ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3,
                                 const std::string& c4, const std::string& c5)
    : components_(listOf(c1, c2, c3, c4, c5)) {}

ObjectNamespace::ObjectNamespace(const std::string& c1, const std::string& c2, const std::string& c3,
                                 const std::string& c4, const std::string& c5, const std::string& c6)
    : components_(listOf(c1, c2, c3, c4, c5, c6)) {}

ObjectNamespace& ObjectNamespace::operator=(const ObjectNamespace& other) {
    return *this = ObjectNamespace(other);
}

bool ObjectNamespace::is_root() const {
    return components_.empty();
}

bool ObjectNamespace::is_ancestor_of(const ObjectNamespace& other) const {
    return components_.size() <= other.components_.size() &&
           std::equal(components_.begin(), components_.end(), other.components_.begin());
}

boost::optional<ObjectNamespace> ObjectNamespace::parentNamespace() const {
    if (is_root()) {
        return boost::none;
    }
    ObjectNamespace parent;
    parent.components_.assign(components_.begin(), std::prev(components_.end()));
    return parent;
}

ObjectNamespace ObjectNamespace::operator|(const std::string& component) const {
    ObjectNamespace joined;
    joined.components_ = components_;
    joined.components_.push_back(component);
    return joined;
}

ObjectNamespace ObjectNamespace::operator|(ObjectNamespace tail) const {
    ObjectNamespace joined;
    joined.components_ = components_;
    joined.components_.splice(joined.components_.end(), tail.components_);
    return joined;
}

// Programs may put a function of their own in front of this one, so str() must not take it in.
[[gnu::noinline]] std::string ObjectNamespace::encode_component(const std::string& component) {
    const auto plainEnd = std::find_if_not(component.begin(), component.end(), standsForItself);
    const auto rest = static_cast<std::size_t>(std::distance(plainEnd, component.end()));
    std::string encoded;
    encoded.reserve(component.size() + 2 * rest);
    encoded.assign(component.begin(), plainEnd);
    std::for_each(plainEnd, component.end(), [&encoded](char c) { appendEncoded(encoded, c); });
    return encoded;
}

const std::string& ObjectNamespace::str() const {
    if (text_.empty()) {
        text_ = NamespaceText::make(*this);
    }
    return text_;
}

const std::string& ObjectNamespace::toLogStr() const {
    try {
        return str();
    } catch (const EC_exception&) {
        text_ = CONVERSION_FAILED;
        return text_;
    }
}

bool operator==(const ObjectNamespace& left, const ObjectNamespace& right) {
    return left.components_ == right.components_;
}

bool operator<(const ObjectNamespace& left, const ObjectNamespace& right) {
    const auto [l, r] = std::mismatch(left.components_.begin(), left.components_.end(), right.components_.begin(),
                                      right.components_.end());
    if (l == left.components_.end() || r == right.components_.end()) {
        return left.components_.size() < right.components_.size();
    }
    return *l < *r;
}

std::ostream& operator<<(std::ostream& out, const ObjectNamespace& ns) {
    const std::string* text = nullptr;
    try {
        text = &ns.str();
    } catch (const EC_exception&) {
        out.setstate(std::ios_base::failbit);
        return out;
    }
    out.write(text->data(), static_cast<std::streamsize>(text->size()));
    // The width was meant for this value, not for the next one.
    out.width(0);
    return out;
}

std::istream& operator>>(std::istream& in, ObjectNamespace& ns) {
    ns.components_.clear();
    ns.text_.clear();

    char first = 0;
    if (!(in >> first) || first != BAR) {
        in.setstate(std::ios_base::failbit);
        return in;
    }
    std::string piece;
    while (std::getline(in, piece, BAR)) {
        std::string component;
        const bool closed = !in.eof();
        if (!closed || percentDecodeUriPart(piece, component) != 0) {
            in.setstate(std::ios_base::failbit);
            return in;
        }
        ns.components_.push_back(std::move(component));
    }
    // Nothing is left after the last bar: the text was read in full.
    in.clear();
    return in;
}

ObjectNamespace NamespaceText::parse(const char* text) {
    const auto refuse = [] { throw boost::bad_lexical_cast(typeid(const char*), typeid(ObjectNamespace)); };
    if (*text != BAR) {
        refuse();
    }
    ObjectNamespace ns;
    std::string piece;
    const char* begin = text + 1;
    while (const char* const end = std::strchr(begin, BAR)) {
        piece.assign(begin, end);
        if (percentDecodeUriPart(piece, ns.components_.emplace_back()) != 0) {
            refuse();
        }
        begin = end + 1;
    }
    if (*begin != '\0') {
        refuse();
    }
    return ns;
}

std::string NamespaceText::make(const ObjectNamespace& ns) {
    std::string text;
    text.reserve(leastTextSize(ns.components_));
    text += BAR;
    for (const std::string& component : ns.components_) {
        text += ObjectNamespace::encode_component(component);
        text += BAR;
    }
    return text;
}

std::string NamespaceText::of(const ObjectNamespace& ns) {
    try {
        return ns.text_.empty() ? make(ns) : ns.text_;
    } catch (const EC_exception&) {
        throw boost::bad_lexical_cast(typeid(ObjectNamespace), typeid(std::string));
    }
}

int namespaceToString(const ObjectNamespace& ns, std::string& out) {
    try {
        out = boost::lexical_cast<std::string>(ns);
        return 0;
    } catch (const boost::bad_lexical_cast&) {
        return STATUS_NO_TEXT;
    }
}

namespace root_namespaces {
namespace {

ObjectNamespace withText(ObjectNamespace ns) {
    try {
        ns.str();
    } catch (...) {
        // Only a program's own encode_component gets here. The constant is good without its text; whoever asks for the
        // text meets the failure.
    }
    return ns;
}

}  // namespace

// Before every other object of the library, so that those may use the constants whatever the order of the files.
#define ARKWELL_FIRST_OF_ALL __attribute__((init_priority(101)))

const ObjectNamespace ARKWELL ARKWELL_FIRST_OF_ALL = withText({"ARKWELL"});
const ObjectNamespace SECURITY ARKWELL_FIRST_OF_ALL = withText({"SECURITY"});
const ObjectNamespace MANAGE ARKWELL_FIRST_OF_ALL = withText({"MANAGE"});
const ObjectNamespace PROTECTION ARKWELL_FIRST_OF_ALL = withText({"PROTECTION"});
const ObjectNamespace STORAGE ARKWELL_FIRST_OF_ALL = withText({"STORAGE"});
const ObjectNamespace DEPLOYMENT ARKWELL_FIRST_OF_ALL = withText({"DEPLOYMENT"});
const ObjectNamespace OBJECT_TYPES ARKWELL_FIRST_OF_ALL = withText({"OBJECT_TYPES"});
const ObjectNamespace ASSETS ARKWELL_FIRST_OF_ALL = withText({"ASSETS"});

namespace operations {

const ObjectNamespace VIEW ARKWELL_FIRST_OF_ALL = withText({"OPERATIONS", "VIEW"});
const ObjectNamespace ADD ARKWELL_FIRST_OF_ALL = withText({"OPERATIONS", "ADD"});
const ObjectNamespace UPDATE ARKWELL_FIRST_OF_ALL = withText({"OPERATIONS", "UPDATE"});
const ObjectNamespace DELETE_NS ARKWELL_FIRST_OF_ALL = withText({"OPERATIONS", "DELETE"});
const ObjectNamespace MANAGE_ACCESS ARKWELL_FIRST_OF_ALL = withText({"OPERATIONS", "MANAGE_ACCESS"});

}  // namespace operations

#undef ARKWELL_FIRST_OF_ALL

}  // namespace root_namespaces

}  // namespace Tesmor::Arkwell::Rbac
