#include "tools/AccessDiff.h"
#include "tools/JsonObject.h"
#include "tools/ModelFile.h"
#include "tools/Names.h"
#include "tools/OpenedCache.h"
#include "tools/Subcommand.h"
#include "tools/Terminal.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

bool isFolder(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::is_directory(path, ignored);
}

/// One of the two that are compared: a cache, or a file that is made one for the purpose.
class Side {
public:
    Side(const std::string& path, Rbac::OperationCache& operations, const ReadingOptions& reading) {
        if (isFolder(path)) {
            opened_ = std::make_unique<OpenedCache>(path, reading);
        } else {
            model_ = std::make_unique<ModelCache>(readModelFile(path, operations));
        }
    }

    const Rbac::AccessCache& cache() const { return opened_ ? opened_->cache() : model_->cache(); }

private:
    std::unique_ptr<OpenedCache> opened_;
    std::unique_ptr<ModelCache> model_;
};

class Diff : public Subcommand {
public:
    Diff()
        : Subcommand({"diff", "show who gains and loses which access from one cache to another",
                      "  rbac-cache diff /backup/access-caches/all /usr/tarvo/wmc/webserver/temp/access-caches/all\n"
                      "  rbac-cache ls --json >planned.jsonl; edit planned.jsonl\n"
                      "  rbac-cache diff /usr/tarvo/wmc/webserver/temp/access-caches/all planned.jsonl"}) {}

    ExitCode run(std::ostream& out) override {
        ReadingOptions reading = reading_;
        reading.operationsFile = operationsFile();
        Rbac::OperationCache operations(reading.operationsFile);
        loadOperations(operations, reading.operationsFile);
        warnOfOtherNumbers(operations, reading.operationsFile);
        const OperationTexts texts(operations);
        const Side before(before_, operations, reading);
        // One cache is not locked twice.
        std::error_code ignored;
        std::optional<Side> other;
        if (!std::filesystem::equivalent(before_, after_, ignored)) {
            other.emplace(after_, operations, reading);
        }
        const Side& after = other ? *other : before;
        const DiffSummary summary =
            diffAccess(before.cache(), after.cache(), everyObject_ ? DiffForm::EVERY_OBJECT : DiffForm::FOLDED,
                       [&](const AccessChange& change) { print(out, change, texts); });
        print(out, summary);
        return summary.objectsAffected == 0 && !isToCome(summary) ? EXIT_YES : EXIT_NO;
    }

private:
    void addOptions(CLI::App& command) override {
        command.add_option("A", before_, "the folder of a cache, or a file with objects as ls --json prints them")
            ->required()
            ->option_text(" ");
        command.add_option("B", after_, "the same, as it is afterwards")->required()->option_text(" ");
        command.add_flag("--all", everyObject_, "show each object by itself, and not with those above it");
        reading_.addTo(command);
    }

    /// Both sides speak of the same operations: their numbers never change, but B, which is later, may know more.
    std::string operationsFile() const {
        const std::optional<std::string> ofAfter = operationsFileIn(after_);
        const std::optional<std::string> ofBefore = ofAfter ? ofAfter : operationsFileIn(before_);
        if (ofBefore) {
            return *ofBefore;
        }
        const std::string folder = isFolder(after_)    ? after_
                                   : isFolder(before_) ? before_
                                                       : CacheOptions::defaultDirectory();
        return operationsFileOf(folder, reading_);
    }

    std::optional<std::string> operationsFileIn(const std::string& side) const {
        if (!isFolder(side)) {
            return std::nullopt;
        }
        try {
            return operationsFileOf(side, reading_);
        } catch (const Unusable&) {
            return std::nullopt;
        }
    }

    void warnOfOtherNumbers(const Rbac::OperationCache& operations, const std::string& file) const {
        const std::optional<std::string> fileOfBefore = operationsFileIn(before_);
        std::error_code ignored;
        if (!fileOfBefore || std::filesystem::equivalent(*fileOfBefore, file, ignored)) {
            return;
        }
        Rbac::OperationCache others(*fileOfBefore);
        try {
            loadOperations(others, *fileOfBefore);
        } catch (const Unusable& failure) {
            note(std::string("rbac-cache: warning: ") + failure.what());
            return;
        }
        std::unordered_map<std::string, int> used;
        for (const auto& [name, operation] : operations.known()) {
            used.emplace(name.str(), operation.bitNumber());
        }
        for (const auto& [name, other] : others.known()) {
            const auto found = used.find(name.str());
            if (found != used.end() && found->second != other.bitNumber()) {
                note("rbac-cache: warning: " + found->first + " is operation " + std::to_string(other.bitNumber()) +
                     " in " + *fileOfBefore + ", but " + std::to_string(found->second) + " in " + file +
                     ", which is used");
            }
        }
    }

    static bool isToCome(const DiffSummary& summary) { return summary.gainedToCome + summary.lostToCome != 0; }

    void print(std::ostream& out, const AccessChange& change, const OperationTexts& operations) const {
        if (!output().json) {
            printText(out, change, operations);
            return;
        }
        JsonObject document;
        document.set("change", change.gained ? "gained" : "lost").set("roleId", change.roleId);
        if (operations.knows(change.operationBit)) {
            document.set("operation", operations.of(change.operationBit));
        } else {
            document.set("operation", change.operationBit);
        }
        document.set("namespace", change.objectText);
        if (!everyObject_) {
            document.set("onObject", change.onObject)
                .set("changedBelow", change.changedBelow)
                .set("objectsBelow", change.objectsBelow);
        }
        document.set("toCome", change.toCome);
        document.print(out);
    }

    void printText(std::ostream& out, const AccessChange& change, const OperationTexts& operations) const {
        const Colors colors = output().colors();
        const std::string operation = printable(shortName(operations.of(change.operationBit)));
        const std::string what = (change.gained ? "+ role " : "- role ") + std::to_string(change.roleId) +
                                 (change.gained ? " gains " : " loses ") + operation;
        out << (change.gained ? colors.good(what) : colors.bad(what)) << " on " << whereOf(change) << "\n";
    }

    static std::string whereOf(const AccessChange& change) {
        std::string text = printable(change.objectText);
        if (change.toCome) {
            return change.onObject ? text + " and what will be below it" : "what will be below " + text;
        }
        if (change.changedBelow == 0) {
            return text;
        }
        const std::string total = counted(change.objectsBelow, "object", "objects");
        const std::string all = change.objectsBelow == 1 ? "the object" : "all " + total;
        const std::string below =
            change.changedBelow == change.objectsBelow ? all : std::to_string(change.changedBelow) + " of " + total;
        return change.onObject ? text + " and " + below + " below it" : below + " below " + text;
    }

    void print(std::ostream& out, const DiffSummary& summary) const {
        if (output().json) {
            JsonObject figures;
            figures.set("objects", summary.objects)
                .set("onlyInA", summary.onlyBefore)
                .set("onlyInB", summary.onlyAfter)
                .set("inheritChanged", summary.inheritChanged)
                .set("objectsAffected", summary.objectsAffected)
                .set("gained", summary.gained)
                .set("lost", summary.lost)
                .set("gainedToCome", summary.gainedToCome)
                .set("lostToCome", summary.lostToCome);
            JsonObject line;
            line.set("summary", std::move(figures)).print(out);
            return;
        }
        out << counted(summary.objects, "object", "objects") << ", " << summary.onlyBefore << " only in A, "
            << summary.onlyAfter << " only in B, " << summary.inheritChanged << " with another inherit flag\n";
        if (summary.objectsAffected == 0 && !isToCome(summary)) {
            out << "no difference in access\n";
            return;
        }
        if (summary.objectsAffected != 0) {
            out << "access to " << counted(summary.objectsAffected, "object", "objects")
                << " differs: " << summary.gained << " gained, " << summary.lost << " lost\n";
        }
        if (isToCome(summary)) {
            out << "access to what will be below differs: " << summary.gainedToCome << " gained, " << summary.lostToCome
                << " lost\n";
        }
    }

    std::string before_;
    std::string after_;
    bool everyObject_ = false;
    ReadingOptions reading_;
};

}  // namespace

void addDiff(Subcommands& all) {
    all.push_back(std::make_unique<Diff>());
}

}  // namespace Tesmor::Arkwell::Tools
