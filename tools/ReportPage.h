#pragma once

#include <boost/optional.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Tools {

/// What a report page says of a cache as a whole. No text needs to be UTF-8.
struct ReportHeader {
    std::string scope;                               ///< the text form of the namespace that the cache covers
    std::map<std::int32_t, std::string> operations;  ///< names by bit number, to choose from
    std::map<std::int32_t, std::string> roles;       ///< names by id, as far as they are known
    boost::optional<std::chrono::system_clock::time_point> publishedAt;
    boost::optional<std::uint64_t> publication;  ///< its number
    boost::optional<std::uint64_t> grantCount;   ///< access definitions in the cache
};

/// A role and the bit numbers of the operations that it holds.
struct RoleRights {
    std::int32_t roleId;
    std::vector<std::int32_t> operationBits;
};

/// A page, one file, that shows an access cache to people: the tree of its objects, who may do what there, and why. It
/// answers in the browser as a checker over the cache would, and loads nothing.
///
/// Kept small, for a million objects and more. Not synchronised.
///
///     ReportPage page(header);
///     const std::size_t rights = page.addTree({{5, {0, 37}}});
///     page.addObject("|ASSETS|", true, ReportPage::NO_RIGHTS, rights);
///     page.write(file);
class ReportPage {
public:
    /// The tree in which nobody has any rights.
    static constexpr std::size_t NO_RIGHTS = 0;

    explicit ReportPage(ReportHeader header);

    /// Adds a role tree.
    ///
    /// @return its number. Equal trees have the same one.
    std::size_t addTree(const std::vector<RoleRights>& rights);

    /// Adds an object. Objects come in the bytewise order of their texts, in which an ancestor comes first.
    ///
    /// @param text the name's text form.
    /// @param ownTree number of the rights on the object itself.
    /// @param childTree number of the rights that it grants to its descendants.
    /// @throws std::invalid_argument where `text` does not begin and end with "|" or does not come after that of the
    /// object before; std::out_of_range where there is no such tree. The page is then unchanged.
    void addObject(std::string_view text, bool inherits, std::size_t ownTree, std::size_t childTree);

    /// Writes the page. What is written depends on what was added and on nothing else.
    void write(std::ostream& out) const;

private:
    /// What the cache says of a namespace; numbered as the page's script has them.
    enum class State : std::uint8_t { ABSENT = 0, INHERITS_NOTHING = 1, INHERITS = 2 };
    struct Node {
        std::uint32_t parent = 0;
        std::uint32_t ownTree = NO_RIGHTS;
        std::uint32_t childTree = NO_RIGHTS;
        State state = State::ABSENT;
    };
    /// A namespace that the next object may be below.
    struct OpenNode {
        std::size_t textLength;
        std::size_t number;
    };

    void leaveNodesBeside(std::string_view text);
    void addNode(std::size_t parent, std::string_view component, Node node);
    template <class Number>
    void writeColumn(std::ostream& out, const char* name, Number number) const;
    void writeData(std::ostream& out) const;

    ReportHeader header_;
    std::unordered_map<std::string, std::size_t> treeNumbers_;
    std::string trees_;  // elements of a JSON array, as names_
    std::vector<Node> nodes_;
    std::string names_;           // the nodes' last components
    std::vector<OpenNode> path_;  // from the root to the last node
    std::string lastText_;
};

}  // namespace Tools
}  // namespace Arkwell
}  // namespace Tesmor
