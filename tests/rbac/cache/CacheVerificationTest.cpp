#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/SystemCalls.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <rbac/CacheVerification.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

// What is found in caches that are made record by record.

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::FailingCall;
using testing_support::fileLockIsFree;
using testing_support::Grants;
using testing_support::LogCapture;
using testing_support::openDescriptorCount;
using testing_support::overwriteFile;
using testing_support::RawCache;
using testing_support::readFile;
using testing_support::resizeFile;
using testing_support::segmentValues;
using testing_support::SystemCall;
using testing_support::TemporaryDirectory;

namespace {

using Texts = std::vector<std::string>;

std::string lineOf(const CacheFault& fault) {
    return fault.file + " " + std::to_string(fault.offset) + " <" + fault.objectText + "> " + fault.what;
}

std::int32_t keyOf(const std::string& segment) {
    return segmentValues(segment).at(0);
}

class CacheVerificationTest : public testing::Test {
protected:
    Texts verify() {
        Texts lines;
        statistics_ = verifyCache(files_.directory(), [&](const CacheFault& fault) {
            lines.push_back(lineOf(fault));
            return true;
        });
        EXPECT_EQ(statistics_.faults, lines.size());
        EXPECT_TRUE(statistics_.complete);
        return lines;
    }
    /// The faults of the cache with its records as they are now.
    Texts faults() {
        files_.write();
        return verify();
    }
    /// The only fault of a cache with these segments one after the other and an object at the last of them.
    std::string faultOfKeys(const std::vector<std::int32_t>& keys) {
        files_ = RawCache(directory_.path());
        std::uint32_t offset = 0;
        for (const std::int32_t key : keys) {
            SegmentNode node{};
            node.key = key;
            node.child = offset + 64;
            files_.segments.push_back(node);
            offset += 32;
        }
        files_.segments.back().child = 0;
        files_.segments.back().object = files_.putRecord(0, 0, 0);
        files_.header.segmentRoot = 32;
        const Texts found = faults();
        return found.size() == 1 ? found.front() : std::to_string(found.size()) + " faults";
    }
    /// The same for this text, cut into segments.
    std::string faultOfText(const std::string& text) {
        const Texts found = faultsOf(text);
        return found.size() == 1 ? found.front() : std::to_string(found.size()) + " faults";
    }
    Texts faultsOf(const std::string& text) {
        files_ = RawCache(directory_.path());
        files_.put(text, 0);
        return faults();
    }

    LogCapture log_;
    TemporaryDirectory directory_;
    RawCache files_{directory_.path()};
    CacheStatistics statistics_;
};

/// A cache with one object, |A|, at 16, its segments at 32 and 64, its role 3 at 24 and that one's word 0 at 48.
class OneObjectCache : public CacheVerificationTest {
protected:
    OneObjectCache() { files_.put("|A|", 1, {{3, {5}}}); }
};

}  // namespace

TEST_F(CacheVerificationTest, EmptyCacheIsSound) {
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(CacheVerificationTest, EmptyRecordFilesAreSound) {
    files_.objects.clear();
    files_.nodes.clear();
    files_.segments.clear();
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(OneObjectCache, IsSound) {
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(CacheVerificationTest, DeepTreesAreSound) {
    std::vector<std::int32_t> operations;
    for (std::int32_t word = 0; word < 100; ++word) {
        operations.push_back(word * 32);
    }
    Grants grants;
    for (std::int32_t role = -50; role < 50; ++role) {
        grants.push_back({role, operations});
    }
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        files_.put(std::string("|x|") + letter + "|", 0, grants);
    }
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(statistics_.segmentTreeDepth, 26U);
    EXPECT_EQ(statistics_.roleTreeDepth, 100U);
    EXPECT_EQ(statistics_.wordTreeDepth, 100U);
}

TEST_F(CacheVerificationTest, RoleTreesMayBeSharedByObjects) {
    const auto tree = files_.putGrants({{3, {5}}, {4, {5}}});
    for (const char* text : {"|A|", "|B|", "|C|"}) {
        auto& object = files_.objectAt(files_.put(text, 0));
        object.ownRoles = tree;
        object.childRoles = tree;
    }
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(statistics_.roleTrees, 1U);
}

TEST_F(CacheVerificationTest, WordTreesMayBeSharedByRoles) {
    files_.put("|A|", 0, {{3, {5}}, {4, {5}}});
    const auto first = files_.objectAt(16).ownRoles;
    auto& second = files_.nodeAt(files_.nodeAt(first).right);
    files_.nodes.resize(second.payload / 24);
    files_.nodeAt(files_.nodeAt(first).right).payload = files_.nodeAt(first).payload;
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(statistics_.wordTrees, 1U);
}

TEST_F(CacheVerificationTest, RolesWithoutOperationsAndSegmentsThatLeadNowhereAreSound) {
    files_.put("|A|", 0, {{3, {}}});
    files_.putSegments("|B|C|");
    EXPECT_THAT(faults(), IsEmpty());
}

// Files.

TEST_F(OneObjectCache, MissingManifest) {
    files_.write();
    unlink(files_.manifest().c_str());
    EXPECT_THAT(verify(), ElementsAre("manifest.json 0 <> cannot be opened: No such file or directory"));
}

TEST_F(OneObjectCache, MissingMetadata) {
    files_.write();
    unlink(files_.metadataFile().c_str());
    EXPECT_THAT(verify(), ElementsAre("metadata 0 <> cannot be opened: No such file or directory"));
}

TEST_F(OneObjectCache, MissingObjects) {
    files_.write();
    unlink(files_.objectFile().c_str());
    EXPECT_THAT(verify(), ElementsAre("objects 0 <> cannot be opened: No such file or directory"));
}

TEST_F(OneObjectCache, MissingNodes) {
    files_.write();
    unlink(files_.nodeFile().c_str());
    EXPECT_THAT(verify(), ElementsAre("nodes 0 <> cannot be opened: No such file or directory"));
}

TEST_F(OneObjectCache, MissingSegments) {
    files_.write();
    unlink(files_.segmentFile().c_str());
    EXPECT_THAT(verify(), ElementsAre("segments 0 <> cannot be opened: No such file or directory"));
}

TEST_F(CacheVerificationTest, MissingDirectory) {
    std::filesystem::remove(directory_.path());
    EXPECT_EQ(verify().size(), 5U);
    EXPECT_FALSE(std::filesystem::exists(directory_.path()));
}

TEST_F(OneObjectCache, FifoInPlaceOfAFile) {
    files_.write();
    for (const std::string& path : {files_.manifest(), files_.segmentFile()}) {
        unlink(path.c_str());
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    }
    EXPECT_THAT(verify(), ElementsAre("manifest.json 0 <> is no regular file", "segments 0 <> is no regular file"));
}

TEST_F(OneObjectCache, DirectoryInPlaceOfAFile) {
    files_.write();
    unlink(files_.nodeFile().c_str());
    std::filesystem::create_directory(files_.nodeFile());
    EXPECT_THAT(verify(), ElementsAre("nodes 0 <> is no regular file"));
}

TEST_F(OneObjectCache, FileThatCannotBeExamined) {
    files_.write();
    const FailingCall failing(SystemCall::FSTAT, files_.nodeFile(), EIO);
    EXPECT_THAT(verify(), ElementsAre("nodes 0 <> cannot be examined: Input/output error"));
}

TEST_F(OneObjectCache, FileThatTheDiskDoesNotReturn) {
    files_.write();
    const FailingCall failing(SystemCall::PREAD, files_.segmentFile(), EIO);
    EXPECT_THAT(verify(), ElementsAre("segments 0 <> cannot be read: Input/output error"));
}

TEST_F(OneObjectCache, FileThatCannotBeMapped) {
    files_.write();
    const FailingCall failing(SystemCall::MMAP, files_.objectFile(), ENOMEM);
    EXPECT_THAT(verify(), ElementsAre("objects 0 <> cannot be mapped: Cannot allocate memory"));
}

TEST_F(OneObjectCache, MetadataThatAreTooShort) {
    files_.write();
    resizeFile(files_.metadataFile(), 31);
    EXPECT_THAT(verify(), ElementsAre("metadata 31 <> has 31 bytes, readers need 32"));
}

TEST_F(OneObjectCache, MetadataOfTheSandboxsWriterThatAreTooShort) {
    std::memcpy(files_.header.writerHead, "ARKCACHE\1\0\0\0", 12);
    files_.write();
    resizeFile(files_.metadataFile(), 63);
    EXPECT_THAT(verify(), ElementsAre("metadata 63 <> has 63 bytes, its writer makes it 64"));
}

TEST_F(OneObjectCache, FilesThatDoNotEndWithARecord) {
    files_.write();
    resizeFile(files_.objectFile(), 33);
    resizeFile(files_.nodeFile(), 74);
    resizeFile(files_.segmentFile(), 127);
    EXPECT_THAT(verify(), ElementsAre("objects 32 <> ends 1 bytes into a record, which has 16",
                                      "nodes 72 <> ends 2 bytes into a record, which has 24",
                                      "segments 96 <> ends 31 bytes into a record, which has 32"));
}

TEST_F(OneObjectCache, FileWhoseLastRecordIsCut) {
    files_.write();
    resizeFile(files_.segmentFile(), 95);
    EXPECT_THAT(verify(), ElementsAre("segments 64 <> ends 31 bytes into a record, which has 32",
                                      "segments 56 <|> the child offset 64 leads beyond the 2 records of segments",
                                      "objects 16 <> the record is lost: nothing leads to it, but it is not free",
                                      "nodes 24 <> the record is lost: nothing leads to it, but it is not free",
                                      "nodes 48 <> the record is lost: nothing leads to it, but it is not free"));
}

TEST_F(OneObjectCache, ManifestThatIsNoJson) {
    files_.write();
    overwriteFile(files_.manifest(), "{");
    EXPECT_THAT(verify(), ElementsAre(R"(manifest.json 0 <> is no JSON object with a text "namespace")"));
    EXPECT_EQ(log_.linesAt(16).size(), 1U);
}

TEST_F(OneObjectCache, ManifestWhoseNamespaceIsNone) {
    files_ = RawCache(directory_.path(), "|A");
    EXPECT_THAT(faults(), ElementsAre(R"(manifest.json 0 <> its "namespace" is not the text of one)"));
}

TEST_F(OneObjectCache, ManifestThatIsTooLarge) {
    files_.write();
    std::filesystem::resize_file(files_.manifest(), 16777217);
    EXPECT_THAT(verify(), ElementsAre("manifest.json 0 <> has 16777217 bytes, and none needs more than 16777216"));
}

TEST_F(OneObjectCache, WritingFlag) {
    files_.header.writing = 7;
    EXPECT_THAT(faults(), ElementsAre("metadata 20 <> the writing flag is 7: a publication was interrupted"));
    EXPECT_TRUE(statistics_.writing);
}

// Offsets.

TEST_F(CacheVerificationTest, RootBeyondTheEnd) {
    files_.header.segmentRoot = 32;
    EXPECT_THAT(faults(), ElementsAre("metadata 28 <> the root offset 32 leads beyond the 1 records of segments"));
}

TEST_F(OneObjectCache, LargestOffset) {
    files_.segmentAt(64).child = std::numeric_limits<NodeOffset>::max();
    EXPECT_THAT(faults(),
                ElementsAre("segments 88 <|A|> the child offset 4294967295 leads beyond the 3 records of segments"));
}

TEST_F(OneObjectCache, LinksOfSegmentsBeyondTheEnd) {
    files_.segmentAt(64).left = 96;
    files_.segmentAt(64).right = 128;
    files_.segmentAt(32).object = 32;
    EXPECT_THAT(faults(), ElementsAre("segments 52 <|> the object offset 32 leads beyond the 2 records of objects",
                                      "segments 72 <|A|> the left offset 96 leads beyond the 3 records of segments",
                                      "segments 76 <|A|> the right offset 128 leads beyond the 3 records of segments"));
}

TEST_F(OneObjectCache, RoleTreesBeyondTheEnd) {
    files_.objectAt(16).childRoles = 72;
    EXPECT_THAT(faults(),
                ElementsAre("objects 28 <|A|> the child role tree offset 72 leads beyond the 3 records of nodes"));
}

TEST_F(OneObjectCache, OwnRoleTreeBeyondTheEnd) {
    files_.objectAt(16).ownRoles = 96;
    files_.nodes.resize(1);
    EXPECT_THAT(faults(),
                ElementsAre("objects 24 <|A|> the own role tree offset 96 leads beyond the 1 records of nodes"));
}

TEST_F(OneObjectCache, LinksOfNodesBeyondTheEnd) {
    files_.nodeAt(24).left = 72;
    files_.nodeAt(48).right = 96;
    EXPECT_THAT(faults(), ElementsAre("nodes 60 <|A|> the right offset 96 leads beyond the 3 records of nodes",
                                      "nodes 32 <|A|> the left offset 72 leads beyond the 3 records of nodes"));
}

TEST_F(OneObjectCache, WordTreeBeyondTheEnd) {
    files_.nodeAt(24).payload = 72;
    files_.nodes.resize(2);
    EXPECT_THAT(faults(), ElementsAre("nodes 44 <|A|> the word tree offset 72 leads beyond the 2 records of nodes"));
}

TEST_F(OneObjectCache, OffsetsIntoTheMidstOfRecordsAreFollowed) {
    files_.header.segmentRoot += 4;
    files_.segmentAt(64).object += 8;
    files_.objectAt(16).ownRoles += 12;
    EXPECT_THAT(faults(), ElementsAre("metadata 28 <> the root offset 36 leads where no record of segments begins",
                                      "segments 84 <|A|> the object offset 24 leads where no record of objects begins",
                                      "objects 24 <|A|> the own role tree offset 36 leads where no record of nodes "
                                      "begins"));
}

TEST_F(OneObjectCache, OffsetIntoRecordZero) {
    files_.segmentAt(64).child = 31;
    EXPECT_THAT(faults(),
                ElementsAre("segments 88 <|A|> the child offset 31 leads where no record of segments begins"));
}

// Circles and records that are reached twice.

TEST_F(OneObjectCache, CircleOfSegments) {
    files_.segmentAt(64).child = 32;
    EXPECT_THAT(faults(),
                ElementsAre("segments 88 <|A|> the child offset 32 leads back to where it comes from: a circle"));
}

TEST_F(OneObjectCache, CircleOfOneSegment) {
    files_.segmentAt(64).left = 64;
    EXPECT_THAT(faults(),
                ElementsAre("segments 72 <|A|> the left offset 64 leads back to where it comes from: a circle"));
}

TEST_F(OneObjectCache, CircleOfRoles) {
    files_.nodeAt(24).right = 24;
    EXPECT_THAT(faults(),
                ElementsAre("nodes 36 <|A|> the right offset 24 leads back to where it comes from: a circle"));
}

TEST_F(OneObjectCache, CircleOfWords) {
    files_.nodeAt(48).left = 48;
    EXPECT_THAT(faults(), ElementsAre("nodes 56 <|A|> the left offset 48 leads back to where it comes from: a circle"));
}

TEST_F(CacheVerificationTest, SegmentThatIsReachedTwice) {
    files_.put("|A|", 0);
    files_.put("|B|", 0);
    files_.segmentAt(96).child = files_.segmentAt(64).child = 0;
    const auto last = files_.putSegments("|A|C|");
    files_.segmentAt(96).child = last;
    EXPECT_THAT(
        faults(),
        ElementsAre("segments 120 <|B|> the child offset 128 leads to a segment that something else leads to as well"));
}

TEST_F(CacheVerificationTest, ObjectThatIsReachedTwice) {
    files_.put("|A|", 0);
    files_.segmentAt(files_.putSegments("|B|")).object = 16;
    EXPECT_THAT(
        faults(),
        ElementsAre("segments 116 <|B|> the object offset 16 leads to an object that something else leads to as well"));
}

TEST_F(CacheVerificationTest, RoleThatIsReachedFromTwoRoles) {
    files_.put("|A|", 0, {{3, {}}, {5, {}}, {4, {}}});
    files_.nodeAt(24).left = files_.nodeAt(48).left;
    EXPECT_THAT(faults(), ElementsAre("nodes 88 <|A|> role 4 stands to the left of role 3 at 24",
                                      "nodes 56 <|A|> the left offset 72 leads to an inner node of a role tree that "
                                      "something else leads to as well"));
}

TEST_F(CacheVerificationTest, RoleTreeThatBeginsInTheMidstOfAnother) {
    files_.put("|A|", 0, {{3, {}}, {5, {}}});
    files_.objectAt(files_.put("|B|", 0)).ownRoles = 48;
    EXPECT_THAT(faults(), ElementsAre("objects 40 <|B|> the own role tree offset 48 leads to an inner node of a role "
                                      "tree that something else leads to as well"));
}

TEST_F(CacheVerificationTest, RootOfARoleTreeInTheMidstOfAnother) {
    files_.put("|A|", 0, {{3, {}}});
    files_.put("|B|", 0, {{2, {}}});
    files_.nodeAt(48).right = 24;
    EXPECT_THAT(faults(), ElementsAre("nodes 60 <|B|> the right offset 24 leads to the root of a role tree that "
                                      "something else leads to as well"));
}

TEST_F(OneObjectCache, WordTreeThatIsARoleTree) {
    files_.nodeAt(24).payload = 24;
    files_.nodes.resize(2);
    EXPECT_THAT(faults(), ElementsAre("nodes 44 <|A|> the word tree offset 24 leads to the root of a role tree that "
                                      "something else leads to as well"));
}

TEST_F(OneObjectCache, RoleTreeThatIsAWordTree) {
    files_.objectAt(16).childRoles = 48;
    EXPECT_THAT(faults(), ElementsAre("objects 28 <|A|> the child role tree offset 48 leads to the root of a word tree "
                                      "that something else leads to as well"));
}

TEST_F(CacheVerificationTest, WordTreeThatBeginsInTheMidstOfAnother) {
    files_.put("|A|", 0, {{3, {0, 40}}, {4, {}}});
    const auto second = files_.nodeAt(files_.nodeAt(24).payload).right;
    files_.nodeAt(files_.nodeAt(24).right).payload = second;
    EXPECT_THAT(faults(), ElementsAre("nodes 116 <|A|> the word tree offset 72 leads to an inner node of a word tree "
                                      "that something else leads to as well"));
}

// Order.

TEST_F(CacheVerificationTest, SegmentsThatAreNotInOrder) {
    files_.put("|A|", 0);
    files_.put("|B|", 0);
    std::swap(files_.segmentAt(64).left, files_.segmentAt(64).right);
    EXPECT_THAT(faults(),
                ElementsAre("segments 112 <|B|> segment 427C0000 stands to the left of segment 417C0000 at 64"));
}

TEST_F(CacheVerificationTest, SegmentThatStandsTwice) {
    files_.put("|A|", 0);
    files_.put("|B|", 0);
    files_.segmentAt(96).key = files_.segmentAt(64).key;
    EXPECT_THAT(faults(),
                ElementsAre("segments 112 <|A|> segment 417C0000 stands to the right of segment 417C0000 at 64"));
}

TEST_F(CacheVerificationTest, KeyThatIsOnTheWrongSideOfOneFurtherUp) {
    files_.put("|A|", 0, {{10, {}}, {20, {}}, {15, {}}, {12, {}}});
    files_.nodeAt(96).key = 9;
    EXPECT_THAT(faults(), ElementsAre("nodes 112 <|A|> role 9 stands to the right of role 10 at 24"));
}

TEST_F(CacheVerificationTest, KeysAreSigned) {
    files_.put("|A|", 0, {{0, {}}, {-1, {}}, {1, {}}, {-2147483647 - 1, {}}, {2147483647, {}}});
    EXPECT_THAT(faults(), IsEmpty());
    files_.nodeAt(files_.nodeAt(24).left).key = 5;
    EXPECT_THAT(faults(), ElementsAre("nodes 64 <|A|> role 5 stands to the left of role 0 at 24"));
}

TEST_F(CacheVerificationTest, WordsThatAreNotInOrder) {
    files_.put("|A|", 0, {{3, {32, 64}}});
    files_.nodeAt(72).key = 1;
    EXPECT_THAT(faults(), ElementsAre("nodes 88 <|A|> word 1 stands to the right of word 1 at 48"));
}

TEST_F(CacheVerificationTest, KeyThatIsNotInOrderDoesNotJudgeThoseBelow) {
    files_.put("|A|", 0, {{10, {}}, {20, {}}, {15, {}}, {30, {}}});
    files_.nodeAt(48).key = 5;
    EXPECT_THAT(faults(), ElementsAre("nodes 64 <|A|> role 5 stands to the right of role 10 at 24"));
}

// Texts.

TEST_F(CacheVerificationTest, EverythingThatATextHolds) {
    EXPECT_THAT(faultsOf("|"), IsEmpty());
    EXPECT_THAT(faultsOf("||||"), IsEmpty());
    EXPECT_THAT(faultsOf("|aZ09-*_.+%7C%25%00%FF|x|"), IsEmpty());
}

TEST_F(CacheVerificationTest, TextThatDoesNotBeginWithABar) {
    EXPECT_EQ(faultOfText("A|"), "segments 48 <A|> segment 417C0000 begins a text, which only 7C000000 does");
}

TEST_F(CacheVerificationTest, ShortSegmentWithoutABar) {
    EXPECT_EQ(faultOfKeys({keyOf("|"), keyOf("AB"), keyOf("|")}),
              "segments 80 <|AB> segment 41420000 has neither four bytes nor a |");
}

TEST_F(CacheVerificationTest, SegmentWithAZeroByteInside) {
    EXPECT_EQ(faultOfKeys({keyOf("|"), 0x41004243, keyOf("|")}),
              "segments 80 <|A> segment 41004243 has neither four bytes nor a |");
}

TEST_F(CacheVerificationTest, SegmentWithoutBytes) {
    EXPECT_EQ(faultOfKeys({keyOf("|"), 0, keyOf("|")}),
              "segments 80 <|> segment 00000000 has neither four bytes nor a |");
}

TEST_F(CacheVerificationTest, SegmentThatGoesOnAfterItsBar) {
    EXPECT_EQ(faultOfKeys({keyOf("|"), 0x417C4200}), "segments 80 <|A|> segment 417C4200 goes on after its |");
}

TEST_F(CacheVerificationTest, BytesThatAreWrittenAsEscapes) {
    EXPECT_EQ(faultOfText("|A~|"), "segments 80 <|A~|> segment 417E7C00 holds the byte 7E, which no text does");
    EXPECT_EQ(faultOfText("|\xE9|"), "segments 80 <|\\xE9|> segment E97C0000 holds the byte E9, which no text does");
    EXPECT_EQ(faultOfText("|\n|"), "segments 80 <|\\x0A|> segment 0A7C0000 holds the byte 0A, which no text does");
}

TEST_F(CacheVerificationTest, EscapesThatAreBrokenOff) {
    const std::string what = " breaks off an escape, which is a % with two of the digits 0 to 9 and A to F";
    EXPECT_EQ(faultOfText("|%|"), "segments 80 <|%|> segment 257C0000" + what);
    EXPECT_EQ(faultOfText("|%7|"), "segments 80 <|%7|> segment 25377C00" + what);
    EXPECT_EQ(faultOfText("|%7c|"), "segments 80 <|%7c|> segment 2537637C" + what);
}

TEST_F(CacheVerificationTest, EscapeThatIsBrokenOffInTheNextSegment) {
    EXPECT_EQ(faultOfText("|AB%7|"),
              "segments 112 <|AB%7|> segment 7C000000 breaks off an escape, which is a % with "
              "two of the digits 0 to 9 and A to F");
}

TEST_F(CacheVerificationTest, EscapeOfAByteThatNeedsNone) {
    EXPECT_EQ(faultOfText("|%41|"), "segments 80 <|%41|> segment 2534317C escapes the byte 41, which texts do not");
    EXPECT_EQ(faultOfText("|AB%20|"),
              "segments 112 <|AB%20|> segment 307C0000 escapes the byte 20, which texts do not");
}

TEST_F(CacheVerificationTest, ObjectWhereNoComponentEnds) {
    files_.segmentAt(files_.putSegments("|ABCD")).object = files_.putRecord(0, 0, 0);
    EXPECT_THAT(faults(),
                ElementsAre("segments 84 <|ABCD> segment 41424344 leads to the object at 16, but ends no component"));
}

TEST_F(OneObjectCache, WordThatNoOperationIsIn) {
    files_.nodeAt(48).key = 67108864;
    EXPECT_THAT(faults(), ElementsAre("nodes 64 <|A|> word 67108864 holds no operation, words 0 to 67108863 do"));
    files_.nodeAt(48).key = -1;
    EXPECT_THAT(faults(), ElementsAre("nodes 64 <|A|> word -1 holds no operation, words 0 to 67108863 do"));
    files_.nodeAt(48).key = 67108863;
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(OneObjectCache, CountOfObjectsThatIsNotTheirs) {
    std::memcpy(files_.header.writerHead, "ARKCACHE\1\0\0\0\2\0\0\0\0\0\0\0", 20);
    EXPECT_THAT(faults(), ElementsAre("metadata 12 <> there are to be 2 objects, the segments lead to 1"));
}

TEST_F(OneObjectCache, MetadataOfAnotherVersionAreAnotherWriters) {
    std::memcpy(files_.header.writerHead, "ARKCACHE\2\0\0\0\2\0\0\0\0\0\0\0", 20);
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_FALSE(statistics_.publication);
}

// What is lost.

TEST_F(OneObjectCache, LostObject) {
    files_.putRecord(0, 0, 0);
    EXPECT_THAT(faults(), ElementsAre("objects 32 <> the record is lost: nothing leads to it, but it is not free"));
}

TEST_F(OneObjectCache, LostNode) {
    files_.putGrants({{3, {}}});
    EXPECT_THAT(faults(), ElementsAre("nodes 72 <> the record is lost: nothing leads to it, but it is not free"));
}

TEST_F(OneObjectCache, LostSegment) {
    files_.segments.push_back(files_.segments.front());
    EXPECT_THAT(faults(), ElementsAre("segments 96 <> the record is lost: nothing leads to it, but it is not free"));
}

TEST_F(OneObjectCache, RecordWithOneBitSetIsLost) {
    files_.nodes.emplace_back();
    files_.nodes.back().writerData[1] = 0x80000000;
    EXPECT_THAT(faults(), ElementsAre("nodes 72 <> the record is lost: nothing leads to it, but it is not free"));
}

TEST_F(OneObjectCache, RecordsOfZerosAreFree) {
    files_.objects.resize(4);
    files_.nodes.resize(6);
    files_.segments.resize(8);
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(statistics_.objects.free, 2U);
    EXPECT_EQ(statistics_.nodes.free, 3U);
    EXPECT_EQ(statistics_.segments.free, 5U);
}

// What there is.

TEST_F(CacheVerificationTest, StatisticsAreThoseOfTheCache) {
    files_ = RawCache(directory_.path(), "|ASSETS|");
    files_.put("|ASSETS|", 0, {{3, {0, 31, 32}}, {-7, {0}}}, {{3, {37}}});
    files_.put("|ASSETS|db|x|", 1);
    files_.put("|ASSETS|dbb|", 1);
    files_.nodes.emplace_back();
    EXPECT_THAT(faults(), IsEmpty());
    const CacheStatistics& s = statistics_;
    EXPECT_EQ(s.namespaceText, "|ASSETS|");
    EXPECT_TRUE(s.locked);
    EXPECT_FALSE(s.writing);
    EXPECT_EQ(s.metadataBytes, 96U);
    EXPECT_EQ(s.objects.bytes, 4U * 16);
    EXPECT_EQ(s.objects.records, 3U);
    EXPECT_EQ(s.objects.reached, 3U);
    EXPECT_EQ(s.objects.free, 0U);
    EXPECT_EQ(s.nodes.bytes, 9U * 24);
    EXPECT_EQ(s.nodes.records, 8U);
    EXPECT_EQ(s.nodes.reached, 7U);
    EXPECT_EQ(s.nodes.free, 1U);
    EXPECT_EQ(s.nodes.fill(), 0.875);
    EXPECT_EQ(s.segments.bytes, 7U * 32);  // none, |, ASSE, TS|, db|, x|, dbb|
    EXPECT_EQ(s.segments.reached, 6U);
    EXPECT_EQ(s.inheriting, 2U);
    EXPECT_EQ(s.notInheriting, 1U);
    EXPECT_EQ(s.longestText, 13U);
    EXPECT_EQ(s.deepestNesting, 3U);
    EXPECT_EQ(s.roleTrees, 2U);
    EXPECT_EQ(s.wordTrees, 3U);
    EXPECT_EQ(s.roles, 2U);
    EXPECT_EQ(s.operations, 4U);
    EXPECT_EQ(s.segmentTreeDepth, 2U);
    EXPECT_EQ(s.roleTreeDepth, 2U);
    EXPECT_EQ(s.wordTreeDepth, 2U);
    EXPECT_FALSE(s.publication);
}

TEST_F(CacheVerificationTest, RootObjectHasNoComponents) {
    files_.put("|", 0);
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(statistics_.deepestNesting, 0U);
    EXPECT_EQ(statistics_.longestText, 1U);
}

TEST_F(CacheVerificationTest, EmptyFilesAreFull) {
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(statistics_.objects.fill(), 1);
}

// How it is reported.

TEST_F(CacheVerificationTest, TextsAreCut) {
    const std::string text = "|" + std::string(1023, 'n') + "|";
    files_.objectAt(files_.put(text, 0)).ownRoles = 24;
    EXPECT_THAT(faults(), ElementsAre("objects 24 <|" + std::string(1023, 'n') +
                                      "...> the own role tree offset 24 leads beyond the 1 records of nodes"));
}

TEST_F(CacheVerificationTest, TextsAreNotCutBefore) {
    const std::string text = "|" + std::string(1022, 'n') + "|";
    files_.objectAt(files_.put(text, 0)).ownRoles = 24;
    EXPECT_THAT(faults(), ElementsAre("objects 24 <" + text +
                                      "> the own role tree offset 24 leads beyond the 1 records of nodes"));
}

TEST_F(OneObjectCache, LooksNoFurtherThanItIsTold) {
    files_.header.writing = 1;
    files_.segmentAt(64).child = 32;
    files_.putRecord(0, 0, 0);
    files_.write();
    for (std::size_t wanted = 1; wanted <= 3; ++wanted) {
        std::size_t count = 0;
        const CacheStatistics statistics =
            verifyCache(files_.directory(), [&](const CacheFault&) { return ++count < wanted; });
        EXPECT_EQ(count, wanted);
        EXPECT_EQ(statistics.faults, wanted);
        EXPECT_FALSE(statistics.complete);
    }
}

TEST_F(OneObjectCache, WhatTheCallbackThrowsIsPassedOn) {
    files_.header.writing = 1;
    files_.write();
    const int before = openDescriptorCount();
    EXPECT_THROW(verifyCache(files_.directory(), [](const CacheFault&) -> bool { throw std::string("enough"); }),
                 std::string);
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_TRUE(fileLockIsFree(files_.manifest()));
}

// The lock, and what is left behind.

TEST_F(OneObjectCache, LockIsSharedMeanwhile) {
    files_.header.writing = 1;
    files_.write();
    bool excludesWriters = false;
    bool excludesReaders = true;
    verifyCache(files_.directory(), [&](const CacheFault&) {
        const FileLock lock = FileLockManager::instance().getLock(files_.manifest());
        excludesWriters = !fileLockIsFree(files_.manifest());
        const FileLockGuard reader(lock, FileLockGuard::SHARED, 0, FileLock::DEFAULT_INTERVAL);
        excludesReaders = false;
        return true;
    });
    EXPECT_TRUE(excludesWriters);
    EXPECT_FALSE(excludesReaders);
    EXPECT_TRUE(fileLockIsFree(files_.manifest()));
}

TEST_F(OneObjectCache, WaitsForTheWriter) {
    files_.header.writing = 1;
    files_.write();
    testing_support::Signal held;
    testing_support::ChildProcess writer([&] {
        const FileLockGuard guard(FileLockManager::instance().getLock(files_.manifest()), FileLockGuard::EXCLUSIVE, -1,
                                  FileLock::DEFAULT_INTERVAL);
        held.notify();
        testing_support::Signal never;
        never.waitFor(100);
        testing_support::setWritingFlag(files_, 0);
        return 0;
    });
    held.wait();
    EXPECT_THAT(verify(), IsEmpty());
    EXPECT_EQ(writer.wait(), 0);
}

TEST_F(OneObjectCache, MissingManifestIsNotMade) {
    files_.write();
    unlink(files_.manifest().c_str());
    verify();
    EXPECT_FALSE(statistics_.locked);
    EXPECT_FALSE(std::filesystem::exists(files_.manifest()));
}

TEST_F(OneObjectCache, CopyThatCannotBeLockedIsVerifiedAllTheSame) {
    files_.write();
    const FailingCall failing(SystemCall::FLOCK, files_.manifest(), ENOLCK);
    EXPECT_THAT(verify(), IsEmpty());
    EXPECT_FALSE(statistics_.locked);
    EXPECT_EQ(statistics_.objects.reached, 1U);
}

TEST_F(OneObjectCache, NothingIsChangedAndNothingLeftOpen) {
    files_.write();
    const int before = openDescriptorCount();
    const auto written = std::filesystem::last_write_time(files_.segmentFile());
    verify();
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(testing_support::mappingCount(files_.segmentFile()), 0);
    EXPECT_EQ(std::filesystem::last_write_time(files_.segmentFile()), written);
}

TEST_F(OneObjectCache, DescriptorsAreNotInherited) {
    files_.write();
    unlink(files_.nodeFile().c_str());
    std::filesystem::create_directory(files_.nodeFile());
    int inherited = 0;
    verifyCache(files_.directory(), [&](const CacheFault&) {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const std::string target = std::filesystem::read_symlink(entry, gone).string();
            const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
            inherited += target.rfind(files_.directory(), 0) == 0 && flags != FD_CLOEXEC ? 1 : 0;
        }
        return true;
    });
    EXPECT_EQ(inherited, 0);
}

// Bytes in memory.

TEST_F(OneObjectCache, BytesNeedNoAlignment) {
    files_.write();
    const auto shifted = [](const std::string& path) { return "x" + readFile(path); };
    const std::string metadata = shifted(files_.metadataFile());
    const std::string objects = shifted(files_.objectFile());
    const std::string nodes = shifted(files_.nodeFile());
    const std::string segments = shifted(files_.segmentFile());
    const auto view = [](const std::string& bytes) { return std::string_view(bytes).substr(1); };
    const CacheStatistics statistics = verifyCacheBytes({view(metadata), view(objects), view(nodes), view(segments)},
                                                        [](const CacheFault&) { return true; });
    EXPECT_EQ(statistics.faults, 0U);
    EXPECT_EQ(statistics.objects.reached, 1U);
    EXPECT_FALSE(statistics.locked);
}

// Large and hostile ones: what takes more than time in proportion to the size does not end within the test's time, and
// what goes as deep into recursion as the trees are deep does not survive.

TEST_F(CacheVerificationTest, DeepCacheWithAFaultAtEveryObject) {
    constexpr std::uint32_t COMPONENTS = 100'000;
    for (std::uint32_t i = 1; i <= COMPONENTS; ++i) {
        SegmentNode node{};
        node.key = keyOf(i == 1 ? "|" : "n|");
        node.child = i == COMPONENTS ? 0 : (i + 1) * 32;
        node.object = files_.putRecord(0, 24, 0);
        files_.segments.push_back(node);
    }
    files_.header.segmentRoot = 32;
    EXPECT_EQ(faults().size(), COMPONENTS);
    EXPECT_EQ(statistics_.longestText, 2 * COMPONENTS - 1);
    EXPECT_EQ(statistics_.deepestNesting, COMPONENTS - 1);
}

TEST_F(CacheVerificationTest, TreeThatIsAList) {
    constexpr std::uint32_t NODES = 300'000;
    for (std::uint32_t i = 1; i <= NODES; ++i) {
        RawCache::Node node{};
        node.key = static_cast<std::int32_t>(i);
        node.right = i == NODES ? 0 : (i + 1) * 24;
        files_.nodes.push_back(node);
    }
    files_.objectAt(files_.put("|A|", 0)).ownRoles = 24;
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_EQ(statistics_.roleTreeDepth, NODES);
    EXPECT_EQ(statistics_.roles, NODES);
}

TEST_F(CacheVerificationTest, ManyLostRecords) {
    files_.segments.resize(300'001, files_.segments.front());
    EXPECT_EQ(faults().size(), 300'000U);
}
