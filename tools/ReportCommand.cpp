#include "platform/Handles.h"
#include "rbac/cache/ObjectCursor.h"
#include "rbac/cache/RoleTrees.h"
#include "tools/JsonObject.h"
#include "tools/OpenedCache.h"
#include "tools/ReportPage.h"
#include "tools/Subcommand.h"

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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

[[noreturn]] void throwCannotWrite(const std::string& path) {
    throw Unusable("cannot write " + path + ": " + std::generic_category().message(errno));
}

/// A file beside another one that only its owner may read, gone with this object.
class FileBeside {
public:
    explicit FileBeside(const std::string& path) : path_(path + ".XXXXXX") {
        const platform_detail::Descriptor file(mkostemp(path_.data(), O_CLOEXEC));
        if (!file.isOpen()) {
            throwCannotWrite(path);
        }
    }
    ~FileBeside() { unlink(path_.c_str()); }
    FileBeside(const FileBeside&) = delete;
    FileBeside& operator=(const FileBeside&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// @param shownPath what the file is called where it cannot be written.
void writePage(const ReportPage& page, const std::string& path, const std::string& shownPath) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    page.write(file);
    file.close();
    if (!file) {
        throwCannotWrite(shownPath);
    }
}

/// Only the owner may read the file: it tells what everybody may do. Devices and pipes are written to as they are.
void writeTo(const std::string& path, const ReportPage& page) {
    std::error_code ignored;
    const auto type = std::filesystem::status(path, ignored).type();
    if (type != std::filesystem::file_type::regular && type != std::filesystem::file_type::not_found) {
        writePage(page, path, path);
        return;
    }
    const std::filesystem::path target = std::filesystem::weakly_canonical(path, ignored);
    const std::string replaced = target.empty() ? path : target.string();
    const FileBeside next(replaced);
    writePage(page, next.path(), path);
    if (std::rename(next.path().c_str(), replaced.c_str()) != 0) {
        throwCannotWrite(path);
    }
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

    std::string file_;
    CacheOptions cache_;
    ReadingOptions reading_;
};

}  // namespace

void addReport(Subcommands& all) {
    all.push_back(std::make_unique<Report>());
}

}  // namespace Tesmor::Arkwell::Tools
