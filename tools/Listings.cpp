#include "rbac/cache/ObjectCursor.h"
#include "tools/AccessDefinitions.h"
#include "tools/NamespaceTree.h"
#include "tools/OpenedCache.h"
#include "tools/Subcommand.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <limits>
#include <ostream>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

using Rbac::ManagedObject;
using Rbac::detail::CacheView;

std::size_t componentCount(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '|')) - 1;
}

/// What the cache says of each object below a namespace.
class Listing : public Subcommand {
public:
    using Subcommand::Subcommand;

    ExitCode run(std::ostream& out) final {
        const std::string top = objectText_.empty() ? "|" : objectNamed(objectText_).str();
        OpenedCache cache(cacheOptions_.directory, reading_);
        const OperationTexts operations(cache.operations());
        const Rbac::AccessCache::Reader reader = cache.cache().lock();
        const CacheView view = Rbac::detail::CacheAccess::view(reader);
        if (output().json) {
            printDocuments(view, top, operations, out);
        } else {
            printText(view, top, operations, out);
        }
        return EXIT_YES;
    }

protected:
    bool isShown(const std::string& text, const std::string& top) const { return componentCount(text) <= deepest(top); }
    std::size_t deepest(const std::string& top) const {
        constexpr std::size_t NO_LIMIT = std::numeric_limits<std::size_t>::max();
        return depth_ < 0 ? NO_LIMIT : componentCount(top) + static_cast<std::size_t>(depth_);
    }

    /// Whether the object inherits, and what it grants.
    std::string describe(const CacheView& cache, const ManagedObject& object, const OperationTexts& operations) const {
        const std::string inherits =
            object.inherit != 0 ? "inherits" : output().colors().remarkable("does not inherit");
        const std::string grants = printable(textOf(definitionsOf(cache, object), operations));
        return grants.empty() ? inherits : inherits + "; " + grants;
    }

private:
    virtual void printText(const CacheView& cache, const std::string& top, const OperationTexts& operations,
                           std::ostream& out) const = 0;

    void addOptions(CLI::App& command) override {
        command.add_option("object", objectText_, "where to begin; without it, at the root")->option_text(" ");
        command.add_option("--depth", depth_, "show no more than so many levels below that")
            ->check(CLI::NonNegativeNumber)
            ->option_text("N");
        cacheOptions_.addTo(command);
        reading_.addTo(command);
    }

    void printDocuments(const CacheView& cache, const std::string& top, const OperationTexts& operations,
                        std::ostream& out) const {
        Rbac::detail::ObjectCursor cursor(cache, top);
        while (cursor.next()) {
            if (isShown(cursor.text(), top)) {
                JsonObject()
                    .set("namespace", cursor.text())
                    .set("inherit", cursor.record().inherit != 0)
                    .set("accessDefinitions", documentsOf(definitionsOf(cache, cursor.record()), operations))
                    .print(out);
            }
        }
    }

    std::string objectText_;
    int depth_ = -1;
    CacheOptions cacheOptions_;
    ReadingOptions reading_;
};

class Ls : public Listing {
public:
    Ls()
        : Listing({"ls", "list the objects of the cache, with what they grant",
                   "  rbac-cache ls '|ASSETS|' --depth 1\n"
                   "  rbac-cache ls --json >access.jsonl"}) {}

private:
    void printText(const CacheView& cache, const std::string& top, const OperationTexts& operations,
                   std::ostream& out) const override {
        const Colors colors = output().colors();
        Rbac::detail::ObjectCursor cursor(cache, top);
        while (cursor.next()) {
            if (isShown(cursor.text(), top)) {
                out << colors.name(printable(cursor.text())) << "  " << describe(cache, cursor.record(), operations)
                    << "\n";
            }
        }
    }
};

class Tree : public Listing {
public:
    Tree()
        : Listing({"tree", "show the objects of the cache as a tree, with what they grant",
                   "  rbac-cache tree --depth 2\n"
                   "  rbac-cache tree '|ASSETS|'"}) {}

private:
    void printText(const CacheView& cache, const std::string& top, const OperationTexts& operations,
                   std::ostream& out) const override {
        const Colors colors = output().colors();
        NamespaceTree tree(cache, top, deepest(top), showsUtf8());
        tree.forEach([&](const NamespaceTree::Node& node) {
            out << node.branches << colors.name(printable(node.name)) << "  "
                << (node.record != nullptr ? describe(cache, *node.record, operations)
                                           : colors.faint("not in the cache"))
                << "\n";
        });
    }
};

}  // namespace

void addListings(Subcommands& all) {
    all.push_back(std::make_unique<Ls>());
    all.push_back(std::make_unique<Tree>());
}

}  // namespace Tesmor::Arkwell::Tools
