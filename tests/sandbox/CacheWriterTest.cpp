#include "sandbox/CacheImageModel.h"
#include "sandbox/CacheWriter.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <platform/Status.h>
#include <rbac/AccessCache.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {
namespace {

using Rbac::AccessCache;
using Rbac::Manifest;
using Rbac::Operation;
using sandbox_testing::CacheInterpreter;
using sandbox_testing::differenceIn;
using sandbox_testing::filesIn;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::readFile;
using testing_support::Signal;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

const ObjectNamespace SCOPE("ASSETS");

/// A cache's contents: what a model is made from, and what the published files are compared with.
struct Contents {
    ObjectNamespace scope = SCOPE;
    std::vector<ModelObject> objects = {};

    AccessModel model() const {
        AccessModel model(scope);
        for (const ModelObject& object : objects) {
            model.add(object);
        }
        return model;
    }
};

/// `count` objects whose grants depend on `variant`.
Contents contentsOf(int count, int variant) {
    Contents contents;
    for (int i = 0; i < count; ++i) {
        const ObjectNamespace name = SCOPE | "folder" | std::to_string(i);
        contents.objects.push_back(
            {name, i % 3 != 0, ObjectState::READY, {{i % 7 + variant, i % 40, GrantScope::OBJECT_AND_CHILDREN}}});
    }
    return contents;
}

std::string manifestOf(const Contents& contents) {
    return R"({"namespace": ")" + contents.scope.str() + "\"}";
}

/// Whether `call` would have to wait for the lock.
bool isHeld(const std::string& lockPath, int mode) {
    try {
        const FileLockGuard guard(FileLockManager::instance().getLock(lockPath), mode, 0, FileLock::DEFAULT_INTERVAL);
        return false;
    } catch (const EC_exception& refusal) {
        if (refusal.status != platform_status::LOCK_TIMED_OUT) {
            throw;
        }
        return true;
    }
}

class CacheWriterTest : public testing::Test {
protected:
    /// Empty if the directory holds exactly these contents.
    std::string differenceFrom(const Contents& contents) const {
        if (readFile(path("manifest.json")) != manifestOf(contents)) {
            return "the manifest is another";
        }
        const CacheInterpreter cache(filesIn(directory));
        return cache.writing() ? "the writing flag is set" : differenceIn(cache, contents.objects);
    }

    std::string path(const std::string& name) const { return directory + "/" + name; }

    /// Publishes without waiting for the disk.
    PublicationReport publish(const Contents& contents) const {
        CacheWriterOptions options;
        options.durable = false;
        return CacheWriter(directory, options).publish(contents.model());
    }

    /// Publishes with a hook before every step.
    PublicationReport publish(const Contents& contents, const std::function<void(const std::string&)>& hook) const {
        CacheWriterOptions options;
        options.beforeStep = [&hook](const char* step) { hook(step); };
        return CacheWriter(directory, options).publish(contents.model());
    }

    std::vector<std::string> stepsOf(const Contents& contents) const {
        std::vector<std::string> steps;
        publish(contents, [&](const std::string& step) { steps.push_back(step); });
        return steps;
    }

    const TemporaryDirectory temporary;
    const std::string directory = temporary / "cache";
    const Contents small = contentsOf(20, 0);
    const Contents other = contentsOf(30, 1);
};

TEST_F(CacheWriterTest, PublishesTheModel) {
    publish(small);
    EXPECT_EQ(differenceFrom(small), "");
}

TEST_F(CacheWriterTest, PublishesAnEmptyModel) {
    publish({});
    EXPECT_EQ(differenceFrom({}), "");
}

TEST_F(CacheWriterTest, WritesTheManifest) {
    publish({ObjectNamespace("a b", "\"c\\"), {}});
    EXPECT_EQ(readFile(path("manifest.json")), R"({"namespace": "|a+b|%22c%5C|"})");
}

TEST_F(CacheWriterTest, LibraryReadsWhatIsPublished) {
    publish(small);
    const LogCapture log;
    const AccessCache cache(Manifest("cache", directory));
    const AccessCache::Reader reader = cache.lock();
    for (const ModelObject& object : small.objects) {
        const Grant& grant = object.grants.front();
        const Rbac::ManagedObject* const record = reader.lookup(object.name);
        ASSERT_NE(record, nullptr) << object.name;
        EXPECT_EQ(record->inherit != 0, object.inherit);
        EXPECT_TRUE(reader.getOperationBit(*record, grant.roleId, Operation(grant.operationBit)));
        EXPECT_TRUE(reader.getChildOperationBit(*record, grant.roleId, Operation(grant.operationBit)));
        EXPECT_FALSE(reader.getOperationBit(*record, grant.roleId + 1, Operation(grant.operationBit)));
        EXPECT_FALSE(reader.getOperationBit(*record, grant.roleId, Operation(grant.operationBit + 1)));
    }
    EXPECT_EQ(reader.lookup(SCOPE), nullptr);
}

TEST_F(CacheWriterTest, ReadersSeeEveryPublication) {
    publish(small);
    const LogCapture log;
    const AccessCache cache(Manifest("cache", directory));
    for (const int count : {20, 5000, 7, 0, 300}) {
        publish(contentsOf(count, count));
        const AccessCache::Reader reader = cache.lock();
        EXPECT_EQ(cache.managedObjectCount(), static_cast<std::size_t>(count) + 1);
        EXPECT_EQ(reader.lookup(SCOPE | "folder" | "0") != nullptr, count > 0);
        const ObjectNamespace last = SCOPE | "folder" | std::to_string(std::max(count - 1, 0));
        EXPECT_EQ(reader.getOperationBit(last, (count - 1) % 7 + count, Operation((count - 1) % 40)), count > 0);
        EXPECT_EQ(reader.lookup(SCOPE | "folder" | std::to_string(count)), nullptr);
    }
}

TEST_F(CacheWriterTest, SmallChangeIsMadeAndPublishedAgain) {
    AccessModel model = small.model();
    const CacheWriter writer(directory);
    writer.publish(model);
    Contents changed = small;
    changed.objects[3].grants.push_back({77, 12, GrantScope::OBJECT});
    model.add(changed.objects[3]);
    writer.publish(model);
    EXPECT_EQ(differenceFrom(changed), "");
}

TEST_F(CacheWriterTest, MakesFilesAndFoldersThatEverybodyMayRead) {
    const mode_t before = umask(0);
    CacheWriter(temporary / "one/two").publish(small.model());
    umask(before);
    const auto modeOf = [&](const std::string& name) {
        struct stat status {};
        stat((temporary / name).c_str(), &status);
        return status.st_mode & 07777U;
    };
    EXPECT_EQ(modeOf("one"), 0755U);
    EXPECT_EQ(modeOf("one/two"), 0755U);
    for (const char* file : {"manifest.json", "metadata", "objects", "nodes", "segments"}) {
        EXPECT_EQ(modeOf(std::string("one/two/") + file), 0644U) << file;
    }
}

TEST_F(CacheWriterTest, AcceptsADirectoryWithASlashAtItsEnd) {
    CacheWriter(directory + "/").publish(small.model());
    EXPECT_EQ(differenceFrom(small), "");
}

TEST_F(CacheWriterTest, ProgramsThatAreStartedMeanwhileInheritNoFiles) {
    publish(small, [&](const std::string& step) {
        if (step != "write manifest.json") {
            return;
        }
        int open = 0;
        for (int descriptor = 0; descriptor < 256; ++descriptor) {
            std::error_code none;
            const std::string target =
                std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none).string();
            if (target.rfind(directory, 0) == 0) {
                ++open;
                EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC) << target;
            }
        }
        EXPECT_GE(open, 6);
    });
}

TEST_F(CacheWriterTest, LeavesNoDescriptorsBehind) {
    publish(small);
    const int before = testing_support::openDescriptorCount();
    publish(other);
    EXPECT_EQ(testing_support::openDescriptorCount(), before);
}

TEST_F(CacheWriterTest, StepsHaveTheOrderThatKeepsReadersSafe) {
    EXPECT_THAT(stepsOf(small),
                ElementsAre("create cache", "sync " + std::filesystem::path(temporary.path()).filename().string(),
                            "lock writer.lck", "lock manifest.json",               //
                            "create metadata", "write metadata", "sync metadata",  //
                            "create objects", "write objects", "sync objects",     //
                            "create nodes", "write nodes", "sync nodes",           //
                            "create segments", "write segments", "sync segments",  //
                            "write metadata", "write manifest.json", "sync manifest.json", "sync cache",
                            "write metadata", "sync metadata"));
}

TEST_F(CacheWriterTest, SecondPublicationMakesRoomBeforeItShutsReadersOut) {
    publish(small);
    EXPECT_THAT(
        stepsOf(other),
        ElementsAre("lock writer.lck", "reserve objects", "reserve nodes", "reserve segments", "lock manifest.json",  //
                    "write metadata", "sync metadata", "write objects", "sync objects", "write nodes", "sync nodes",
                    "write segments", "sync segments", "write metadata", "sync manifest.json", "sync cache",
                    "write metadata", "sync metadata"));
}

TEST_F(CacheWriterTest, NothingIsSyncedWhenThatIsNotWanted) {
    std::vector<std::string> steps;
    CacheWriterOptions options;
    options.durable = false;
    options.beforeStep = [&](const char* step) { steps.emplace_back(step); };
    CacheWriter(directory, options).publish(small.model());
    EXPECT_THAT(steps, Not(Contains(HasSubstr("sync"))));
    EXPECT_THAT(steps, Contains("write objects"));
    EXPECT_EQ(differenceFrom(small), "");
}

TEST_F(CacheWriterTest, ShutsReadersOutOnlyWhileItWrites) {
    publish(small);
    std::map<bool, std::set<std::string>> steps;
    publish(contentsOf(5, 1),
            [&](const std::string& step) { steps[isHeld(path("manifest.json"), FileLockGuard::SHARED)].insert(step); });
    EXPECT_THAT(steps[false], ElementsAre("lock manifest.json", "lock writer.lck"));
    EXPECT_THAT(steps[true], Contains("write objects"));
    EXPECT_THAT(steps[true], Contains("sync metadata"));
    EXPECT_FALSE(isHeld(path("manifest.json"), FileLockGuard::EXCLUSIVE));
    EXPECT_FALSE(isHeld(path("writer.lck"), FileLockGuard::EXCLUSIVE));
}

TEST_F(CacheWriterTest, WritingFlagIsSetWhileRecordsAreWritten) {
    publish(small);
    std::set<std::string> unflagged;
    publish(other, [&](const std::string& step) {
        if (!CacheInterpreter(filesIn(directory)).writing()) {
            unflagged.insert(step);
        }
    });
    EXPECT_THAT(unflagged, ElementsAre("lock manifest.json", "lock writer.lck", "reserve nodes", "reserve objects",
                                       "reserve segments", "sync metadata", "write metadata"));
}

TEST_F(CacheWriterTest, FirstManifestIsInvalidUntilEverythingElseIsThere) {
    const LogCapture log;
    unsigned refusals = 0;
    publish(small, [&](const std::string& step) {
        try {
            const Manifest manifest("cache", directory);
            EXPECT_TRUE(CacheInterpreter(filesIn(directory)).writing() || step == "sync metadata") << step;
            EXPECT_NO_THROW(CacheInterpreter(filesIn(directory)).check()) << step;
        } catch (const EC_exception& refusal) {
            EXPECT_EQ(refusal.status, 12);
            ++refusals;
        }
    });
    EXPECT_EQ(refusals, 18U);  // up to and including the step that writes it
}

TEST_F(CacheWriterTest, ChangesTheManifestWithTheScope) {
    publish(small);
    Contents moved = small;
    moved.scope = SCOPE | "folder";
    publish(moved);
    EXPECT_EQ(differenceFrom(moved), "");
}

TEST_F(CacheWriterTest, KeepsTheManifestsFile) {
    publish(small);
    struct stat before {};
    stat(path("manifest.json").c_str(), &before);
    Contents moved = small;
    moved.scope = ObjectNamespace();
    publish(moved);
    struct stat after {};
    stat(path("manifest.json").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(differenceFrom(moved), "");
}

TEST_F(CacheWriterTest, ReportsWhatItDid) {
    const PublicationReport report =
        publish({SCOPE, {{SCOPE, true, ObjectState::READY, {{1, 1, GrantScope::OBJECT}}}}});
    EXPECT_EQ(report.publication, 1U);
    EXPECT_EQ(report.objects, 1U);
    EXPECT_EQ(report.nodes, 2U);
    EXPECT_EQ(report.segments, 3U);  // |, ASSE, TS|
    EXPECT_EQ(report.bytes, 64U + 2 * 16 + 3 * 24 + 4 * 32);
    EXPECT_EQ(report.bytesWritten, report.bytes + std::string(R"({"namespace": "|ASSETS|"})").size());
    EXPECT_EQ(report.chunksChanged, 3U);
    EXPECT_GT(report.lockHeld.count(), 0);
}

TEST_F(CacheWriterTest, WritesOnlyMetadataWhenNothingChanged) {
    publish(small);
    const PublicationReport report = publish(small);
    EXPECT_EQ(report.chunksChanged, 0U);
    EXPECT_EQ(report.bytesWritten, 64U);
    EXPECT_EQ(differenceFrom(small), "");
}

TEST_F(CacheWriterTest, WritesFewChunksWhenLittleChanged) {
    Contents contents = contentsOf(20000, 0);
    AccessModel model = contents.model();
    const CacheWriter writer(directory);
    EXPECT_GT(writer.publish(model).chunksChanged, 20U);
    contents.objects[10000].grants = {{55, 1, GrantScope::CHILDREN}};
    contents.objects[10001].state = ObjectState::PENDING;
    model.add(contents.objects[10000]);
    model.add(contents.objects[10001]);
    const PublicationReport report = writer.publish(model);
    EXPECT_GE(report.chunksChanged, 2U);
    EXPECT_LE(report.chunksChanged, 3U);
    EXPECT_LE(report.bytesWritten, 3U * 65536 + 64);
    EXPECT_EQ(differenceFrom(contents), "");
}

TEST_F(CacheWriterTest, FilesShrinkWithTheModel) {
    const std::uint64_t large = publish(contentsOf(3000, 0)).bytes;
    const PublicationReport report = publish(small);
    EXPECT_LT(report.bytes, large);
    std::uintmax_t bytes = 0;
    for (const char* file : {"metadata", "objects", "nodes", "segments"}) {
        bytes += std::filesystem::file_size(path(file));
    }
    EXPECT_EQ(bytes, report.bytes);
    EXPECT_EQ(differenceFrom(small), "");
}

TEST_F(CacheWriterTest, NumbersAndDatesPublications) {
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_EQ(publish(small).publication, 1U);
    EXPECT_EQ(publish(other).publication, 2U);
    EXPECT_EQ(publish(other).publication, 3U);
    const std::string metadata = readFile(path("metadata"));
    EXPECT_EQ(CacheInterpreter::longAt(metadata, 32), 3U);
    const std::chrono::nanoseconds published(CacheInterpreter::longAt(metadata, 40));
    EXPECT_GE(published, before);
    EXPECT_LE(published, std::chrono::system_clock::now().time_since_epoch());
}

TEST_F(CacheWriterTest, NumbersStartAnewBehindForeignMetadata) {
    publish(small);
    std::string metadata = readFile(path("metadata"));
    metadata[0] = 'a';
    writeFile(path("metadata"), metadata);
    EXPECT_EQ(publish(small).publication, 1U);
    metadata = readFile(path("metadata"));
    metadata[8] = 2;
    writeFile(path("metadata"), metadata);
    EXPECT_EQ(publish(small).publication, 1U);
}

TEST_F(CacheWriterTest, RefusedModelTouchesNothing) {
    CacheWriterOptions options;
    options.limits.objects = 100;
    const CacheWriter writer(directory, options);
    EXPECT_THROW(writer.publish(small.model()), std::length_error);
    EXPECT_FALSE(std::filesystem::exists(directory));
    publish(contentsOf(3, 0));
    EXPECT_THROW(writer.publish(small.model()), std::length_error);
    EXPECT_EQ(differenceFrom(contentsOf(3, 0)), "");
}

// What is found in the place of a file.

struct Damage {
    const char* name;
    std::function<void(const std::string& path)> inflict;
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

const std::vector<Damage> DAMAGES{
    {"Missing", [](const std::string& path) { std::filesystem::remove(path); }},
    {"Empty", [](const std::string& path) { writeFile(path, ""); }},
    {"OneByte", [](const std::string& path) { writeFile(path, "\x7F"); }},
    {"CutInTheMiddle",
     [](const std::string& path) { std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2 + 1); }},
    {"Longer", [](const std::string& path) { writeFile(path, readFile(path) + std::string(100000, '\xA5')); }},
    {"Garbage", [](const std::string& path) { writeFile(path, std::string(readFile(path).size(), '\xA5')); }},
    {"MuchGarbage", [](const std::string& path) { writeFile(path, std::string(1000000, '\xFF')); }},
    {"Zeros", [](const std::string& path) { writeFile(path, std::string(readFile(path).size(), '\0')); }},
};

class CacheRepair : public CacheWriterTest, public testing::WithParamInterface<std::tuple<const char*, Damage>> {};

TEST_P(CacheRepair, NextPublicationMakesTheCacheWhole) {
    const auto& [file, damage] = GetParam();
    publish(small);
    damage.inflict(path(file));
    publish(small);
    EXPECT_EQ(differenceFrom(small), "");
    EXPECT_EQ(std::filesystem::file_size(path("metadata")), 64U);
}

INSTANTIATE_TEST_SUITE_P(Files, CacheRepair,
                         testing::Combine(testing::Values("metadata", "objects", "nodes", "segments", "manifest.json"),
                                          testing::ValuesIn(DAMAGES)),
                         [](const auto& instance) {
                             const std::string file = std::get<0>(instance.param);
                             return file.substr(0, file.find('.')) + std::get<1>(instance.param).name;
                         });

TEST_F(CacheWriterTest, MakesTheCacheWholeWhenEverythingIsGarbage) {
    for (const char* file : {"metadata", "objects", "nodes", "segments", "manifest.json", "writer.lck"}) {
        writeFile(path(file), std::string(12345, '\xC3'));
    }
    publish(small);
    EXPECT_EQ(differenceFrom(small), "");
}

// Publications that end too early.

/// What a reader finds in a directory that an interrupted publication left behind.
enum class Found { REFUSED, BEFORE, AFTER, NONSENSE };

void PrintTo(Found found, std::ostream* out) {
    static const char* const NAMES[] = {"none", "the old cache", "the new cache", "nonsense"};
    *out << NAMES[static_cast<int>(found)];
}

class CacheInterruption : public CacheWriterTest {
protected:
    Found find(const Contents& before, const Contents& after) const {
        const LogCapture log;
        try {
            const AccessCache cache(Manifest("cache", directory));
            const AccessCache::Reader reader = cache.lock();
        } catch (const EC_exception& refusal) {
            return refusal.status == 12 ? Found::REFUSED : Found::NONSENSE;
        } catch (const std::exception&) {
            return Found::NONSENSE;
        }
        if (differenceFrom(before).empty()) {
            return Found::BEFORE;
        }
        return differenceFrom(after).empty() ? Found::AFTER : Found::NONSENSE;
    }

    /// Interrupts a publication of `after` over one of `before` at each of its steps, checks what is left behind and
    /// that the next publication repairs it. Returns what was found, by the step.
    std::vector<Found> interruptEverywhere(const std::function<void()>& prepare, const Contents& before,
                                           const Contents& after,
                                           const std::function<bool(const Contents&, unsigned)>& interrupted) {
        std::vector<Found> found;
        for (bool more = true; more;) {
            std::filesystem::remove_all(directory);
            prepare();
            more = interrupted(after, static_cast<unsigned>(found.size()));
            found.push_back(find(before, after));
            EXPECT_NE(found.back(), Found::NONSENSE) << "at step " << found.size();
            EXPECT_FALSE(isHeldIfThere("manifest.json")) << "at step " << found.size();
            EXPECT_FALSE(isHeldIfThere("writer.lck")) << "at step " << found.size();
            publish(before);
            EXPECT_EQ(differenceFrom(before), "") << "at step " << found.size();
        }
        return found;
    }

    bool isHeldIfThere(const char* name) const {
        return std::filesystem::exists(path(name)) && isHeld(path(name), FileLockGuard::EXCLUSIVE);
    }

    /// Publishes in a process that kills itself before the given step. Whether it came to that step.
    bool killedAt(const Contents& contents, unsigned step) const {
        ChildProcess writer([&] {
            unsigned steps = 0;
            publish(contents, [&](const std::string&) {
                if (steps++ == step) {
                    kill(getpid(), SIGKILL);
                }
            });
            return 0;
        });
        const int result = writer.wait();
        EXPECT_THAT(result, AnyOf(0, -SIGKILL));
        return result == -SIGKILL;
    }

    /// Publishes with a failure before the given step. Whether it came to that step.
    bool failedAt(const Contents& contents, unsigned step) const {
        unsigned steps = 0;
        try {
            publish(contents, [&](const std::string& name) {
                if (steps++ == step) {
                    throw std::domain_error(name);
                }
            });
            return false;
        } catch (const std::domain_error&) {
            return true;
        }
    }

    /// Checks that it was the old cache, as often as that, then none, at least as often as that, and then the new one.
    static void expectInThisOrder(const std::vector<Found>& found, std::size_t before, std::size_t refused,
                                  std::size_t after) {
        ASSERT_GE(found.size(), before + refused + after);
        for (std::size_t i = 0; i < found.size(); ++i) {
            const Found expected = i < before                 ? Found::BEFORE
                                   : i < found.size() - after ? Found::REFUSED
                                                              : Found::AFTER;
            EXPECT_EQ(found[i], expected) << "at step " << i + 1;
        }
    }

    const Contents none = {};
};

TEST_F(CacheInterruption, KilledFirstPublicationLeavesNothingThatCanBeRead) {
    const auto found =
        interruptEverywhere([] {}, none, small, [this](const Contents& c, unsigned step) { return killedAt(c, step); });
    // The new one: killed before the last sync, and not killed.
    expectInThisOrder(found, 0, 21, 2);
}

TEST_F(CacheInterruption, KilledPublicationLeavesTheOldCacheOrTheNewOneOrNone) {
    Contents moved = contentsOf(4000, 3);
    moved.scope = SCOPE | "folder";
    const auto found = interruptEverywhere([this] { publish(small); }, small, moved,
                                           [this](const Contents& c, unsigned step) { return killedAt(c, step); });
    // The old one: 2 locks, 3 reservations, and the flag itself.
    expectInThisOrder(found, 6, 13, 2);
}

TEST_F(CacheInterruption, KilledShrinkingPublicationLeavesTheOldCacheOrTheNewOneOrNone) {
    const Contents large = contentsOf(1000, 3);
    const auto found = interruptEverywhere([&] { publish(large); }, large, small,
                                           [this](const Contents& c, unsigned step) { return killedAt(c, step); });
    expectInThisOrder(found, 3, 10, 2);
}

TEST_F(CacheInterruption, KilledRepairLeavesNoneOrTheNewOne) {
    const auto damage = [this] {
        publish(other);
        killedAt(small, 8);
        writeFile(path("segments"), "");
    };
    const auto found = interruptEverywhere(damage, none, small,
                                           [this](const Contents& c, unsigned step) { return killedAt(c, step); });
    expectInThisOrder(found, 0, 10, 2);
}

TEST_F(CacheInterruption, FailedPublicationLeavesTheOldCacheOrTheNewOneOrNone) {
    Contents moved = other;
    moved.scope = SCOPE | "folder";
    const auto found = interruptEverywhere([this] { publish(small); }, small, moved,
                                           [this](const Contents& c, unsigned step) { return failedAt(c, step); });
    expectInThisOrder(found, 6, 13, 2);
}

TEST_F(CacheInterruption, FailedPublicationLeavesNoDescriptorsBehind) {
    publish(small);
    const int before = testing_support::openDescriptorCount();
    for (unsigned step = 0; failedAt(step % 2 == 0 ? other : small, step); ++step) {
        EXPECT_EQ(testing_support::openDescriptorCount(), before) << "at step " << step;
    }
}

TEST_F(CacheInterruption, WriterMayBeKilledAtAnyTime) {
    const Contents large = contentsOf(4000, 3);
    publish(small);
    std::mt19937 random(5);  // NOLINT(cert-msc32-c,cert-msc51-cpp): repeatable
    for (int round = 0; round < 20; ++round) {
        Signal started;
        Signal never;
        ChildProcess writer([&]() -> int {
            started.notify();
            for (;;) {
                publish(large);
                publish(small);
            }
        });
        started.wait();
        never.waitFor(static_cast<int>(random() % 100));
        writer.kill(SIGKILL);
        writer.wait();
        EXPECT_NE(find(small, large), Found::NONSENSE);
    }
    publish(small);
    EXPECT_EQ(differenceFrom(small), "");
}

// Disks that do not do their part.

std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::system_error& failure) {
        return failure.what();
    }
    return "no failure";
}

TEST_F(CacheWriterTest, NamesTheFileThatCannotBeOpened) {
    std::filesystem::create_directories(path("nodes"));
    EXPECT_EQ(failureOf([&] { publish(small); }), "cannot open " + path("nodes") + ": Is a directory");
}

TEST_F(CacheWriterTest, NamesTheFileThatIsNone) {
    std::filesystem::create_directories(directory);
    ASSERT_EQ(mkfifo(path("segments").c_str(), 0600), 0);
    EXPECT_EQ(failureOf([&] { publish(small); }), "cannot write " + path("segments") + ": Invalid argument");
}

TEST_F(CacheWriterTest, NamesTheDirectoryThatCannotBeMade) {
    writeFile(directory, "");
    EXPECT_EQ(failureOf([&] { CacheWriter(path("x")).publish(small.model()); }),
              "cannot create " + path("x") + ": Not a directory");
}

TEST_F(CacheWriterTest, FileThatCannotGrowEndsThePublicationWithTheFlagSet) {
    publish(small);
    ChildProcess writer([&] {
        static_cast<void>(signal(SIGXFSZ, SIG_IGN));
        const rlimit limit{70000, 70000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const std::string failure = failureOf([&] { publish(contentsOf(6000, 0)); });
        return failure == "cannot write " + path("objects") + ": File too large" ? 0 : 1;
    });
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_TRUE(CacheInterpreter(filesIn(directory)).writing());
    // What there was room for was written.
    EXPECT_EQ(std::filesystem::file_size(path("objects")), 70000U);
    publish(other);
    EXPECT_EQ(differenceFrom(other), "");
}

// Several processes.

TEST_F(CacheWriterTest, WaitsForReadersOfOtherProcesses) {
    publish(small);
    Signal held;
    Signal published;
    Signal released;
    ChildProcess reader([&] {
        const LogCapture log;
        const AccessCache cache(Manifest("cache", directory));
        const AccessCache::Reader lock = cache.lock();
        held.notify();
        const bool tooEarly = published.waitFor(100);
        const bool same = lock.lookup(SCOPE | "folder" | "0") != nullptr && !lock.writing_in_progress();
        released.notify();
        return tooEarly || !same ? 1 : 0;
    });
    held.wait();
    bool flagSetTooEarly = false;
    publish(contentsOf(0, 0), [&](const std::string& step) {
        flagSetTooEarly = flagSetTooEarly || (step == "write metadata" && !released.waitFor(0));
    });
    published.notify();
    EXPECT_EQ(reader.wait(), 0);
    EXPECT_FALSE(flagSetTooEarly);
    EXPECT_EQ(differenceFrom(contentsOf(0, 0)), "");
}

TEST_F(CacheWriterTest, WaitsForOtherWritersWithoutShuttingReadersOut) {
    publish(small);
    Signal held;
    Signal released;
    ChildProcess writer([&] {
        const FileLockGuard guard(FileLockManager::instance().getLock(path("writer.lck")), FileLockGuard::EXCLUSIVE, -1,
                                  FileLock::DEFAULT_INTERVAL);
        held.notify();
        Signal never;
        never.waitFor(100);
        const bool readable = !isHeld(path("manifest.json"), FileLockGuard::SHARED);
        released.notify();
        return readable ? 0 : 1;
    });
    held.wait();
    publish(other,
            [&](const std::string& step) { EXPECT_TRUE(step == "lock writer.lck" || released.waitFor(0)) << step; });
    EXPECT_EQ(writer.wait(), 0);
    EXPECT_EQ(differenceFrom(other), "");
}

TEST_F(CacheWriterTest, ReadersFindOneCacheOrTheOtherWhileItIsPublishedAgainAndAgain) {
    const Contents large = contentsOf(3000, 1);
    publish(small);
    Signal done;
    ChildProcess reader([&] {
        const LogCapture log;
        const AccessCache cache(Manifest("cache", directory));
        const ObjectNamespace first = SCOPE | "folder" | "0";
        const ObjectNamespace last = SCOPE | "folder" | "2999";
        while (!done.waitFor(0)) {
            const AccessCache::Reader lock = cache.lock();
            const bool isLarge = lock.lookup(last) != nullptr;
            if (lock.getOperationBit(first, 0, Operation(0)) == isLarge ||
                lock.getOperationBit(first, 1, Operation(0)) != isLarge) {
                return 1;
            }
        }
        return 0;
    });
    for (int round = 0; round < 20; ++round) {
        publish(round % 2 == 0 ? large : small);
    }
    done.notify();
    EXPECT_EQ(reader.wait(), 0);
}

// The operation cache.

class OperationCacheWriter : public testing::Test {
protected:
    const TemporaryDirectory temporary;
    const std::string path = temporary / "operation-cache.json";
    const std::map<ObjectNamespace, std::int32_t> operations{{ObjectNamespace("OPERATIONS", "VIEW"), 0},
                                                             {ObjectNamespace("OPERATIONS", "a b"), 37}};
};

TEST_F(OperationCacheWriter, WritesBitNumbersByTheTextForm) {
    writeOperationCache(path, operations);
    EXPECT_EQ(readFile(path), "{\n    \"|OPERATIONS|VIEW|\": 0,\n    \"|OPERATIONS|a+b|\": 37\n}\n");
}

TEST_F(OperationCacheWriter, WritesNoOperations) {
    writeOperationCache(path, {});
    EXPECT_EQ(readFile(path), "{}\n");
}

TEST_F(OperationCacheWriter, ReplacesTheFile) {
    writeFile(path, "old");
    std::ifstream reader(path);
    writeOperationCache(path, operations);
    std::string old;
    reader >> old;
    EXPECT_EQ(old, "old");
    EXPECT_THAT(readFile(path), HasSubstr("VIEW"));
}

TEST_F(OperationCacheWriter, LeavesNothingButTheFileAndItsLock) {
    writeFile(path + ".new", std::string(1000, 'x'));
    writeOperationCache(path, operations);
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(temporary.path())) {
        names.insert(entry.path().filename().string());
    }
    EXPECT_THAT(names, ElementsAre("operation-cache.json", "operation-cache.json.lck"));
    EXPECT_EQ(readFile(path).back(), '\n');
}

TEST_F(OperationCacheWriter, MakesTheFolder) {
    writeOperationCache(temporary / "x/y/operations.json", operations);
    EXPECT_EQ(readFile(temporary / "x/y/operations.json").front(), '{');
}

TEST_F(OperationCacheWriter, KeepsTheOldFileWhereItFails) {
    writeOperationCache(path, operations);
    std::filesystem::create_directory(path + ".new");
    EXPECT_EQ(failureOf([&] { writeOperationCache(path, {}); }), "cannot open " + path + ".new: Is a directory");
    EXPECT_THAT(readFile(path), HasSubstr("VIEW"));
}

TEST_F(OperationCacheWriter, WaitsForReadersOfOtherProcesses) {
    writeOperationCache(path, operations);
    Signal held;
    Signal released;
    ChildProcess reader([&] {
        const FileLockGuard guard(FileLockManager::instance().getLock(path + ".lck"), FileLockGuard::SHARED, -1,
                                  FileLock::DEFAULT_INTERVAL);
        held.notify();
        Signal never;
        never.waitFor(100);
        const bool untouched = readFile(path).find("VIEW") != std::string::npos;
        released.notify();
        return untouched ? 0 : 1;
    });
    held.wait();
    writeOperationCache(path, {});
    EXPECT_TRUE(released.waitFor(0));
    EXPECT_EQ(reader.wait(), 0);
}

}  // namespace
}  // namespace Tesmor::Arkwell::Sandbox
