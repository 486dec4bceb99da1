#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/SystemCalls.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::detail::Mapping;
using Tesmor::Arkwell::Rbac::detail::MemoryMap;
using Tesmor::Arkwell::Rbac::detail::ReadOnlyBlockAllocator;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using testing_support::FailingCall;
using testing_support::FileMapping;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::mappingCount;
using testing_support::mappingPermissions;
using testing_support::MappingRecord;
using testing_support::openDescriptorCount;
using testing_support::overwriteFile;
using testing_support::SystemCall;
using testing_support::TemporaryDirectory;

namespace {

class MemoryMapTest : public testing::Test {
protected:
    void write(const std::string& contents) const { overwriteFile(path_, contents); }

    static std::string contents(const MemoryMap& map) { return {map.base(), map.mapped_size()}; }

    static bool isEmpty(const MemoryMap& map) { return map.base() == nullptr && map.mapped_size() == 0; }

    /// Runs something that has to throw a std::runtime_error, and checks its text
    /// and the standard error stream's.
    template <class Run>
    void expectFailure(const Run& run, const std::string& thrown, const std::string& written) {
        CaptureStderr();
        try {
            run();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::runtime_error& failure) {
            EXPECT_EQ(failure.what(), thrown);
        }
        EXPECT_EQ(GetCapturedStderr(), written);
    }

    template <class Run>
    void expectStatFailure(const Run& run) {
        const FailingCall failing(SystemCall::FSTAT, path_, EIO);
        expectFailure(run, "error statting file", "error statting " + path_ + ": Input/output error\n");
    }

    template <class Run>
    void expectMapFailure(const Run& run) {
        const FailingCall failing(SystemCall::MMAP, path_, ENOMEM);
        expectFailure(run, "error mapping file", "error mapping " + path_ + ": Cannot allocate memory\n");
    }

    LogLine instantiating() const { return {4, "MemoryMap", "instantiating memory map for " + path_}; }

    TemporaryDirectory directory_;
    std::string path_ = directory_ / "records";
    LogCapture log_;
};

}  // namespace

TEST_F(MemoryMapTest, MapsTheWholeFile) {
    write("sixteen bytes...");
    const MemoryMap map(path_);
    EXPECT_EQ(map.mapped_size(), 16U);
    EXPECT_EQ(map.current_size(), 16U);
    EXPECT_EQ(contents(map), "sixteen bytes...");
    EXPECT_EQ(mappingCount(path_), 1);
}

TEST_F(MemoryMapTest, MapsReadOnlyAndShared) {
    write("contents");
    const MemoryMap map(path_);
    EXPECT_EQ(mappingPermissions(path_), "r--s");
}

TEST_F(MemoryMapTest, ConstructionIsLogged) {
    write("contents");
    const MemoryMap map(path_);
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{instantiating()});
}

TEST_F(MemoryMapTest, ReadOnlyFileIsEnough) {
    write("contents");
    std::filesystem::permissions(path_, std::filesystem::perms::owner_read);
    EXPECT_EQ(contents(MemoryMap(path_)), "contents");
}

TEST_F(MemoryMapTest, EmptyFileIsAnEmptyMap) {
    write("");
    const MappingRecord record;
    const MemoryMap map(path_);
    EXPECT_TRUE(isEmpty(map));
    EXPECT_EQ(map.current_size(), 0U);
    EXPECT_EQ(record.made(), std::vector<FileMapping>());
}

TEST_F(MemoryMapTest, MissingFileCannotBeOpened) {
    expectFailure([this] { MemoryMap map(path_); }, "error opening file",
                  "error opening " + path_ + ": No such file or directory\n");
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{instantiating()});
}

TEST_F(MemoryMapTest, FailureToOpenLeavesNoDescriptorOpen) {
    const int before = openDescriptorCount();
    CaptureStderr();
    EXPECT_THROW(MemoryMap map(path_), std::runtime_error);
    GetCapturedStderr();
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(MemoryMapTest, FailureToStatInTheConstructor) {
    write("contents");
    const int before = openDescriptorCount();
    expectStatFailure([this] { MemoryMap map(path_); });
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{instantiating()});
}

TEST_F(MemoryMapTest, FailureToMapInTheConstructor) {
    write("contents");
    const int before = openDescriptorCount();
    expectMapFailure([this] { MemoryMap map(path_); });
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(mappingCount(path_), 0);
}

TEST_F(MemoryMapTest, DirectoryCannotBeMapped) {
    std::filesystem::create_directory(path_);
    const int before = openDescriptorCount();
    expectFailure([this] { MemoryMap map(path_); }, "error mapping file",
                  "error mapping " + path_ + ": No such device\n");
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(MemoryMapTest, FailuresAreNotLogged) {
    write("contents");
    const MemoryMap map(path_);
    log_.clear();
    expectStatFailure([&map] { map.current_size(); });
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(MemoryMapTest, DestructionUnmapsAndCloses) {
    write("contents");
    const int before = openDescriptorCount();
    {
        const MemoryMap map(path_);
        EXPECT_EQ(openDescriptorCount(), before + 1);
    }
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(mappingCount(path_), 0);
}

TEST_F(MemoryMapTest, RewrittenFileOfTheSameSizeShowsThroughTheMapping) {
    write("old bytes");
    MemoryMap map(path_);
    const char* const base = map.base();
    const MappingRecord record;
    write("new bytes");
    EXPECT_EQ(contents(map), "new bytes");
    EXPECT_FALSE(map.resized());
    map.refresh();
    EXPECT_EQ(record.made(), std::vector<FileMapping>());
    EXPECT_EQ(map.base(), base);
}

TEST_F(MemoryMapTest, GrownFileIsMappedAnew) {
    write("short");
    MemoryMap map(path_);
    const std::string longer(100'000, 'x');
    write(longer);
    EXPECT_TRUE(map.resized());
    EXPECT_EQ(map.mapped_size(), 5U);
    EXPECT_EQ(map.current_size(), longer.size());
    const MappingRecord record;
    map.refresh();
    EXPECT_EQ(record.made(), (std::vector<FileMapping>{{path_, longer.size()}}));
    EXPECT_EQ(contents(map), longer);
    EXPECT_EQ(mappingCount(path_), 1);
}

TEST_F(MemoryMapTest, ShrunkFileIsMappedAnew) {
    write(std::string(100'000, 'x'));
    MemoryMap map(path_);
    write("short");
    map.refresh();
    EXPECT_EQ(contents(map), "short");
    EXPECT_EQ(mappingCount(path_), 1);
}

TEST_F(MemoryMapTest, FileThatShrankToNothingIsLeftUnmapped) {
    write("contents");
    MemoryMap map(path_);
    write("");
    map.refresh();
    EXPECT_TRUE(isEmpty(map));
    EXPECT_EQ(mappingCount(path_), 0);
}

TEST_F(MemoryMapTest, FileThatGrewFromNothingIsMapped) {
    write("");
    MemoryMap map(path_);
    write("contents");
    map.refresh();
    EXPECT_EQ(contents(map), "contents");
}

TEST_F(MemoryMapTest, EmptyFileThatStaysEmptyIsNotMapped) {
    write("");
    MemoryMap map(path_);
    const MappingRecord record;
    map.refresh();
    EXPECT_TRUE(isEmpty(map));
    EXPECT_EQ(record.made(), std::vector<FileMapping>());
}

TEST_F(MemoryMapTest, SizeIsThatOfTheOpenFileNotOfThePath) {
    write("contents");
    MemoryMap map(path_);
    std::filesystem::rename(path_, directory_ / "moved");
    write("another file");
    EXPECT_EQ(map.current_size(), 8U);
    map.refresh();
    EXPECT_EQ(contents(map), "contents");
}

TEST_F(MemoryMapTest, UnmappingKeepsTheSize) {
    write("contents");
    MemoryMap map(path_);
    map.unmap();
    EXPECT_EQ(map.base(), nullptr);
    EXPECT_EQ(map.mapped_size(), 8U);
    EXPECT_EQ(mappingCount(path_), 0);
}

TEST_F(MemoryMapTest, UnmappingTwiceIsHarmless) {
    write("contents");
    MemoryMap map(path_);
    map.unmap();
    map.unmap();
    EXPECT_EQ(map.base(), nullptr);
}

TEST_F(MemoryMapTest, RefreshLeavesAnUnmappedFileOfTheSameSizeUnmapped) {
    write("contents");
    MemoryMap map(path_);
    map.unmap();
    map.refresh();
    EXPECT_EQ(map.base(), nullptr);
    EXPECT_EQ(map.mapped_size(), 8U);
}

TEST_F(MemoryMapTest, RefreshMapsAnUnmappedFileOfAnotherSize) {
    write("contents");
    MemoryMap map(path_);
    map.unmap();
    write("more contents");
    map.refresh();
    EXPECT_EQ(contents(map), "more contents");
}

TEST_F(MemoryMapTest, CanBeMappedAgain) {
    write("contents");
    MemoryMap map(path_);
    map.unmap();
    map.map();
    EXPECT_EQ(contents(map), "contents");
}

TEST_F(MemoryMapTest, MappingAgainLosesNoMapping) {
    write("contents");
    MemoryMap map(path_);
    map.map();
    EXPECT_EQ(contents(map), "contents");
    EXPECT_EQ(mappingCount(path_), 1);
}

TEST_F(MemoryMapTest, FailureToStatOnRefreshKeepsTheMapping) {
    write("contents");
    MemoryMap map(path_);
    expectStatFailure([&map] { map.refresh(); });
    EXPECT_EQ(contents(map), "contents");
}

TEST_F(MemoryMapTest, FailureToStatIsPassedOnByEverybodyWhoAsksForTheSize) {
    write("contents");
    MemoryMap map(path_);
    expectStatFailure([&map] { map.current_size(); });
    expectStatFailure([&map] { map.resized(); });
    expectStatFailure([&map] { map.map(); });
}

TEST_F(MemoryMapTest, FailureToRemapLeavesTheMapEmptyAndIsMadeUpForByTheNextRefresh) {
    write("contents");
    MemoryMap map(path_);
    write("more contents");
    expectMapFailure([&map] { map.refresh(); });
    EXPECT_TRUE(isEmpty(map));
    EXPECT_EQ(mappingCount(path_), 0);
    expectMapFailure([&map] { map.refresh(); });
    map.refresh();
    EXPECT_EQ(contents(map), "more contents");
}

TEST_F(MemoryMapTest, FailureToRemapToTheOldSizeIsMadeUpForToo) {
    write("contents");
    MemoryMap map(path_);
    write("more contents");
    expectMapFailure([&map] { map.refresh(); });
    write("contents");
    map.refresh();
    EXPECT_EQ(contents(map), "contents");
}

TEST_F(MemoryMapTest, ReplacedMappingIsHandedOver) {
    write("contents");
    MemoryMap map(path_);
    write("more contents");
    {
        Mapping old;
        map.replace(old);
        EXPECT_EQ(old.size(), 8U);
        EXPECT_EQ(std::string(old.base(), 8), "more con");
        EXPECT_EQ(contents(map), "more contents");
        EXPECT_EQ(mappingCount(path_), 2);
    }
    EXPECT_EQ(mappingCount(path_), 1);
}

TEST_F(MemoryMapTest, ReplacedMappingIsHandedOverAlsoWhereTheNewOneFails) {
    write("contents");
    MemoryMap map(path_);
    write("more contents");
    Mapping old;
    expectMapFailure([&map, &old] { map.replace(old); });
    EXPECT_TRUE(isEmpty(map));
    ASSERT_NE(old.base(), nullptr);
    EXPECT_EQ(std::string(old.base(), old.size()), "more con");
}

TEST_F(MemoryMapTest, MappingsAreMoved) {
    write("contents");
    MemoryMap map(path_);
    Mapping first;
    map.replace(first);
    const char* const base = first.base();
    Mapping second(std::move(first));
    EXPECT_EQ(second.base(), base);
    Mapping third;
    third = std::move(second);
    EXPECT_EQ(third.base(), base);
    EXPECT_EQ(third.size(), 8U);
    map.unmap();
    EXPECT_EQ(mappingCount(path_), 1);
    third = Mapping();
    EXPECT_EQ(mappingCount(path_), 0);
}

TEST_F(MemoryMapTest, ViewFindsRecordsByNumberAndByOffset) {
    const std::vector<std::uint64_t> records{10, 11, 12};
    write(std::string(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(std::uint64_t)));
    const MemoryMap map(path_);
    const ReadOnlyBlockAllocator<std::uint64_t> view(map);
    EXPECT_EQ(*view.at(0), 10U);
    EXPECT_EQ(*view.at(2), 12U);
    EXPECT_EQ(view.at(1), view.records() + 1);
    EXPECT_EQ(*view.containing(8), 11U);
    EXPECT_EQ(*view.containing(15), 11U);
    EXPECT_EQ(*view.containing(16), 12U);
}

TEST_F(MemoryMapTest, ViewOutlivesARemap) {
    write(std::string(8, '\0'));
    MemoryMap map(path_);
    const ReadOnlyBlockAllocator<std::uint64_t> view(map);
    write(std::string(8, '\0') + std::string(100'000, '\1'));
    map.refresh();
    EXPECT_EQ(view.at(1), reinterpret_cast<const std::uint64_t*>(map.base()) + 1);
    EXPECT_EQ(*view.at(1), 0x0101010101010101U);
}

TEST_F(MemoryMapTest, PathMayHoldPercentSigns) {
    path_ = directory_ / "100%s%n";
    expectFailure([this] { MemoryMap map(path_); }, "error opening file",
                  "error opening " + path_ + ": No such file or directory\n");
    EXPECT_EQ(log_.lines(), std::vector<LogLine>{instantiating()});
}
