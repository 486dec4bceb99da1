#include "rbac/cache/ObjectCursor.h"
#include "rbac/cache/RoleTrees.h"
#include "tools/JsonObject.h"
#include "tools/OpenedCache.h"
#include "tools/ReportPage.h"
#include "tools/Subcommand.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <ostream>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

using Rbac::NodeOffset;
using Rbac::detail::CacheView;

/// Gives a page the role trees of a cache, each once.
class TreeNumbers {
public:
    TreeNumbers(const CacheView& cache, ReportPage& page) : cache_(cache), page_(page) {}

    std::size_t of(NodeOffset root) {
        const auto [entry, isNew] = numbers_.try_emplace(root, ReportPage::NO_RIGHTS);
        if (isNew && root != 0) {
            entry->second = page_.addTree(rightsAt(root));
        }
        return entry->second;
    }

private:
    std::vector<RoleRights> rightsAt(NodeOffset root) const {
        std::vector<RoleRights> rights;
        Rbac::detail::forEachNode(cache_.nodes, root, [&](const Rbac::detail::RoleNode& role) {
            RoleRights held{role.key, {}};
            Rbac::detail::forEachOperationBit(cache_.nodes, role.payload,
                                              [&held](std::int32_t bit) { held.operationBits.push_back(bit); });
            rights.push_back(std::move(held));
        });
        return rights;
    }

    const CacheView& cache_;
    ReportPage& page_;
    std::unordered_map<NodeOffset, std::size_t> numbers_;
};

ReportHeader headerOf(OpenedCache& cache) {
    using std::chrono::system_clock;
    ReportHeader header;
    header.scope = cache.manifest().objectNamespace().str();
    for (const auto& [name, operation] : cache.operations().known()) {
        header.operations.emplace(operation.bitNumber(), name.str());
    }
    if (cache.statistics() && cache.statistics()->publication) {
        const Rbac::CachePublication& publication = *cache.statistics()->publication;
        header.publication = publication.number;
        header.grantCount = publication.grantCount;
        header.publishedAt = system_clock::time_point(
            std::chrono::duration_cast<system_clock::duration>(std::chrono::nanoseconds(publication.publishedAt)));
    }
    return header;
}

class Report : public Subcommand {
public:
    Report()
        : Subcommand({"report", "write a page for a browser that shows who may do what, and why",
                      "  rbac-cache report --output access.html"}) {}

    ExitCode run(std::ostream& out) override {
        if (output().json && file_.empty()) {
            throw UsageError("--json says what was written, so it needs --output");
        }
        OpenedCache cache(cache_.directory, reading_);
        ReportPage page(headerOf(cache));
        const std::uint64_t objects = addObjects(cache, page);
        if (file_.empty()) {
            page.write(out);
            return EXIT_YES;
        }
        writeTo(file_, page);
        if (output().json) {
            JsonObject().set("file", file_).set("objects", objects).print(out);
        } else {
            out << "wrote " << printable(file_) << ": " << counted(objects, "object", "objects") << "\n";
        }
        return EXIT_YES;
    }

private:
    void addOptions(CLI::App& command) override {
        command.add_option("--output", file_, "where the page is written; without it, to the standard output")
            ->option_text("FILE");
        cache_.addTo(command);
        reading_.addTo(command);
    }

    static std::uint64_t addObjects(const OpenedCache& cache, ReportPage& page) {
        const Rbac::AccessCache::Reader reader = cache.cache().lock();
        const CacheView view = Rbac::detail::CacheAccess::view(reader);
        TreeNumbers trees(view, page);
        std::uint64_t objects = 0;
        for (Rbac::detail::ObjectCursor cursor(view, "|"); cursor.next(); ++objects) {
            const Rbac::ManagedObject& object = cursor.record();
            page.addObject(cursor.text(), object.inherit != 0, trees.of(object.ownRoles), trees.of(object.childRoles));
        }
        return objects;
    }

    static void writeTo(const std::string& path, const ReportPage& page) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        page.write(file);
        file.close();
        if (!file) {
            throw Unusable("cannot write " + path + ": " + std::generic_category().message(errno));
        }
    }

    std::string file_;
    CacheOptions cache_;
    ReadingOptions reading_;
};

}  // namespace

void addReport(Subcommands& all) {
    all.push_back(std::make_unique<Report>());
}

}  // namespace Tesmor::Arkwell::Tools
