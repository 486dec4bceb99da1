#include "sandbox/UserStore.h"

#include <stdexcept>

namespace Tesmor::Arkwell::Sandbox {

UserStore::UserStore(SqliteDatabase& database) : database_(database) {
    database_.execute(
        "CREATE TABLE IF NOT EXISTS users (name TEXT NOT NULL PRIMARY KEY, is_machine INTEGER NOT NULL);"
        "CREATE TABLE IF NOT EXISTS user_roles ("
        "  user TEXT NOT NULL REFERENCES users (name) ON DELETE CASCADE,"
        "  role_id INTEGER NOT NULL,"
        "  PRIMARY KEY (user, role_id)) WITHOUT ROWID");
}

void UserStore::put(const User& user) {
    SqliteTransaction transaction(database_);
    remove(user.name);
    SqliteStatement(database_, "INSERT INTO users (name, is_machine) VALUES (?, ?)")
        .bind(1, user.name)
        .bind(2, std::int64_t{user.isMachine})
        .run();
    for (const int role : user.roleIds) {
        SqliteStatement(database_, "INSERT INTO user_roles (user, role_id) VALUES (?, ?)")
            .bind(1, user.name)
            .bind(2, std::int64_t{role})
            .run();
    }
    transaction.commit();
}

bool UserStore::remove(const std::string& name) {
    SqliteStatement(database_, "DELETE FROM users WHERE name = ?").bind(1, name).run();
    SqliteStatement removed(database_, "SELECT changes()");
    return removed.step() && removed.integer(0) != 0;
}

User UserStore::get(const std::string& name) const {
    SqliteStatement users(database_, "SELECT is_machine FROM users WHERE name = ?");
    if (!users.bind(1, name).step()) {
        throw std::invalid_argument("there is no user " + name);
    }
    User user{name, users.integer(0) != 0};
    SqliteStatement roles(database_, "SELECT role_id FROM user_roles WHERE user = ?");
    roles.bind(1, name);
    while (roles.step()) {
        user.roleIds.insert(static_cast<int>(roles.integer(0)));
    }
    return user;
}

std::vector<User> UserStore::all() const {
    std::vector<User> users;
    SqliteStatement names(database_, "SELECT name FROM users ORDER BY name");
    while (names.step()) {
        users.push_back(get(names.text(0)));
    }
    return users;
}

}  // namespace Tesmor::Arkwell::Sandbox
