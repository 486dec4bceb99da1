#pragma once

#include "sandbox/AccessModel.h"
#include "sandbox/SqliteDatabase.h"

#include <boost/optional.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

// What the service knows, in the file state.db. Namespaces are stored as their text forms.
//
// All classes here are for one thread at a time, as the database they work on, and throw std::runtime_error where
// SQLite fails.

/// Makes the tables where they are missing, with what every installation has: the roles and operations that the system
/// itself defines, and the objects at the top.
void createServiceTables(SqliteDatabase& database);

/// Where the caches are published, if that has been set.
boost::optional<std::string> publicationFolder(SqliteDatabase& database);
void setPublicationFolder(SqliteDatabase& database, const std::string& path);

struct RoleRecord {
    std::int32_t id;
    std::string name;
    std::string description;
    bool systemDefined = false;
};

class RoleTable {
public:
    explicit RoleTable(SqliteDatabase& database) : database_(database) {}

    boost::optional<RoleRecord> find(std::int32_t id) const;
    boost::optional<RoleRecord> findByName(const std::string& name) const;
    /// All, by id.
    std::vector<RoleRecord> all() const;
    /// Adds a role with a number that no role has had before, and gives the number.
    std::int32_t add(const std::string& name, const std::string& description);
    /// Adds the role, or gives the one of that number its name and description.
    void put(const RoleRecord& role);
    void remove(std::int32_t id);

private:
    SqliteDatabase& database_;
};

struct OperationRecord {
    std::string name;
    std::int32_t bit;
    std::string appliesTo;  ///< the objects at and below which it means something
};

class OperationTable {
public:
    explicit OperationTable(SqliteDatabase& database) : database_(database) {}

    boost::optional<OperationRecord> find(const std::string& name) const;
    /// All, by number.
    std::vector<OperationRecord> all() const;
    /// Adds an operation, with a number that none has had before.
    void add(const std::string& name, const std::string& appliesTo);
    std::map<ObjectNamespace, std::int32_t> bitNumbers() const;

private:
    SqliteDatabase& database_;
};

struct ObjectRecord {
    std::string name;
    std::string type;
    bool inherit = true;
    ObjectState state = ObjectState::READY;
    bool systemDefined = false;
    std::string changedAt = {};  ///< when its state was last set: UTC, ISO 8601
    std::string changedBy = {};
};

class ObjectTable {
public:
    explicit ObjectTable(SqliteDatabase& database) : database_(database) {}

    boost::optional<ObjectRecord> find(const std::string& name) const;
    /// Adds an object that is not there yet, and gives its number.
    std::int64_t add(const ObjectRecord& object);
    void setInherit(const std::string& name, bool inherit);
    void setState(const ObjectRecord& object);
    /// Removes it with its access definitions.
    void remove(const std::string& name);
    /// Removes the object and all below it.
    void removeTree(const std::string& name);
    /// Those in state PENDING, the longest waiting first.
    std::vector<ObjectRecord> pending() const;

    /// What the access cache is to say of the object: DELETED where there is none.
    ModelObject modelObject(const std::string& name) const;
    /// All objects.
    AccessModel model() const;

private:
    SqliteDatabase& database_;
};

struct DefinitionRecord {
    std::int64_t id = 0;
    std::string object;
    std::int32_t roleId = 0;
    GrantScope propagation = GrantScope::OBJECT;
    std::vector<std::string> operations = {};
};

class DefinitionTable {
public:
    explicit DefinitionTable(SqliteDatabase& database) : database_(database) {}

    /// Those of an object, in the order in which they were added.
    std::vector<DefinitionRecord> ofObject(const std::string& object) const;
    bool exists(const std::string& object, std::int64_t id) const;
    /// Adds a definition whose object, role and operations are there, with a number that none has had before, and gives
    /// the number.
    std::int64_t add(const DefinitionRecord& definition);
    /// The same by the numbers of the object and of the operations.
    std::int64_t add(std::int64_t object, std::int32_t roleId, GrantScope propagation,
                     const std::vector<std::int64_t>& operationBits);
    void remove(std::int64_t id);
    std::int64_t countOfRole(std::int32_t roleId) const;

private:
    SqliteDatabase& database_;
};

/// All tables of one database.
struct ServiceTables {
    explicit ServiceTables(SqliteDatabase& database)
        : roles(database), operations(database), objects(database), definitions(database) {}

    RoleTable roles;
    OperationTable operations;
    ObjectTable objects;
    DefinitionTable definitions;
};

/// "OBJECT", "CHILDREN" or "OBJECT_AND_CHILDREN".
const char* propagationText(GrantScope propagation);
boost::optional<GrantScope> propagationOf(const std::string& text);
/// "READY", "PENDING" or "DELETED".
const char* stateText(ObjectState state);
boost::optional<ObjectState> stateOf(const std::string& text);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
