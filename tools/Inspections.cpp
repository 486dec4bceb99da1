#include "platform/UtcTime.h"
#include "tools/JsonObject.h"
#include "tools/OpenedCache.h"
#include "tools/Subcommand.h"

#include <rbac/AccessCache.h>
#include <rbac/CacheVerification.h>

#include <CLI/CLI.hpp>
#include <sys/stat.h>

#include <algorithm>
#include <iomanip>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

using Rbac::CacheFault;
using Rbac::CacheFileStatistics;
using Rbac::CacheStatistics;

std::string timeText(std::int64_t nanoseconds) {
    using std::chrono::duration_cast;
    using std::chrono::system_clock;
    return platform_detail::utcText(
        system_clock::time_point(duration_cast<system_clock::duration>(std::chrono::nanoseconds(nanoseconds))));
}

/// Each publication changes the metadata, also those that do not say when it was. None where there are no metadata.
std::optional<std::string> metadataChangeTime(const std::string& directory) {
    struct stat status {};
    if (stat((directory + "/" + Rbac::AccessCache::METADATA_FILE_NAME).c_str(), &status) != 0) {
        return std::nullopt;
    }
    // Files may be from centuries that the clock does not count to.
    constexpr std::int64_t NANOSECONDS = 1'000'000'000;
    constexpr std::int64_t LAST_SECOND = std::numeric_limits<std::int64_t>::max() / NANOSECONDS - 1;
    const std::int64_t seconds = std::clamp<std::int64_t>(status.st_mtim.tv_sec, 0, LAST_SECOND);
    return timeText(seconds * NANOSECONDS + status.st_mtim.tv_nsec);
}

/// Looks at the files as they are, sound or not.
class Inspection : public Subcommand {
public:
    using Subcommand::Subcommand;

protected:
    const std::string& directory() const { return cache_.directory; }

    CacheStatistics inspect(const Rbac::OnCacheFault& onFault) const {
        CacheStatistics found = Rbac::verifyCache(requireCacheFolder(directory()), onFault);
        if (!found.locked) {
            note("rbac-cache: the cache cannot be locked; this holds if nobody has written to it meanwhile");
        }
        return found;
    }

private:
    void addOptions(CLI::App& command) override { cache_.addTo(command); }

    CacheOptions cache_;
};

class Stat : public Inspection {
public:
    Stat()
        : Inspection({"stat", "show how large the cache is and what its files hold",
                      "  rbac-cache stat\n"
                      "  rbac-cache stat --cache /backup/access-caches/all --json"}) {}

    ExitCode run(std::ostream& out) override {
        const CacheStatistics found = inspect([](const CacheFault&) { return true; });
        if (output().json) {
            printDocument(out, found);
        } else {
            printText(out, found);
        }
        return EXIT_YES;
    }

private:
    static void printLine(std::ostream& out, const char* name, const std::string& value) {
        constexpr int NAME_WIDTH = 14;
        out << std::left << std::setw(NAME_WIDTH) << name << printable(value) << "\n";
    }

    static void printFile(std::ostream& out, const char* name, const CacheFileStatistics& file) {
        printLine(out, name,
                  counted(file.bytes, "byte", "bytes") + ", " + counted(file.records, "record", "records") + ", " +
                      std::to_string(file.reached) + " in use, " + std::to_string(file.free) + " free (" +
                      std::to_string(static_cast<int>(100 * file.fill())) + " % in use)");
    }

    void printText(std::ostream& out, const CacheStatistics& found) const {
        const Colors colors = output().colors();
        printLine(out, "cache", directory());
        printLine(out, "scope", found.namespaceText);
        if (found.publication) {
            printLine(out, "published",
                      timeText(found.publication->publishedAt) + ", publication " +
                          std::to_string(found.publication->number) + ", " +
                          counted(found.publication->grantCount, "grant", "grants"));
        } else if (const auto changed = metadataChangeTime(directory())) {
            printLine(out, "published", "unknown; metadata changed " + *changed);
        }
        printLine(out, "writing flag", found.writing ? "set" : "not set");
        printLine(out, "objects",
                  std::to_string(found.inheriting + found.notInheriting) +
                      " (inheriting: " + std::to_string(found.inheriting) +
                      ", not inheriting: " + std::to_string(found.notInheriting) + ")");
        printLine(out, "roles", std::to_string(found.roles));
        printLine(out, "operations", std::to_string(found.operations));
        printLine(
            out, "role trees",
            std::to_string(found.roleTrees) + ", up to " + counted(found.roleTreeDepth, "node", "nodes") + " deep");
        printLine(
            out, "word trees",
            std::to_string(found.wordTrees) + ", up to " + counted(found.wordTreeDepth, "node", "nodes") + " deep");
        printLine(out, "segment trees", "up to " + counted(found.segmentTreeDepth, "node", "nodes") + " deep");
        printLine(out, "texts",
                  "up to " + counted(found.longestText, "byte", "bytes") + " and " +
                      counted(found.deepestNesting, "component", "components"));
        printLine(out, "metadata", counted(found.metadataBytes, "byte", "bytes"));
        printFile(out, "objects file", found.objects);
        printFile(out, "nodes file", found.nodes);
        printFile(out, "segments file", found.segments);
        if (found.faults != 0) {
            out << colors.bad("not sound") << "     " << counted(found.faults, "fault", "faults")
                << "; rbac-cache verify lists them\n";
        }
    }

    static JsonObject documentOf(const CacheFileStatistics& file) {
        JsonObject document;
        document.set("bytes", file.bytes)
            .set("records", file.records)
            .set("inUse", file.reached)
            .set("free", file.free)
            .set("fill", file.fill());
        return document;
    }

    static JsonObject documentOfFiles(const CacheStatistics& found) {
        JsonObject metadata;
        metadata.set("bytes", found.metadataBytes);
        JsonObject files;
        files.set("metadata", std::move(metadata))
            .set("objects", documentOf(found.objects))
            .set("nodes", documentOf(found.nodes))
            .set("segments", documentOf(found.segments));
        return files;
    }

    void printDocument(std::ostream& out, const CacheStatistics& found) const {
        JsonObject document;
        document.set("cache", directory()).set("namespace", found.namespaceText);
        if (found.publication) {
            document.set("publishedAt", timeText(found.publication->publishedAt))
                .set("publication", found.publication->number)
                .set("grants", found.publication->grantCount);
        } else if (const auto changed = metadataChangeTime(directory())) {
            document.set("metadataChangedAt", *changed);
        }
        document.set("writing", found.writing)
            .set("faults", found.faults)
            .set("objects", found.inheriting + found.notInheriting)
            .set("notInheriting", found.notInheriting)
            .set("roles", found.roles)
            .set("operations", found.operations)
            .set("roleTrees", found.roleTrees)
            .set("roleTreeDepth", found.roleTreeDepth)
            .set("wordTrees", found.wordTrees)
            .set("wordTreeDepth", found.wordTreeDepth)
            .set("segmentTreeDepth", found.segmentTreeDepth)
            .set("longestText", found.longestText)
            .set("deepestNesting", found.deepestNesting)
            .set("files", documentOfFiles(found))
            .print(out);
    }
};

class Verify : public Inspection {
public:
    Verify()
        : Inspection({"verify", "say whether the cache's files are sound, with each fault",
                      "  rbac-cache verify\n"
                      "  rbac-cache verify --cache /backup/access-caches/all"}) {}

    ExitCode run(std::ostream& out) override {
        std::uint64_t seen = 0;
        const CacheStatistics found = inspect([&](const CacheFault& fault) {
            if (++seen <= MOST_SHOWN) {
                print(out, fault);
            }
            return true;
        });
        if (found.faults > MOST_SHOWN) {
            printRest(out, found.faults - MOST_SHOWN);
        }
        if (!output().json) {
            printConclusion(out, found);
        }
        return found.faults == 0 ? EXIT_YES : EXIT_NO;
    }

private:
    // All of them could be more than the disk holds, while the cache's lock is held.
    static constexpr std::uint64_t MOST_SHOWN = 1000;

    void printRest(std::ostream& out, std::uint64_t count) const {
        if (output().json) {
            JsonObject().set("moreFaults", count).print(out);
            return;
        }
        out << "... and " << counted(count, "more fault", "more faults") << "\n";
    }

    void print(std::ostream& out, const CacheFault& fault) const {
        if (output().json) {
            JsonObject()
                .set("file", fault.file)
                .set("offset", fault.offset)
                .set("object", fault.objectText)
                .set("what", fault.what)
                .print(out);
            return;
        }
        out << fault.file << ", byte " << fault.offset;
        if (!fault.objectText.empty()) {
            out << ", at " << printable(fault.objectText);
        }
        out << ": " << printable(fault.what) << "\n";
    }

    void printConclusion(std::ostream& out, const CacheStatistics& found) const {
        const Colors colors = output().colors();
        if (found.faults != 0) {
            out << colors.bad("not sound") << ": " << counted(found.faults, "fault", "faults") << "\n";
            return;
        }
        out << colors.good("sound") << ": " << counted(found.objects.reached, "object", "objects") << "\n";
    }
};

}  // namespace

void addInspections(Subcommands& all) {
    all.push_back(std::make_unique<Stat>());
    all.push_back(std::make_unique<Verify>());
}

}  // namespace Tesmor::Arkwell::Tools
