#include "tools/NamespaceTree.h"

#include "rbac/cache/ObjectCursor.h"

#include <algorithm>

namespace Tesmor::Arkwell::Tools {

void NamespaceTree::forEach(const std::function<void(const Node&)>& visit) {
    findLastChildren();
    walk([&](const std::string& text, const Rbac::ManagedObject& record) {
        visit({branches(), nameIn(text), levels_.back().textLength == text.size() ? &record : nullptr});
    });
}

void NamespaceTree::findLastChildren() {
    isLast_.clear();
    walk([this](const std::string&, const Rbac::ManagedObject&) {
        isLast_.push_back(true);
        if (levels_.size() < 2) {
            return;
        }
        Level& parent = levels_[levels_.size() - 2];
        if (parent.lastChild != 0) {
            isLast_[parent.lastChild] = false;
        }
        parent.lastChild = levels_.back().line;
    });
}

/// Visits each object's namespace and those on the way to it, each once.
void NamespaceTree::walk(const Visit& visit) {
    levels_.clear();
    const auto topComponents = static_cast<std::size_t>(std::count(top_.begin(), top_.end(), '|')) - 1;
    std::size_t lines = 0;
    Rbac::detail::ObjectCursor cursor(cache_, top_);
    while (cursor.next()) {
        while (!levels_.empty() && levels_.back().textLength > cursor.sharedLength()) {
            levels_.pop_back();
        }
        const std::string& text = cursor.text();
        while (topComponents + levels_.size() <= deepest_ &&
               (levels_.empty() || levels_.back().textLength < text.size())) {
            const std::size_t length = levels_.empty() ? top_.size() : text.find('|', levels_.back().textLength) + 1;
            levels_.push_back({length, lines++});
            visit(text, cursor.record());
        }
    }
}

std::string NamespaceTree::nameIn(const std::string& text) const {
    const std::size_t length = levels_.back().textLength;
    if (levels_.size() == 1) {
        return text.substr(0, length);
    }
    const std::size_t parent = levels_[levels_.size() - 2].textLength;
    return text.substr(parent, length - parent - 1);
}

/// The lines that lead to the last level.
std::string NamespaceTree::branches() const {
    std::string drawn;
    for (std::size_t i = 1; i < levels_.size(); ++i) {
        const bool isEnd = i + 1 == levels_.size();
        if (isEnd) {
            drawn += isLast_[levels_[i].line] ? (utf8_ ? "└── " : "`-- ") : (utf8_ ? "├── " : "|-- ");
        } else {
            drawn += isLast_[levels_[i].line] ? "    " : (utf8_ ? "│   " : "|   ");
        }
    }
    return drawn;
}

}  // namespace Tesmor::Arkwell::Tools
