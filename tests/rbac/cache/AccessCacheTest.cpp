#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/SystemCalls.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/EC_exception.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::ManagedObject;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::NodeOffset;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using testing_support::FailingCall;
using testing_support::fileLockIsFree;
using testing_support::FileMapping;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::mappingCount;
using testing_support::MappingRecord;
using testing_support::openDescriptorCount;
using testing_support::overwriteFile;
using testing_support::RawCache;
using testing_support::resizeFile;
using testing_support::SystemCall;
using testing_support::TemporaryDirectory;

namespace {

const ObjectNamespace A("A");
const ObjectNamespace B("B");

class AccessCacheTest : public testing::Test {
protected:
    AccessCacheTest() {
        files_.put("|A|", 0);
        files_.write();
    }

    Manifest manifest() const { return {"some cache", files_.directory()}; }

    /// The record files, in the order in which they are opened.
    std::vector<std::string> recordFiles() const {
        return {files_.metadataFile(), files_.objectFile(), files_.nodeFile(), files_.segmentFile()};
    }
    /// Those that are remapped.
    std::vector<std::string> remappedFiles() const {
        return {files_.objectFile(), files_.nodeFile(), files_.segmentFile()};
    }

    static LogLine instantiating(const std::string& path) {
        return {4, "MemoryMap", "instantiating memory map for " + path};
    }

    int mappedFiles() const {
        int count = 0;
        for (const std::string& path : recordFiles()) {
            count += mappingCount(path);
        }
        return count;
    }

    /// Runs something that has to throw a std::runtime_error with this text, and
    /// returns the standard error stream's.
    template <class Run>
    static std::string failureText(const Run& run, const std::string& thrown) {
        CaptureStderr();
        try {
            run();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::runtime_error& failure) {
            EXPECT_EQ(failure.what(), thrown);
        }
        return GetCapturedStderr();
    }

    TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    LogCapture log_;
};

}  // namespace

TEST_F(AccessCacheTest, FileNames) {
    EXPECT_EQ(AccessCache::MANIFEST_FILE_NAME, "manifest.json");
    EXPECT_EQ(AccessCache::METADATA_FILE_NAME, "metadata");
    EXPECT_EQ(AccessCache::OBJECT_FILE_NAME, "objects");
    EXPECT_EQ(AccessCache::NODE_FILE_NAME, "nodes");
    EXPECT_EQ(AccessCache::SEGMENT_FILE_NAME, "segments");
    EXPECT_EQ(AccessCache::AD_COUNT_FILE_NAME, "counts");
}

TEST_F(AccessCacheTest, MapsTheFourFilesInOrder) {
    const MappingRecord record;
    const AccessCache cache(manifest());
    std::vector<LogLine> logged;
    std::vector<FileMapping> mapped;
    for (const std::string& path : recordFiles()) {
        logged.push_back(instantiating(path));
        mapped.push_back({path, std::filesystem::file_size(path)});
    }
    EXPECT_EQ(log_.lines(), logged);
    EXPECT_EQ(record.made(), mapped);
}

TEST_F(AccessCacheTest, CountsFileIsNotNeeded) {
    ASSERT_FALSE(std::filesystem::exists(files_.directory() + "/counts"));
    const AccessCache cache(manifest());
    EXPECT_NE(cache.lock().lookup(A), nullptr);
}

TEST_F(AccessCacheTest, ConstructionTakesNoLock) {
    const FileLockGuard held(FileLockManager::instance().getLock(files_.manifest()), FileLockGuard::EXCLUSIVE, -1,
                             FileLock::DEFAULT_INTERVAL);
    const AccessCache cache(manifest());
    EXPECT_EQ(cache.managedObjectCount(), 2U);
}

TEST_F(AccessCacheTest, ConstructionDoesNotLookAtTheWritingFlag) {
    testing_support::setWritingFlag(files_, 1);
    const AccessCache cache(manifest());
    EXPECT_EQ(log_.linesAt(16), std::vector<LogLine>());
}

TEST_F(AccessCacheTest, LockIsNamedByTheManifest) {
    const AccessCache cache(manifest());
    EXPECT_EQ(cache.manifest_filename(), files_.directory() + "/manifest.json");
}

TEST_F(AccessCacheTest, PathsAreJoinedWithoutNormalisation) {
    const AccessCache cache(Manifest("name", files_.directory() + "/"));
    EXPECT_EQ(cache.manifest_filename(), files_.directory() + "//manifest.json");
    EXPECT_EQ(log_.lines().front(), instantiating(files_.directory() + "//metadata"));
    EXPECT_NE(cache.lock().lookup(A), nullptr);
}

TEST_F(AccessCacheTest, OutlivesItsManifest) {
    std::optional<Manifest> original(manifest());
    const AccessCache cache(*original);
    original.reset();
    EXPECT_EQ(cache.manifest_filename(), files_.manifest());
}

TEST_F(AccessCacheTest, DestructionUnmapsAndCloses) {
    const int before = openDescriptorCount();
    {
        const AccessCache cache(manifest());
        cache.lock();
        EXPECT_EQ(mappedFiles(), 4);
    }
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(mappedFiles(), 0);
}

TEST_F(AccessCacheTest, EachMissingFileIsAFailureThatLeavesNothingOpen) {
    const int before = openDescriptorCount();
    std::vector<LogLine> opened;
    for (const std::string& path : recordFiles()) {
        opened.push_back(instantiating(path));
        std::filesystem::rename(path, path + ".aside");
        log_.clear();
        const std::string text = failureText([this] { AccessCache cache(manifest()); }, "error opening file");
        std::filesystem::rename(path + ".aside", path);

        EXPECT_EQ(text, "error opening " + path + ": No such file or directory\n");
        EXPECT_EQ(log_.lines(), opened);
        EXPECT_EQ(openDescriptorCount(), before) << path;
        EXPECT_EQ(mappedFiles(), 0) << path;
    }
}

TEST_F(AccessCacheTest, EachFailureToStatLeavesNothingOpen) {
    const int before = openDescriptorCount();
    for (const std::string& path : recordFiles()) {
        const FailingCall failing(SystemCall::FSTAT, path, EIO);
        const std::string text = failureText([this] { AccessCache cache(manifest()); }, "error statting file");
        EXPECT_EQ(text, "error statting " + path + ": Input/output error\n");
        EXPECT_EQ(openDescriptorCount(), before) << path;
        EXPECT_EQ(mappedFiles(), 0) << path;
    }
}

TEST_F(AccessCacheTest, EachFailureToMapLeavesNothingOpen) {
    const int before = openDescriptorCount();
    for (const std::string& path : recordFiles()) {
        const FailingCall failing(SystemCall::MMAP, path, ENOMEM);
        const std::string text = failureText([this] { AccessCache cache(manifest()); }, "error mapping file");
        EXPECT_EQ(text, "error mapping " + path + ": Cannot allocate memory\n");
        EXPECT_EQ(openDescriptorCount(), before) << path;
        EXPECT_EQ(mappedFiles(), 0) << path;
    }
}

TEST_F(AccessCacheTest, CountsTheRecordsOfTheObjectsFile) {
    files_.put("|B|", 0);
    files_.write();
    EXPECT_EQ(AccessCache(manifest()).managedObjectCount(), 3U);
}

TEST_F(AccessCacheTest, CountLeavesOutAnIncompleteRecord) {
    resizeFile(files_.objectFile(), 3 * sizeof(ManagedObject) + 15);
    EXPECT_EQ(AccessCache(manifest()).managedObjectCount(), 3U);
    resizeFile(files_.objectFile(), 15);
    EXPECT_EQ(AccessCache(manifest()).managedObjectCount(), 0U);
}

TEST_F(AccessCacheTest, EmptyObjectsFileHoldsNoObjects) {
    overwriteFile(files_.objectFile(), "");
    const AccessCache cache(manifest());
    EXPECT_EQ(cache.managedObjectCount(), 0U);
    const AccessCache::Reader reader = cache.lock();
    EXPECT_EQ(cache.managedObjectCount(), 0U);
    EXPECT_EQ(mappingCount(files_.objectFile()), 0);
}

TEST_F(AccessCacheTest, CacheWithEmptyRecordFilesAnswersNothing) {
    files_.header.segmentRoot = 0;
    files_.write();
    for (const std::string& path : remappedFiles()) {
        overwriteFile(path, "");
    }
    const AccessCache cache(manifest());
    EXPECT_EQ(cache.lock().lookup(A), nullptr);
    EXPECT_EQ(cache.lock().lookup(ObjectNamespace()), nullptr);
}

TEST_F(AccessCacheTest, LockRemapsWhatHasGrownInOrder) {
    const AccessCache cache(manifest());
    files_.put("|B|", 0, {{7, {1}}});
    files_.write();
    const MappingRecord record;
    const AccessCache::Reader reader = cache.lock();
    std::vector<FileMapping> remapped;
    for (const std::string& path : remappedFiles()) {
        remapped.push_back({path, std::filesystem::file_size(path)});
    }
    EXPECT_EQ(record.made(), remapped);
    EXPECT_EQ(mappedFiles(), 4);
    EXPECT_NE(reader.lookup(B), nullptr);
}

TEST_F(AccessCacheTest, LockRemapsOnlyTheFilesThatChangedTheirSizes) {
    const AccessCache cache(manifest());
    resizeFile(files_.nodeFile(), 50'000);
    const MappingRecord record;
    cache.lock();
    EXPECT_EQ(record.made(), (std::vector<FileMapping>{{files_.nodeFile(), 50'000}}));
}

TEST_F(AccessCacheTest, LockRemapsNothingWhereSizesAreTheSame) {
    const AccessCache cache(manifest());
    cache.lock();
    const MappingRecord record;
    cache.lock();
    EXPECT_EQ(record.made(), std::vector<FileMapping>());
}

TEST_F(AccessCacheTest, LockShowsNewBytesOfTheSameSizeThroughTheOldMapping) {
    const AccessCache cache(manifest());
    ASSERT_EQ(cache.lock().lookup(A)->inherit, 0);
    RawCache other(files_.directory());
    other.put("|B|", 1);
    ASSERT_EQ(other.objects.size(), files_.objects.size());
    ASSERT_EQ(other.segments.size(), files_.segments.size());
    other.write();
    const MappingRecord record;
    const AccessCache::Reader reader = cache.lock();
    EXPECT_EQ(record.made(), std::vector<FileMapping>());
    EXPECT_EQ(reader.lookup(A), nullptr);
    ASSERT_NE(reader.lookup(B), nullptr);
    EXPECT_EQ(reader.lookup(B)->inherit, 1);
}

TEST_F(AccessCacheTest, LockFollowsFilesThatShrink) {
    for (int i = 0; i < 2000; ++i) {
        files_.put("|B|" + std::to_string(i) + "|", 0, {{i, {i}}});
    }
    files_.write();
    const AccessCache cache(manifest());
    ASSERT_EQ(cache.managedObjectCount(), 2002U);
    RawCache smaller(files_.directory());
    smaller.put("|B|", 0);
    smaller.write();
    const AccessCache::Reader reader = cache.lock();
    EXPECT_EQ(cache.managedObjectCount(), 2U);
    EXPECT_NE(reader.lookup(B), nullptr);
    EXPECT_EQ(reader.lookup(A), nullptr);
    EXPECT_EQ(reader.lookup(B | "1"), nullptr);
}

TEST_F(AccessCacheTest, LockFollowsObjectsThatComeAndGoAltogether) {
    const AccessCache cache(manifest());
    RawCache nothing(files_.directory());
    nothing.write();
    overwriteFile(files_.objectFile(), "");
    EXPECT_EQ(cache.lock().lookup(A), nullptr);
    EXPECT_EQ(cache.managedObjectCount(), 0U);
    files_.write();
    EXPECT_NE(cache.lock().lookup(A), nullptr);
    EXPECT_EQ(cache.managedObjectCount(), 2U);
}

TEST_F(AccessCacheTest, CountFollowsTheFileAtTheNextLock) {
    const AccessCache cache(manifest());
    files_.put("|B|", 0);
    files_.write();
    EXPECT_EQ(cache.managedObjectCount(), 2U);
    cache.lock();
    EXPECT_EQ(cache.managedObjectCount(), 3U);
}

TEST_F(AccessCacheTest, MetadataIsNotMappedAnew) {
    const AccessCache cache(manifest());
    resizeFile(files_.metadataFile(), 100'000);
    const MappingRecord record;
    const AccessCache::Reader reader = cache.lock();
    EXPECT_EQ(record.made(), std::vector<FileMapping>());
    EXPECT_NE(reader.lookup(A), nullptr);
}

TEST_F(AccessCacheTest, NewSegmentRootShowsThroughTheMetadataMapping) {
    const AccessCache cache(manifest());
    RawCache other(files_.directory());
    other.putSegments("|");
    other.segments.resize(100, other.segments.back());
    other.header.segmentRoot = 0;
    other.put("|B|", 0);
    ASSERT_NE(other.header.segmentRoot, files_.header.segmentRoot);
    other.write();
    EXPECT_NE(cache.lock().lookup(B), nullptr);
}

TEST_F(AccessCacheTest, MetadataThatIsTooShortIsRefusedOnEveryLock) {
    for (const std::size_t size : {0U, 1U, 20U, 21U, 28U, 31U}) {
        files_.write();
        resizeFile(files_.metadataFile(), size);
        const AccessCache cache(manifest());
        for (int i = 0; i < 2; ++i) {
            log_.clear();
            try {
                cache.lock();
                ADD_FAILURE() << size;
            } catch (const EC_exception& failure) {
                EXPECT_EQ(failure.status, 12);
                EXPECT_EQ(failure.what(), getECmsg(12));
            }
            EXPECT_EQ(log_.lines(),
                      (std::vector<LogLine>{
                          {16, "AccessCache::Reader", "The metadata of cache | is too short. Assuming invalid."}}));
            EXPECT_TRUE(fileLockIsFree(files_.manifest()));
        }
    }
}

TEST_F(AccessCacheTest, RefusalOfShortMetadataNamesTheCachesNamespace) {
    const RawCache files(directory_ / "other", "|a+b|C|");
    files.write();
    resizeFile(files.metadataFile(), 31);
    const AccessCache cache(Manifest("name", files.directory()));
    EXPECT_THROW(cache.lock(), EC_exception);
    EXPECT_EQ(log_.linesAt(16),
              (std::vector<LogLine>{
                  {16, "AccessCache::Reader", "The metadata of cache |a+b|C| is too short. Assuming invalid."}}));
}

TEST_F(AccessCacheTest, MetadataOf32BytesIsEnough) {
    resizeFile(files_.metadataFile(), 32);
    const AccessCache cache(manifest());
    EXPECT_NE(cache.lock().lookup(A), nullptr);
}

TEST_F(AccessCacheTest, EachFailureToRemapReleasesTheLockAndIsMadeUpForByTheNextOne) {
    for (const std::string& path : remappedFiles()) {
        files_.write();
        const AccessCache cache(manifest());
        resizeFile(path, 50'000);
        for (int i = 0; i < 2; ++i) {
            const FailingCall failing(SystemCall::MMAP, path, ENOMEM);
            const std::string text = failureText([&cache] { cache.lock(); }, "error mapping file");
            EXPECT_EQ(text, "error mapping " + path + ": Cannot allocate memory\n");
            EXPECT_TRUE(fileLockIsFree(files_.manifest())) << path;
        }
        const MappingRecord record;
        EXPECT_NE(cache.lock().lookup(A), nullptr) << path;
        ASSERT_FALSE(record.made().empty()) << path;
        EXPECT_EQ(record.made().front(), (FileMapping{path, 50'000}));
    }
}

TEST_F(AccessCacheTest, EachFailureToStatOnLockReleasesTheLock) {
    const AccessCache cache(manifest());
    for (const std::string& path : remappedFiles()) {
        {
            const FailingCall failing(SystemCall::FSTAT, path, EIO);
            const std::string text = failureText([&cache] { cache.lock(); }, "error statting file");
            EXPECT_EQ(text, "error statting " + path + ": Input/output error\n");
        }
        EXPECT_TRUE(fileLockIsFree(files_.manifest())) << path;
        EXPECT_NE(cache.lock().lookup(A), nullptr) << path;
    }
}

TEST_F(AccessCacheTest, ObjectsThatCannotBeRemappedAreNotCounted) {
    const AccessCache cache(manifest());
    resizeFile(files_.objectFile(), 50'000);
    const FailingCall failing(SystemCall::MMAP, files_.objectFile(), ENOMEM);
    failureText([&cache] { cache.lock(); }, "error mapping file");
    EXPECT_EQ(cache.managedObjectCount(), 0U);
}

TEST_F(AccessCacheTest, FailedRemapLosesNoMapping) {
    const AccessCache cache(manifest());
    resizeFile(files_.objectFile(), 50'000);
    {
        const FailingCall failing(SystemCall::MMAP, files_.objectFile(), ENOMEM);
        failureText([&cache] { cache.lock(); }, "error mapping file");
    }
    EXPECT_EQ(mappingCount(files_.objectFile()), 0);
    cache.lock();
    EXPECT_EQ(mappingCount(files_.objectFile()), 1);
}

TEST_F(AccessCacheTest, LockThatCannotBeTakenIsPassedOn) {
    const AccessCache cache(manifest());
    const std::string aside = directory_ / "aside";
    std::filesystem::rename(files_.directory(), aside);
    try {
        cache.lock();
        FAIL() << "a lock was taken";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, platform_status::LOCK_UNAVAILABLE);
    }
    std::filesystem::rename(aside, files_.directory());
    EXPECT_NE(cache.lock().lookup(A), nullptr);
}

TEST_F(AccessCacheTest, TwoCachesOverOneDirectoryAreIndependent) {
    const AccessCache first(manifest());
    const AccessCache second(manifest());
    files_.put("|B|", 0);
    files_.write();
    const AccessCache::Reader reader = first.lock();
    EXPECT_NE(reader.lookup(B), nullptr);
    EXPECT_EQ(second.managedObjectCount(), 2U);
    EXPECT_NE(second.lock().lookup(B), nullptr);
}

TEST_F(AccessCacheTest, FilesAreLittleEndianWithFixedOffsets) {
    const std::string zeros4(4, '\0');
    const std::string noise4(4, '\x5A');
    // The root namespace has an object at offset 16, whose own role tree is at 24
    // and whose child role tree at 72.
    overwriteFile(files_.metadataFile(), std::string(20, '\x5A') + std::string(1, '\0') + std::string(7, '\x5A') +
                                             std::string("\x20\0\0\0", 4));
    overwriteFile(files_.segmentFile(), std::string(32, '\x5A') + noise4 + noise4 + zeros4 + zeros4 +
                                            std::string("\0\0\0|", 4) + std::string("\x10\0\0\0", 4) + zeros4 + noise4);
    overwriteFile(files_.objectFile(), std::string(16, '\x5A') + noise4 + std::string("\x01\x5A\x5A\x5A", 4) +
                                           std::string("\x18\0\0\0", 4) + std::string("\x48\0\0\0", 4));
    const auto node = [&](const std::string& key, const std::string& payload) {
        return noise4 + noise4 + zeros4 + zeros4 + key + payload;
    };
    overwriteFile(files_.nodeFile(), std::string(24, '\x5A') +
                                         node(std::string("\x2C\x01\0\0", 4), std::string("\x30\0\0\0", 4)) +
                                         node(std::string("\x01\0\0\0", 4), std::string("\x20\0\0\0", 4)) +
                                         node(std::string("\xFE\xFF\xFF\xFF", 4), std::string("\x60\0\0\0", 4)) +
                                         node(zeros4, std::string("\0\0\0\x80", 4)));
    const AccessCache cache(manifest());
    const AccessCache::Reader reader = cache.lock();
    const ManagedObject* const object = reader.lookup(ObjectNamespace());
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->inherit, 1);
    using Tesmor::Arkwell::Rbac::Operation;
    EXPECT_TRUE(reader.getOperationBit(*object, 300, Operation(37)));
    EXPECT_FALSE(reader.getOperationBit(*object, 300, Operation(5)));
    EXPECT_FALSE(reader.getOperationBit(*object, -2, Operation(31)));
    EXPECT_TRUE(reader.getChildOperationBit(*object, -2, Operation(31)));
    EXPECT_FALSE(reader.getChildOperationBit(*object, -2, Operation(0)));
}
