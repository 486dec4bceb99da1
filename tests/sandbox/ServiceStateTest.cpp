#include "sandbox/AccessService.h"
#include "sandbox/CacheImage.h"
#include "sandbox/PrivateFiles.h"
#include "sandbox/ServiceError.h"
#include "sandbox/ServiceRouter.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <platform/FileLock.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

// The state and what is published of it, without the network around it.

using namespace Tesmor::Arkwell::Sandbox;
using testing::ElementsAre;
using testing::HasSubstr;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::readFile;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

namespace {

class ServiceStateTest : public testing::Test {
protected:
    ServiceStateTest() { replaceFile(state_, "", Readers::OWNER); }

    std::unique_ptr<AccessService> open() const { return std::make_unique<AccessService>(state_, published_); }

    static void addObject(AccessService& service, const std::string& name) {
        service.change([&name](StateChange& change) {
            change.tables.objects.add({name, "asset"});
            change.touch(name);
        });
    }

    /// The number of the publication that readers find.
    std::uint64_t publication() const {
        const std::string bytes = readFile(published_ + "/access-caches/all/metadata");
        CacheMetadata metadata{};
        std::memcpy(&metadata, bytes.data(), sizeof metadata);
        return metadata.publication;
    }

    static bool isThere(AccessService& service, const std::string& name) {
        bool found = false;
        service.read([&](const ServiceTables& tables) { found = tables.objects.find(name).has_value(); });
        return found;
    }

    TemporaryDirectory directory_;
    std::string state_ = directory_ / "state.db";
    std::string published_ = directory_ / "published";
};

}  // namespace

TEST_F(ServiceStateTest, KeepsChangesForTheNextTime) {
    addObject(*open(), "|ASSETS|db|");
    EXPECT_TRUE(isThere(*open(), "|ASSETS|db|"));
}

TEST_F(ServiceStateTest, UndoesAChangeThatFails) {
    const auto service = open();
    EXPECT_THROW(service->change([](StateChange& change) {
        change.tables.objects.add({"|ASSETS|db|", "asset"});
        throw std::runtime_error("no more");
    }),
                 std::runtime_error);
    EXPECT_FALSE(isThere(*service, "|ASSETS|db|"));
}

TEST_F(ServiceStateTest, PublishesOnlyWhatIsPublished) {
    const auto service = open();
    const std::uint64_t before = publication();
    service->change([](StateChange& change) { change.tables.roles.add("operators", ""); });
    EXPECT_EQ(publication(), before);
    addObject(*service, "|ASSETS|db|");
    EXPECT_EQ(publication(), before + 1);
}

TEST_F(ServiceStateTest, PublishesOnceForThoseWhoWaitTogether) {
    constexpr int CHANGES = 8;
    const auto service = open();
    const std::uint64_t before = publication();
    std::vector<std::thread> threads;
    {
        // A reader keeps publications waiting until all changes are in the database.
        const FileLockGuard reader(FileLockManager::instance().getLock(published_ + "/access-caches/all/manifest.json"),
                                   FileLockGuard::SHARED, -1, FileLock::DEFAULT_INTERVAL);
        for (int i = 0; i < CHANGES; ++i) {
            threads.emplace_back([&service, i] { addObject(*service, "|ASSETS|db" + std::to_string(i) + "|"); });
        }
        for (int i = 0; i < CHANGES; ++i) {
            while (!isThere(*service, "|ASSETS|db" + std::to_string(i) + "|")) {
                std::this_thread::yield();
            }
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GE(publication(), before + 1);
    EXPECT_LE(publication(), before + 2);
}

TEST_F(ServiceStateTest, SaysThatAChangeIsRecordedButNotPublished) {
    const LogCapture log;
    const auto service = open();
    std::filesystem::remove_all(published_);
    writeFile(published_, "in the way");
    try {
        addObject(*service, "|ASSETS|db|");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const ServiceError& error) {
        EXPECT_EQ(error.kind().code, 5502);
        EXPECT_THAT(error.details().front(), HasSubstr(published_));
    }
    EXPECT_EQ(log.linesAt(16).size(), 1U);
    EXPECT_TRUE(isThere(*service, "|ASSETS|db|"));
}

TEST_F(ServiceStateTest, PublishesWithTheNextChangeWhatItCouldNotPublish) {
    const LogCapture log;
    const auto service = open();
    std::filesystem::remove_all(published_);
    writeFile(published_, "in the way");
    EXPECT_THROW(addObject(*service, "|ASSETS|db|"), ServiceError);
    std::filesystem::remove(published_);
    addObject(*service, "|ASSETS|other|");
    // The objects at the top, these two, and the record that nothing refers to.
    EXPECT_EQ(std::filesystem::file_size(published_ + "/access-caches/all/objects") / 16, 9U + 2U + 1U);
    EXPECT_TRUE(std::filesystem::exists(published_ + "/operation-cache.json"));
}

TEST_F(ServiceStateTest, PublishesBeforeLongWhatItCouldNotPublish) {
    const LogCapture log;
    const auto service = open();
    std::filesystem::remove_all(published_);
    writeFile(published_, "in the way");
    EXPECT_THROW(addObject(*service, "|ASSETS|db|"), ServiceError);
    // The first attempts fail as well.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    std::filesystem::remove(published_);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (log.linesAt(8).empty() && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(std::filesystem::file_size(published_ + "/access-caches/all/objects") / 16, 9U + 1U + 1U);
    EXPECT_TRUE(std::filesystem::exists(published_ + "/operation-cache.json"));
    EXPECT_THAT(log.linesAt(8), ElementsAre(LogLine{8, "Publisher", "Published what could not be published before"}));
}

TEST_F(ServiceStateTest, SaysThatItFailed) {
    const LogCapture log;
    const auto service = open();
    SqliteDatabase(state_).execute("ALTER TABLE roles RENAME TO gone");
    const ServiceResponse response = answer(*service, {"GET", "/arkwell/access-control/roles", "", "", "", "me"});
    EXPECT_EQ(response.status, 500);
    EXPECT_EQ(
        response.body,
        R"({"errorCode":5501,"errorMessage":"The service failed","errorDetails":["SQLite: no such table: roles"]})");
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(LogLine{16, "ServiceRouter::answer",
                                    "GET /arkwell/access-control/roles: SQLite: no such table: roles"}));
}

TEST_F(ServiceStateTest, IsReadAndChangedByManyAtOnce) {
    constexpr int THREADS = 4;
    constexpr int CHANGES = 20;
    const auto service = open();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < CHANGES; ++i) {
                const std::string name = "|ASSETS|t" + std::to_string(thread) + "|o" + std::to_string(i) + "|";
                addObject(*service, name);
                failures += isThere(*service, name) ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    service->read(
        [](const ServiceTables& tables) { EXPECT_EQ(tables.objects.model().objectCount(), 9U + THREADS * CHANGES); });
}

TEST_F(ServiceStateTest, ReadsOneStateForAsLongAsItLooks) {
    const auto service = open();
    service->read([&](const ServiceTables& tables) {
        EXPECT_FALSE(tables.objects.find("|ASSETS|db|"));
        std::thread([&] { addObject(*service, "|ASSETS|db|"); }).join();
        EXPECT_FALSE(tables.objects.find("|ASSETS|db|"));
    });
    EXPECT_TRUE(isThere(*service, "|ASSETS|db|"));
}

TEST_F(ServiceStateTest, RefusesAFileThatIsNoDatabase) {
    writeFile(state_, std::string(10000, 'x'));
    EXPECT_THROW(open(), std::runtime_error);
}
