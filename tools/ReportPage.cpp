#include "tools/ReportPage.h"

#include "platform/UtcTime.h"
#include "tools/ReportTemplate.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <new>
#include <ostream>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

constexpr std::string_view POLICY_PLACE = "@POLICY@";
constexpr std::string_view DATA_PLACE = "@DATA@";

void appendElement(std::string& list, std::string_view element) {
    if (!list.empty()) {
        list += ',';
    }
    list += element;
}

/// A text as a JSON string of its bytes, one to a character. There is nothing in it that could end the script element
/// that it stands in.
std::string quoted(std::string_view bytes) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    static constexpr std::string_view ESCAPED = "\"\\<>&";
    std::string text = "\"";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte > 0x7E || ESCAPED.find(c) != std::string_view::npos) {
            text += "\\u00";
            text += DIGITS[byte >> 4];
            text += DIGITS[byte & 15];
        } else {
            text += c;
        }
    }
    return text + "\"";
}

std::string pairs(const std::map<std::int32_t, std::string>& names) {
    std::string list;
    for (const auto& [number, name] : names) {
        appendElement(list, "[" + std::to_string(number) + "," + quoted(name) + "]");
    }
    return "[" + list + "]";
}

std::string treeText(const std::vector<RoleRights>& rights) {
    std::string roles;
    for (const RoleRights& role : rights) {
        std::string bits;
        for (const std::int32_t bit : role.operationBits) {
            appendElement(bits, std::to_string(bit));
        }
        appendElement(roles, "[" + std::to_string(role.roleId) + ",[" + bits + "]]");
    }
    return "[" + roles + "]";
}

/// What is between the first `begin` and the `end` after it.
std::string_view between(std::string_view text, std::string_view begin, std::string_view end) {
    const std::size_t first = text.find(begin) + begin.size();
    return text.substr(first, text.find(end, first) - first);
}

/// The content of an inline element as a content security policy names it.
std::string hashSource(std::string_view content) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    if (EVP_Digest(content.data(), content.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
        throw std::bad_alloc();
    }
    std::array<unsigned char, 4 * (EVP_MAX_MD_SIZE / 3 + 1) + 1> text{};
    EVP_EncodeBlock(text.data(), digest.data(), static_cast<int>(size));
    return std::string("'sha256-") + reinterpret_cast<const char*>(text.data()) + "'";
}

/// The page's own script and style, and nothing else, from wherever it may come.
std::string policyOf(std::string_view page) {
    return "default-src 'none'; script-src " + hashSource(between(page, "<script>", "</script>")) + "; style-src " +
           hashSource(between(page, "<style>", "</style>")) + "; base-uri 'none'; form-action 'none'";
}

}  // namespace

ReportPage::ReportPage(ReportHeader header) : header_(std::move(header)) {
    addTree({});
    addNode(0, "", {});
    path_.push_back({1, 0});
}

std::size_t ReportPage::addTree(const std::vector<RoleRights>& rights) {
    const auto [place, isNew] = treeNumbers_.emplace(treeText(rights), treeNumbers_.size());
    if (isNew) {
        appendElement(trees_, place->first);
    }
    return place->second;
}

void ReportPage::addObject(std::string_view text, bool inherits, std::size_t ownTree, std::size_t childTree) {
    if (text.empty() || text.front() != '|' || text.back() != '|') {
        throw std::invalid_argument("not the text of a namespace");
    }
    if (text <= lastText_) {
        throw std::invalid_argument("the objects are not in the order of their texts");
    }
    if (std::max(ownTree, childTree) >= treeNumbers_.size()) {
        throw std::out_of_range("no such role tree");
    }
    leaveNodesBeside(text);
    for (std::size_t end = path_.back().textLength; end < text.size();) {
        const std::size_t begin = end;
        end = text.find('|', begin) + 1;
        addNode(path_.back().number, text.substr(begin, end - begin - 1), {});
        path_.push_back({end, nodes_.size() - 1});
    }
    Node& node = nodes_[path_.back().number];
    node.state = inherits ? State::INHERITS : State::INHERITS_NOTHING;
    node.ownTree = static_cast<std::uint32_t>(ownTree);
    node.childTree = static_cast<std::uint32_t>(childTree);
    lastText_ = text;
}

/// Leaves the root and its descendants whose texts `text` begins with.
void ReportPage::leaveNodesBeside(std::string_view text) {
    const auto difference = std::mismatch(text.begin(), text.end(), lastText_.begin(), lastText_.end()).first;
    const auto common = static_cast<std::size_t>(difference - text.begin());
    while (path_.size() > 1 && path_.back().textLength > common) {
        path_.pop_back();
    }
}

void ReportPage::addNode(std::size_t parent, std::string_view component, Node node) {
    node.parent = static_cast<std::uint32_t>(parent);
    nodes_.push_back(node);
    appendElement(names_, quoted(component));
}

template <class Number>
void ReportPage::writeColumn(std::ostream& out, const char* name, Number number) const {
    std::string column;
    for (const Node& node : nodes_) {
        appendElement(column, std::to_string(number(node)));
    }
    out << ",\n\"" << name << "\":[" << column << "]";
}

void ReportPage::writeData(std::ostream& out) const {
    std::string states;
    for (const Node& node : nodes_) {
        states += static_cast<char>('0' + static_cast<int>(node.state));
    }
    out << "{\"scope\":" << quoted(header_.scope);
    if (header_.publishedAt) {
        out << ",\"written\":" << quoted(platform_detail::utcText(*header_.publishedAt));
    }
    if (header_.publication) {
        out << ",\"publication\":" << std::to_string(*header_.publication);
    }
    if (header_.grantCount) {
        out << ",\"grants\":" << std::to_string(*header_.grantCount);
    }
    out << ",\n\"operations\":" << pairs(header_.operations) << ",\n\"roles\":" << pairs(header_.roles)
        << ",\n\"trees\":[" << trees_ << "],\n\"names\":[" << names_ << "],\n\"states\":\"" << states << "\"";
    writeColumn(out, "parents", [](const Node& node) { return node.parent; });
    writeColumn(out, "own", [](const Node& node) { return node.ownTree; });
    writeColumn(out, "child", [](const Node& node) { return node.childTree; });
    out << "}";
}

void ReportPage::write(std::ostream& out) const {
    const std::string_view page = REPORT_TEMPLATE;
    const std::size_t policy = page.find(POLICY_PLACE);
    const std::size_t data = page.find(DATA_PLACE);
    out << page.substr(0, policy) << policyOf(page);
    const std::size_t afterPolicy = policy + POLICY_PLACE.size();
    out << page.substr(afterPolicy, data - afterPolicy);
    writeData(out);
    out << page.substr(data + DATA_PLACE.size());
}

}  // namespace Tesmor::Arkwell::Tools
