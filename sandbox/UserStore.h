#pragma once

#include "sandbox/SqliteDatabase.h"

#include <set>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

struct User {
    std::string name;
    bool isMachine = false;
    std::set<int> roleIds = {};
};

/// The users that tokens can be issued for. For one thread at a time; throws std::runtime_error where SQLite fails.
class UserStore {
public:
    /// Makes the tables, where they are missing.
    explicit UserStore(SqliteDatabase& database);

    /// Adds a user, or replaces the one of that name.
    void put(const User& user);
    /// @return whether there was such a user.
    bool remove(const std::string& name);
    /// @throws std::invalid_argument naming the user where there is none.
    User get(const std::string& name) const;
    /// All, by name.
    std::vector<User> all() const;

private:
    SqliteDatabase& database_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
