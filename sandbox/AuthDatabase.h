#pragma once

#include <platform/Dal.h>

#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// What serves the authorization database. Only making the schema differs.
enum class DatabaseServer { SQLITE, POSTGRESQL };

/// The authorization database that the settings file names, filled as the product's login service fills it.
///
/// Any number of threads may use one at once. Every function throws EC_exception with the status of the data-access
/// layer, which has logged why.
class AuthDatabase {
public:
    AuthDatabase();

    /// Makes the tables, where they are missing.
    void createSchema(DatabaseServer server);

    /// Records a session.
    ///
    /// @throws std::length_error for a token that the library would not read: longer than 32,000 bytes.
    void addSession(const std::string& id, const std::string& azToken);
    /// Ends a session; nothing where it is not there.
    void removeSession(const std::string& id);
    /// The ids of all sessions, in order.
    std::vector<std::string> sessionIds();

    /// Records which objects of a type a collection covers.
    void addCriteria(int criteriaId, int collectionKey, const std::string& objectType, const std::string& json);

private:
    void execute(const std::string& sql, const std::vector<std::string>& parameters = {});

    Dal::DbConnectionManager manager_;
};

/// A settings file's "authDatabase" for a SQLite file, through the ODBC driver that Debian installs.
struct SqliteConnection {
    std::string connectionString;
    std::string onConnect;
};
/// @throws std::invalid_argument for a path that cannot stand in a connection string.
SqliteConnection sqliteConnection(const std::string& databaseFile);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
