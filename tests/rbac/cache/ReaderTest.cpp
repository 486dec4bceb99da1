#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>
#include <rbac/AccessCache.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::ManagedObject;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::NodeOffset;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using testing_support::ChildProcess;
using testing_support::fileLockIsFree;
using testing_support::Grants;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::RawCache;
using testing_support::setWritingFlag;
using testing_support::Signal;
using testing_support::TemporaryDirectory;
using Reader = AccessCache::Reader;

namespace {

const ObjectNamespace ROOT;
const ObjectNamespace A("A");

class ReaderTest : public testing::Test {
protected:
    /// The cache, opened over the files as they are by now.
    const AccessCache& cache() {
        if (!cache_) {
            files_.write();
            cache_.emplace(Manifest("some cache", files_.directory()));
        }
        return *cache_;
    }

    Reader reader() { return cache().lock(); }

    const ManagedObject* lookup(const ObjectNamespace& ns) { return reader().lookup(ns); }

    /// The number of the record that is found, as it was put; 0 where there is
    /// none.
    NodeOffset found(const Reader& reader, const ObjectNamespace& ns) {
        const ManagedObject* const record = reader.lookup(ns);
        return record == nullptr ? 0 : static_cast<NodeOffset>((record - reader.getManagedObject(0)) * 16);
    }

    bool lockIsFree() const { return fileLockIsFree(files_.manifest()); }

    void expectInterrupted(const std::string& namespaceText = "|") {
        log_.clear();
        try {
            reader();
            ADD_FAILURE() << "a reader was made";
        } catch (const EC_exception& failure) {
            EXPECT_EQ(failure.status, 12);
            EXPECT_EQ(failure.what(), getECmsg(12));
        }
        EXPECT_EQ(log_.lines(), (std::vector<LogLine>{{16, "AccessCache::Reader",
                                                       "A previous write on cache " + namespaceText +
                                                           " was interrupted. Assuming invalid."}}));
    }

    TemporaryDirectory directory_;
    RawCache files_{directory_ / "cache"};
    std::optional<AccessCache> cache_;
    LogCapture log_;
};

}  // namespace

// Looking up.

TEST_F(ReaderTest, FindsEveryObject) {
    std::vector<std::pair<ObjectNamespace, NodeOffset>> objects;
    for (const char* text : {"|M|", "|", "|A|", "|Z|", "|A|B|", "|A|BC|", "|A|BCD|", "|A|BCDE|", "|A|BCDEF|", "||",
                             "|A||", "|||", "|A|BCDE|F|", "|a+b%7Cc|", "|A|B|C|D|E|F|G|"}) {
        objects.emplace_back(boost::lexical_cast<ObjectNamespace>(text), files_.put(text, 0));
    }
    const Reader r = reader();
    for (const auto& [ns, record] : objects) {
        EXPECT_EQ(found(r, ns), record) << ns;
    }
}

TEST_F(ReaderTest, FindsOnlyExactMatches) {
    files_.put("|A|BCDEFG|", 0);
    for (const ObjectNamespace& ns :
         {ObjectNamespace("A", "BCDEF"), ObjectNamespace("A", "BCDEFGH"), ObjectNamespace("A", "BCDEFG", ""),
          ObjectNamespace("A", "BCDE"), ObjectNamespace("A", "BCD"), ObjectNamespace("A", "bcdefg"),
          ObjectNamespace("B", "BCDEFG"), ObjectNamespace("BCDEFG"), ObjectNamespace("A"), ObjectNamespace(),
          ObjectNamespace(""), ObjectNamespace("", "A", "BCDEFG"), ObjectNamespace("A|BCDEFG")}) {
        EXPECT_EQ(lookup(ns), nullptr) << ns;
    }
}

TEST_F(ReaderTest, ReturnsTheRecordItself) {
    files_.put("|A|", 1, {{7, {0}}}, {{8, {0}}});
    const Reader r = reader();
    const ManagedObject* const record = r.lookup(A);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->inherit, 1);
    EXPECT_EQ(record->ownRoles, files_.objects.back().ownRoles);
    EXPECT_EQ(record->childRoles, files_.objects.back().childRoles);
    EXPECT_EQ(record->writerData, files_.objects.back().writerData);
}

TEST_F(ReaderTest, NoTreeNoObjects) {
    files_.put("|A|", 0);
    files_.put("|", 0);
    files_.header.segmentRoot = 0;
    EXPECT_EQ(lookup(A), nullptr);
    EXPECT_EQ(lookup(ROOT), nullptr);
}

TEST_F(ReaderTest, NodeWithoutAnObjectIsNoObjectThoughDeeperOnesExist) {
    files_.put("|A|BCDE|F|", 0);
    EXPECT_EQ(lookup(A), nullptr);
    EXPECT_EQ(lookup(ROOT), nullptr);
    EXPECT_EQ(lookup(A | "BCDE"), nullptr);
    EXPECT_NE(lookup(A | "BCDE" | "F"), nullptr);
}

TEST_F(ReaderTest, NodeWithoutAChildEndsTheSearch) {
    files_.put("|A|", 0);
    EXPECT_EQ(lookup(A | "B"), nullptr);
    EXPECT_EQ(lookup(A | ""), nullptr);
}

TEST_F(ReaderTest, MissingFirstSegmentEndsTheSearch) {
    files_.header.segmentRoot = files_.putSegments("x");
    EXPECT_EQ(lookup(ROOT), nullptr);
    EXPECT_EQ(lookup(A), nullptr);
}

TEST_F(ReaderTest, ObjectInTheMiddleOfAComponentIsNotTakenForAnAncestor) {
    const NodeOffset end = files_.put("|ABCDEF|", 0);
    files_.segmentAt(files_.putSegments("|ABCD")).object = files_.putRecord(1, 0, 0);
    const Reader r = reader();
    EXPECT_EQ(found(r, ObjectNamespace("ABCDEF")), end);
    EXPECT_EQ(r.lookup(ObjectNamespace("ABCD")), nullptr);
}

TEST_F(ReaderTest, KeysAreComparedAsSigned) {
    // As unsigned numbers these would lie on the other side of "|".
    files_.putSegments("|");
    for (const char* text : {"\x80", "\xFF\xFF\xFF\xFF", "\x80zzz", "}zzz", "A"}) {
        files_.putSegments(text);
    }
    EXPECT_NE(files_.segmentAt(files_.header.segmentRoot).left, 0U);
    const NodeOffset record = files_.put("|A|", 0);
    EXPECT_EQ(found(reader(), A), record);
}

TEST_F(ReaderTest, OffsetsSelectTheRecordThatContainsThem) {
    const NodeOffset other = files_.put("|M|", 0, {{5, {1}}});
    const NodeOffset left = files_.put("|A|", 0, {{5, {2}}});
    const NodeOffset right = files_.put("|Z|BCDE|F|", 0, {{5, {3}}});
    for (auto& segment : files_.segments) {
        segment.left += segment.left != 0 ? 31 : 0;
        segment.right += segment.right != 0 ? 1 : 0;
        segment.child += segment.child != 0 ? 17 : 0;
        segment.object += segment.object != 0 ? 15 : 0;
    }
    for (auto& object : files_.objects) {
        object.ownRoles += 23;
    }
    files_.header.segmentRoot += 5;
    const Reader r = reader();
    const ObjectNamespace z("Z", "BCDE", "F");
    EXPECT_EQ(found(r, ObjectNamespace("M")), other);
    EXPECT_EQ(found(r, A), left);
    EXPECT_EQ(found(r, z), right);
    EXPECT_TRUE(r.getOperationBit(ObjectNamespace("M"), 5, Operation(1)));
    EXPECT_TRUE(r.getOperationBit(A, 5, Operation(2)));
    EXPECT_TRUE(r.getOperationBit(z, 5, Operation(3)));
}

TEST_F(ReaderTest, ManagedObjectIsTheRecordThatContainsTheOffset) {
    const NodeOffset record = files_.put("|A|", 0);
    const Reader r = reader();
    const ManagedObject* const object = r.lookup(A);
    EXPECT_EQ(r.getManagedObject(record), object);
    EXPECT_EQ(r.getManagedObject(record + 15), object);
    EXPECT_EQ(r.getManagedObject(record - 1), object - 1);
    EXPECT_EQ(r.getManagedObject(record + 16), object + 1);
}

TEST_F(ReaderTest, LookupDoesNotChangeTheNamespace) {
    files_.put("|A|", 0);
    const ObjectNamespace ns("A");
    lookup(ns);
    EXPECT_EQ(ns, A);
    EXPECT_EQ(ns.str(), "|A|");
}

// Operation bits.

TEST_F(ReaderTest, OwnAndChildBitsAreApart) {
    files_.put("|A|", 0, {{7, {3, 37}}}, {{7, {4}}, {8, {3}}});
    const Reader r = reader();
    const ManagedObject& object = *r.lookup(A);
    EXPECT_TRUE(r.getOperationBit(object, 7, Operation(3)));
    EXPECT_TRUE(r.getOperationBit(object, 7, Operation(37)));
    EXPECT_FALSE(r.getOperationBit(object, 7, Operation(4)));
    EXPECT_FALSE(r.getOperationBit(object, 8, Operation(3)));
    EXPECT_FALSE(r.getChildOperationBit(object, 7, Operation(3)));
    EXPECT_TRUE(r.getChildOperationBit(object, 7, Operation(4)));
    EXPECT_TRUE(r.getChildOperationBit(object, 8, Operation(3)));
}

TEST_F(ReaderTest, BitsOfANamespaceAreThoseOfItsObject) {
    files_.put("|A|", 0, {{7, {3}}}, {{7, {4}}});
    const Reader r = reader();
    EXPECT_TRUE(r.getOperationBit(A, 7, Operation(3)));
    EXPECT_FALSE(r.getOperationBit(A, 7, Operation(4)));
    EXPECT_FALSE(r.getChildOperationBit(A, 7, Operation(3)));
    EXPECT_TRUE(r.getChildOperationBit(A, 7, Operation(4)));
}

TEST_F(ReaderTest, NamespaceWithoutAnObjectHasNoBits) {
    files_.put("|A|", 1, {{7, {3}}}, {{7, {3}}});
    const Reader r = reader();
    for (const ObjectNamespace& ns : {ObjectNamespace(), ObjectNamespace("B"), ObjectNamespace("A", "B")}) {
        EXPECT_FALSE(r.getOperationBit(ns, 7, Operation(3))) << ns;
        EXPECT_FALSE(r.getChildOperationBit(ns, 7, Operation(3))) << ns;
    }
}

TEST_F(ReaderTest, ObjectWithoutRoleTreesHasNoBits) {
    files_.put("|A|", 1);
    const Reader r = reader();
    EXPECT_FALSE(r.getOperationBit(A, 0, Operation(0)));
    EXPECT_FALSE(r.getChildOperationBit(A, 0, Operation(0)));
}

TEST_F(ReaderTest, BitsAreThoseOfTheRecordGivenWhereverItLies) {
    files_.put("|A|", 0, {{7, {3}}}, {{7, {4}}});
    const Reader r = reader();
    const ManagedObject copy = *r.lookup(A);
    EXPECT_TRUE(r.getOperationBit(copy, 7, Operation(3)));
    EXPECT_TRUE(r.getChildOperationBit(copy, 7, Operation(4)));
}

// The writing flag.

TEST_F(ReaderTest, WritingFlagIsRefusedUntilItIsCleared) {
    files_.put("|A|", 0);
    cache();
    setWritingFlag(files_, 1);
    for (int i = 0; i < 3; ++i) {
        expectInterrupted();
        EXPECT_TRUE(lockIsFree());
    }
    setWritingFlag(files_, 0);
    log_.clear();
    EXPECT_NE(lookup(A), nullptr);
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(ReaderTest, AnyNonzeroWritingFlagIsRefused) {
    cache();
    for (const int flag : {1, 2, 0x80, 0xFF}) {
        setWritingFlag(files_, static_cast<std::uint8_t>(flag));
        expectInterrupted();
    }
}

TEST_F(ReaderTest, RefusalNamesTheCachesNamespace) {
    const RawCache files(directory_ / "other", "|a+b|C%25|");
    files.write();
    setWritingFlag(files, 1);
    cache_.emplace(Manifest("name", files.directory()));
    expectInterrupted("|a+b|C%25|");
}

TEST_F(ReaderTest, ConstructorTakesTheLockAndLooksAtTheFlag) {
    const AccessCache& opened = cache();
    {
        const Reader direct(opened);
        EXPECT_FALSE(direct.writing_in_progress());
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_TRUE(lockIsFree());
    setWritingFlag(files_, 1);
    log_.clear();
    EXPECT_THROW(Reader direct(opened), EC_exception);
    EXPECT_EQ(log_.lines().size(), 1U);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, ConstructorAloneDoesNotRefresh) {
    const AccessCache& opened = cache();
    const std::size_t before = opened.managedObjectCount();
    files_.put("|A|", 0);
    files_.write();
    {
        const Reader direct(opened);
        EXPECT_EQ(opened.managedObjectCount(), before);
    }
    EXPECT_EQ(lookup(A) != nullptr, true);
}

TEST_F(ReaderTest, FlagIsReadFromTheFileEachTime) {
    const Reader r = reader();
    EXPECT_FALSE(r.writing_in_progress());
    setWritingFlag(files_, 1);
    EXPECT_TRUE(r.writing_in_progress());
    setWritingFlag(files_, 0);
    EXPECT_FALSE(r.writing_in_progress());
}

TEST_F(ReaderTest, RefusedLockDoesNotRefresh) {
    const AccessCache& opened = cache();
    const std::size_t before = opened.managedObjectCount();
    files_.put("|A|", 0);
    files_.header.writing = 1;
    files_.write();
    EXPECT_THROW(opened.lock(), EC_exception);
    EXPECT_EQ(opened.managedObjectCount(), before);
}

// The lock.

TEST_F(ReaderTest, LockIsHeldAsLongAsTheReaderLives) {
    std::optional<Reader> r(reader());
    EXPECT_FALSE(lockIsFree());
    r.reset();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, LockIsReleasedWithTheLastCopy) {
    std::optional<Reader> first(reader());
    std::optional<Reader> second(*first);
    std::optional<Reader> third(*second);
    first.reset();
    EXPECT_FALSE(lockIsFree());
    third.reset();
    EXPECT_FALSE(lockIsFree());
    EXPECT_EQ(second->lookup(A), nullptr);
    second.reset();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, AssignmentSharesTheLockAndGivesUpTheOldOne) {
    RawCache otherFiles(directory_ / "other");
    otherFiles.put("|B|", 0);
    otherFiles.write();
    const AccessCache other(Manifest("other", otherFiles.directory()));
    files_.put("|A|", 0);

    std::optional<Reader> first(reader());
    Reader second = other.lock();
    second = *first;
    EXPECT_TRUE(fileLockIsFree(otherFiles.manifest()));
    EXPECT_NE(second.lookup(A), nullptr);
    first.reset();
    EXPECT_FALSE(lockIsFree());
    second = other.lock();
    EXPECT_TRUE(lockIsFree());
    EXPECT_NE(second.lookup(ObjectNamespace("B")), nullptr);
}

TEST_F(ReaderTest, SelfAssignmentKeepsTheLock) {
    std::optional<Reader> r(reader());
    const Reader& same = *r;
    *r = same;
    EXPECT_FALSE(lockIsFree());
    r.reset();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, AssignmentFromACopyKeepsTheLockUntilBothAreGone) {
    std::optional<Reader> first(reader());
    std::optional<Reader> second(*first);
    *second = *first;
    first.reset();
    EXPECT_FALSE(lockIsFree());
    second.reset();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, ReaderMayBeDestroyedByAnotherThread) {
    auto r = std::make_unique<Reader>(reader());
    std::thread([&r] { r.reset(); }).join();
    EXPECT_TRUE(lockIsFree());
    EXPECT_EQ(lookup(A), nullptr);
}

TEST_F(ReaderTest, CopyMayGoToAnotherThread) {
    files_.put("|A|", 0);
    std::optional<Reader> r(reader());
    Signal original;
    std::thread other([copy = *r, &original] {
        original.wait();
        EXPECT_NE(copy.lookup(A), nullptr);
    });
    r.reset();
    EXPECT_FALSE(lockIsFree());
    original.notify();
    other.join();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, OneThreadMayHoldSeveralReaders) {
    std::vector<Reader> readers;
    for (int i = 0; i < 40; ++i) {
        readers.push_back(reader());
    }
    EXPECT_FALSE(lockIsFree());
    readers.erase(readers.begin(), readers.begin() + 39);
    EXPECT_FALSE(lockIsFree());
    readers.clear();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, ReadersInOtherProcessesAreNotExcluded) {
    const AccessCache& opened = cache();
    Signal held;
    Signal release;
    ChildProcess child([&] {
        const Reader r = opened.lock();
        held.notify();
        release.wait();
        return 0;
    });
    held.wait();
    EXPECT_EQ(opened.lock().lookup(A), nullptr);
    EXPECT_FALSE(lockIsFree());
    release.notify();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, ExclusiveHolderInAnotherProcessDelaysTheReaderAndItsChangesAreSeen) {
    const AccessCache& opened = cache();
    Signal held;
    Signal release;
    ChildProcess writer([&] {
        const FileLockGuard exclusive(FileLockManager::instance().getLock(files_.manifest()), FileLockGuard::EXCLUSIVE,
                                      -1, FileLock::DEFAULT_INTERVAL);
        setWritingFlag(files_, 1);
        held.notify();
        release.wait();
        files_.put("|A|", 0);
        files_.write();
        return 0;
    });
    held.wait();
    std::future<bool> found = std::async(std::launch::async, [&] { return opened.lock().lookup(A) != nullptr; });
    EXPECT_EQ(found.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    release.notify();
    EXPECT_TRUE(found.get());
    EXPECT_EQ(writer.wait(), 0);
}

TEST_F(ReaderTest, WriterThatDiedLeavesAnInvalidCacheAndNoLock) {
    const AccessCache& opened = cache();
    Signal held;
    ChildProcess writer([&] {
        const FileLockGuard exclusive(FileLockManager::instance().getLock(files_.manifest()), FileLockGuard::EXCLUSIVE,
                                      -1, FileLock::DEFAULT_INTERVAL);
        setWritingFlag(files_, 1);
        held.notify();
        Signal().wait();
        return 0;
    });
    held.wait();
    std::future<int> status = std::async(std::launch::async, [&] {
        try {
            opened.lock();
            return 0;
        } catch (const EC_exception& failure) {
            return failure.status;
        }
    });
    writer.kill(SIGKILL);
    writer.wait();
    EXPECT_EQ(status.get(), 12);
}

TEST_F(ReaderTest, ForkChildReadsWithALockOfItsOwn) {
    files_.put("|A|", 0);
    const AccessCache& opened = cache();
    std::optional<Reader> parents(opened.lock());
    Signal held;
    Signal release;
    ChildProcess child([&] {
        const Reader r = opened.lock();
        if (r.lookup(A) == nullptr) {
            return 1;
        }
        held.notify();
        release.wait();
        return 0;
    });
    held.wait();
    parents.reset();
    EXPECT_FALSE(lockIsFree());
    release.notify();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, ForkChildHoldsNoLockOfItsParent) {
    std::optional<Reader> parents(reader());
    Signal forked;
    Signal release;
    ChildProcess child([&] {
        forked.notify();
        release.wait();
        return 0;
    });
    forked.wait();
    parents.reset();
    EXPECT_TRUE(lockIsFree());
    release.notify();
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(ReaderTest, ForkChildMayDestroyItsCopiesOfReaders) {
    std::optional<Reader> parents(reader());
    std::optional<Reader> second(*parents);
    ChildProcess child([&] {
        parents.reset();
        second.reset();
        // With its own copies gone the child is not the one who keeps itself out.
        return fileLockIsFree(files_.manifest()) ? 1 : 0;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(lockIsFree());
    parents.reset();
    EXPECT_FALSE(lockIsFree());
    second.reset();
    EXPECT_TRUE(lockIsFree());
}

TEST_F(ReaderTest, ForkChildFollowsChangesOfTheFiles) {
    const AccessCache& opened = cache();
    const Reader parents = opened.lock();
    ChildProcess child([&] {
        files_.put("|A|", 0);
        files_.write();
        return opened.lock().lookup(A) != nullptr ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}
