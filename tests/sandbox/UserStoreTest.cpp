#include "sandbox/UserStore.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <stdexcept>

using namespace Tesmor::Arkwell::Sandbox;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class UserStoreTest : public testing::Test {
protected:
    testing_support::TemporaryDirectory directory_;
    SqliteDatabase database_ = SqliteDatabase::create(directory_ / "state.db");
    UserStore users_{database_};
};

}  // namespace

TEST_F(UserStoreTest, KeepsUsersWithTheirRoles) {
    users_.put({"alice", false, {3, -1}});
    users_.put({"host", true, {}});
    EXPECT_THAT(users_.get("alice").roleIds, ElementsAre(-1, 3));
    EXPECT_FALSE(users_.get("alice").isMachine);
    EXPECT_TRUE(users_.get("host").isMachine);
    EXPECT_THAT(users_.get("host").roleIds, IsEmpty());
}

TEST_F(UserStoreTest, ReplacesAUserOfTheSameName) {
    users_.put({"alice", false, {1, 2}});
    users_.put({"alice", true, {2, 3}});
    EXPECT_THAT(users_.get("alice").roleIds, ElementsAre(2, 3));
    EXPECT_TRUE(users_.get("alice").isMachine);
    EXPECT_EQ(users_.all().size(), 1U);
}

TEST_F(UserStoreTest, ListsUsersByName) {
    users_.put({"carol"});
    users_.put({"alice"});
    users_.put({"bob'; DROP TABLE users"});
    std::vector<std::string> names;
    for (const User& user : users_.all()) {
        names.push_back(user.name);
    }
    EXPECT_THAT(names, ElementsAre("alice", "bob'; DROP TABLE users", "carol"));
}

TEST_F(UserStoreTest, RemovesAUserWithTheRoles) {
    users_.put({"alice", false, {1}});
    EXPECT_TRUE(users_.remove("alice"));
    EXPECT_FALSE(users_.remove("alice"));
    users_.put({"alice"});
    EXPECT_THAT(users_.get("alice").roleIds, IsEmpty());
}

TEST_F(UserStoreTest, NamesAUserThatThereIsNot) {
    try {
        users_.get("nobody");
        FAIL();
    } catch (const std::invalid_argument& failure) {
        EXPECT_STREQ(failure.what(), "there is no user nobody");
    }
}

TEST_F(UserStoreTest, IsThereForAnotherConnection) {
    users_.put({"alice", false, {1}});
    SqliteDatabase other(directory_ / "state.db");
    EXPECT_THAT(UserStore(other).get("alice").roleIds, ElementsAre(1));
}

TEST_F(UserStoreTest, IsForItsOwnerOnly) {
    users_.put({"alice"});
    for (const char* name : {"state.db", "state.db-wal", "state.db-shm"}) {
        struct stat status {};
        ASSERT_EQ(stat((directory_ / name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 07777U, 0600U) << name;
    }
}

TEST(SqliteDatabaseTest, UndoesATransactionThatIsNotCommitted) {
    const testing_support::TemporaryDirectory directory;
    SqliteDatabase database = SqliteDatabase::create(directory / "a.db");
    database.execute("CREATE TABLE t (n INTEGER)");
    {
        const SqliteTransaction transaction(database);
        SqliteStatement(database, "INSERT INTO t VALUES (1)").run();
    }
    EXPECT_FALSE(SqliteStatement(database, "SELECT n FROM t").step());
}

TEST(SqliteDatabaseTest, ReportsWhatSqliteSays) {
    const testing_support::TemporaryDirectory directory;
    SqliteDatabase database = SqliteDatabase::create(directory / "a.db");
    try {
        database.execute("nonsense");
        FAIL();
    } catch (const std::runtime_error& failure) {
        EXPECT_STREQ(failure.what(), "SQLite: near \"nonsense\": syntax error");
    }
    EXPECT_THROW(SqliteDatabase::create(directory / "no/such/folder.db"), std::runtime_error);
    EXPECT_THROW(SqliteDatabase(directory / "missing.db"), std::runtime_error);
}
