#include "sandbox/ServiceTables.h"

#include "sandbox/UnixRoles.h"

#include <boost/lexical_cast.hpp>

#include <array>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::array<const char*, 3> PROPAGATIONS{"OBJECT", "CHILDREN", "OBJECT_AND_CHILDREN"};
constexpr std::array<const char*, 3> STATES{"READY", "PENDING", "DELETED"};
constexpr std::int32_t EVERYTHING_ROLE = 0;
constexpr char ROOT[] = "|";

constexpr char SCHEMA[] =
    "CREATE TABLE IF NOT EXISTS settings (name TEXT NOT NULL PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS counters (name TEXT NOT NULL PRIMARY KEY, next INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS roles ("
    "  id INTEGER PRIMARY KEY,"
    "  name TEXT NOT NULL UNIQUE,"
    "  description TEXT NOT NULL,"
    "  system_defined INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS operations ("
    "  bit INTEGER PRIMARY KEY,"
    "  name TEXT NOT NULL UNIQUE,"
    "  applies_to TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS objects ("
    "  id INTEGER PRIMARY KEY,"
    "  name TEXT NOT NULL UNIQUE,"
    "  type TEXT NOT NULL,"
    "  inherit INTEGER NOT NULL,"
    "  state INTEGER NOT NULL,"
    "  system_defined INTEGER NOT NULL,"
    "  changed_at TEXT NOT NULL,"
    "  changed_by TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS objects_pending ON objects (changed_at) WHERE state = 1;"
    "CREATE TABLE IF NOT EXISTS definitions ("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  object INTEGER NOT NULL REFERENCES objects (id) ON DELETE CASCADE,"
    "  role INTEGER NOT NULL REFERENCES roles (id),"
    "  propagation INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS definitions_by_object ON definitions (object);"
    "CREATE INDEX IF NOT EXISTS definitions_by_role ON definitions (role);"
    "CREATE TABLE IF NOT EXISTS definition_operations ("
    "  definition INTEGER NOT NULL REFERENCES definitions (id) ON DELETE CASCADE,"
    "  position INTEGER NOT NULL,"
    "  operation INTEGER NOT NULL REFERENCES operations (bit),"
    "  PRIMARY KEY (definition, position)) WITHOUT ROWID;"
    // Of which the numbers in between may be taken.
    "INSERT OR IGNORE INTO counters (name, next) VALUES ('role', 2), ('operation', 3);";

bool isThere(SqliteDatabase& database, const char* query, std::int64_t number) {
    return SqliteStatement(database, query).bind(1, number).step();
}

/// The next number of a counter that nothing has.
std::int32_t nextNumber(SqliteDatabase& database, const char* counter, const char* isTaken) {
    SqliteStatement current(database, "SELECT next FROM counters WHERE name = ?");
    current.bind(1, counter).step();
    std::int64_t number = current.integer(0);
    while (isThere(database, isTaken, number)) {
        ++number;
    }
    SqliteStatement(database, "UPDATE counters SET next = ? WHERE name = ?").bind(1, number + 1).bind(2, counter).run();
    return static_cast<std::int32_t>(number);
}

/// Runs a statement that returns the number of what it adds.
std::int64_t newId(SqliteStatement& insert) {
    insert.step();
    const std::int64_t id = insert.integer(0);
    insert.run();  // to its end
    return id;
}

std::int64_t numberOf(SqliteDatabase& database, const char* query, const std::string& name) {
    SqliteStatement numbers(database, query);
    if (!numbers.bind(1, name).step()) {
        throw std::runtime_error("there is no " + name);
    }
    return numbers.integer(0);
}

RoleRecord roleAt(const SqliteStatement& row) {
    return {static_cast<std::int32_t>(row.integer(0)), row.text(1), row.text(2), row.integer(3) != 0};
}

OperationRecord operationAt(const SqliteStatement& row) {
    return {row.text(0), static_cast<std::int32_t>(row.integer(1)), row.text(2)};
}

ObjectRecord objectAt(const SqliteStatement& row) {
    return {row.text(0),         row.text(1), row.integer(2) != 0, static_cast<ObjectState>(row.integer(3)),
            row.integer(4) != 0, row.text(5), row.text(6)};
}

Grant grantAt(const SqliteStatement& row) {
    return {static_cast<std::int32_t>(row.integer(1)), static_cast<std::int32_t>(row.integer(3)),
            static_cast<GrantScope>(row.integer(2))};
}

void addSystemRoles(SqliteDatabase& database) {
    SqliteStatement insert(database,
                           "INSERT OR IGNORE INTO roles (id, name, description, system_defined) VALUES (?, ?, ?, 1)");
    insert.bind(1, std::int64_t{EVERYTHING_ROLE})
        .bind(2, unix_roles::nameOf(EVERYTHING_ROLE))
        .bind(3, "may do everything")
        .run();
    insert.bind(1, std::int64_t{unix_roles::EVERYBODY})
        .bind(2, unix_roles::nameOf(unix_roles::EVERYBODY))
        .bind(3, "every user of this machine")
        .run();
}

void addSystemOperations(SqliteDatabase& database) {
    SqliteStatement insert(database, "INSERT OR IGNORE INTO operations (bit, name, applies_to) VALUES (?, ?, ?)");
    for (const auto& [operation, bit] : fileOperations()) {
        insert.bind(1, std::int64_t{bit}).bind(2, operation.str()).bind(3, ROOT).run();
    }
}

void addSystemObjects(SqliteDatabase& database) {
    using namespace Rbac::root_namespaces;
    SqliteStatement insert(
        database,
        "INSERT OR IGNORE INTO objects (name, type, inherit, state, system_defined, changed_at, changed_by)"
        " VALUES (?, 'root', 1, 0, 1, '', '')");
    for (const std::string& name : {std::string(ROOT), ARKWELL.str(), SECURITY.str(), MANAGE.str(), PROTECTION.str(),
                                    STORAGE.str(), DEPLOYMENT.str(), OBJECT_TYPES.str(), ASSETS.str()}) {
        insert.bind(1, name).run();
    }
}

}  // namespace

void createServiceTables(SqliteDatabase& database) {
    SqliteTransaction transaction(database);
    database.execute(SCHEMA);
    addSystemRoles(database);
    addSystemOperations(database);
    addSystemObjects(database);
    transaction.commit();
}

boost::optional<std::string> publicationFolder(SqliteDatabase& database) {
    SqliteStatement settings(database, "SELECT value FROM settings WHERE name = 'publicationFolder'");
    if (!settings.step()) {
        return boost::none;
    }
    return settings.text(0);
}

void setPublicationFolder(SqliteDatabase& database, const std::string& path) {
    SqliteStatement(database, "INSERT OR REPLACE INTO settings (name, value) VALUES ('publicationFolder', ?)")
        .bind(1, path)
        .run();
}

boost::optional<RoleRecord> RoleTable::find(std::int32_t id) const {
    SqliteStatement roles(database_, "SELECT id, name, description, system_defined FROM roles WHERE id = ?");
    if (!roles.bind(1, std::int64_t{id}).step()) {
        return boost::none;
    }
    return roleAt(roles);
}

boost::optional<RoleRecord> RoleTable::findByName(const std::string& name) const {
    SqliteStatement roles(database_, "SELECT id, name, description, system_defined FROM roles WHERE name = ?");
    if (!roles.bind(1, name).step()) {
        return boost::none;
    }
    return roleAt(roles);
}

std::vector<RoleRecord> RoleTable::all() const {
    std::vector<RoleRecord> found;
    SqliteStatement roles(database_, "SELECT id, name, description, system_defined FROM roles ORDER BY id");
    while (roles.step()) {
        found.push_back(roleAt(roles));
    }
    return found;
}

std::int32_t RoleTable::add(const std::string& name, const std::string& description) {
    const std::int32_t id = nextNumber(database_, "role", "SELECT 1 FROM roles WHERE id = ?");
    put({id, name, description});
    return id;
}

void RoleTable::put(const RoleRecord& role) {
    SqliteStatement(database_,
                    "INSERT INTO roles (id, name, description, system_defined) VALUES (?, ?, ?, ?)"
                    " ON CONFLICT (id) DO UPDATE SET name = excluded.name, description = excluded.description")
        .bind(1, std::int64_t{role.id})
        .bind(2, role.name)
        .bind(3, role.description)
        .bind(4, std::int64_t{role.systemDefined})
        .run();
}

void RoleTable::remove(std::int32_t id) {
    SqliteStatement(database_, "DELETE FROM roles WHERE id = ?").bind(1, std::int64_t{id}).run();
}

boost::optional<OperationRecord> OperationTable::find(const std::string& name) const {
    SqliteStatement operations(database_, "SELECT name, bit, applies_to FROM operations WHERE name = ?");
    if (!operations.bind(1, name).step()) {
        return boost::none;
    }
    return operationAt(operations);
}

std::vector<OperationRecord> OperationTable::all() const {
    std::vector<OperationRecord> found;
    SqliteStatement operations(database_, "SELECT name, bit, applies_to FROM operations ORDER BY bit");
    while (operations.step()) {
        found.push_back(operationAt(operations));
    }
    return found;
}

void OperationTable::add(const std::string& name, const std::string& appliesTo) {
    const std::int32_t bit = nextNumber(database_, "operation", "SELECT 1 FROM operations WHERE bit = ?");
    SqliteStatement(database_, "INSERT INTO operations (bit, name, applies_to) VALUES (?, ?, ?)")
        .bind(1, std::int64_t{bit})
        .bind(2, name)
        .bind(3, appliesTo)
        .run();
}

std::map<ObjectNamespace, std::int32_t> OperationTable::bitNumbers() const {
    std::map<ObjectNamespace, std::int32_t> numbers;
    for (const OperationRecord& operation : all()) {
        numbers.emplace(boost::lexical_cast<ObjectNamespace>(operation.name), operation.bit);
    }
    return numbers;
}

boost::optional<ObjectRecord> ObjectTable::find(const std::string& name) const {
    SqliteStatement objects(database_,
                            "SELECT name, type, inherit, state, system_defined, changed_at, changed_by"
                            " FROM objects WHERE name = ?");
    if (!objects.bind(1, name).step()) {
        return boost::none;
    }
    return objectAt(objects);
}

std::int64_t ObjectTable::add(const ObjectRecord& object) {
    SqliteStatement insert(database_,
                           "INSERT INTO objects (name, type, inherit, state, system_defined, changed_at, changed_by)"
                           " VALUES (?, ?, ?, ?, ?, ?, ?) RETURNING id");
    insert.bind(1, object.name)
        .bind(2, object.type)
        .bind(3, std::int64_t{object.inherit})
        .bind(4, static_cast<std::int64_t>(object.state))
        .bind(5, std::int64_t{object.systemDefined})
        .bind(6, object.changedAt)
        .bind(7, object.changedBy);
    return newId(insert);
}

void ObjectTable::setInherit(const std::string& name, bool inherit) {
    SqliteStatement(database_, "UPDATE objects SET inherit = ? WHERE name = ?")
        .bind(1, std::int64_t{inherit})
        .bind(2, name)
        .run();
}

void ObjectTable::setState(const ObjectRecord& object) {
    SqliteStatement(database_, "UPDATE objects SET state = ?, changed_at = ?, changed_by = ? WHERE name = ?")
        .bind(1, static_cast<std::int64_t>(object.state))
        .bind(2, object.changedAt)
        .bind(3, object.changedBy)
        .bind(4, object.name)
        .run();
}

void ObjectTable::remove(const std::string& name) {
    SqliteStatement(database_, "DELETE FROM objects WHERE name = ?").bind(1, name).run();
}

void ObjectTable::removeTree(const std::string& name) {
    // A text form begins with those of all its ancestors; "}" follows "|".
    SqliteStatement(database_, "DELETE FROM objects WHERE name >= ? AND name < ?")
        .bind(1, name)
        .bind(2, name.substr(0, name.size() - 1) + "}")
        .run();
}

std::vector<ObjectRecord> ObjectTable::pending() const {
    std::vector<ObjectRecord> found;
    SqliteStatement objects(database_,
                            "SELECT name, type, inherit, state, system_defined, changed_at, changed_by"
                            " FROM objects WHERE state = 1 ORDER BY changed_at, name");
    while (objects.step()) {
        found.push_back(objectAt(objects));
    }
    return found;
}

ModelObject ObjectTable::modelObject(const std::string& name) const {
    ModelObject object;
    object.name = boost::lexical_cast<ObjectNamespace>(name);
    object.state = ObjectState::DELETED;
    SqliteStatement objects(database_, "SELECT id, inherit, state FROM objects WHERE name = ?");
    if (!objects.bind(1, name).step()) {
        return object;
    }
    object.inherit = objects.integer(1) != 0;
    object.state = static_cast<ObjectState>(objects.integer(2));
    SqliteStatement grants(database_,
                           "SELECT d.object, d.role, d.propagation, o.operation FROM definitions d"
                           " JOIN definition_operations o ON o.definition = d.id WHERE d.object = ?");
    grants.bind(1, objects.integer(0));
    while (grants.step()) {
        object.grants.push_back(grantAt(grants));
    }
    return object;
}

AccessModel ObjectTable::model() const {
    AccessModel model;
    SqliteStatement objects(database_, "SELECT id, name, inherit, state FROM objects ORDER BY id");
    SqliteStatement grants(database_,
                           "SELECT d.object, d.role, d.propagation, o.operation FROM definitions d"
                           " JOIN definition_operations o ON o.definition = d.id ORDER BY d.object");
    bool more = grants.step();
    while (objects.step()) {
        ModelObject object;
        object.name = boost::lexical_cast<ObjectNamespace>(objects.text(1));
        object.inherit = objects.integer(2) != 0;
        object.state = static_cast<ObjectState>(objects.integer(3));
        for (; more && grants.integer(0) == objects.integer(0); more = grants.step()) {
            object.grants.push_back(grantAt(grants));
        }
        model.add(object);
    }
    return model;
}

std::vector<DefinitionRecord> DefinitionTable::ofObject(const std::string& object) const {
    std::vector<DefinitionRecord> found;
    SqliteStatement rows(database_,
                         "SELECT d.id, d.role, d.propagation, p.name FROM definitions d"
                         " LEFT JOIN definition_operations o ON o.definition = d.id"
                         " LEFT JOIN operations p ON p.bit = o.operation"
                         " WHERE d.object = (SELECT id FROM objects WHERE name = ?) ORDER BY d.id, o.position");
    rows.bind(1, object);
    while (rows.step()) {
        if (found.empty() || found.back().id != rows.integer(0)) {
            found.push_back({rows.integer(0), object, static_cast<std::int32_t>(rows.integer(1)),
                             static_cast<GrantScope>(rows.integer(2))});
        }
        std::string operation = rows.text(3);
        if (!operation.empty()) {
            found.back().operations.push_back(std::move(operation));
        }
    }
    return found;
}

bool DefinitionTable::exists(const std::string& object, std::int64_t id) const {
    return SqliteStatement(database_,
                           "SELECT 1 FROM definitions WHERE id = ? AND object ="
                           " (SELECT id FROM objects WHERE name = ?)")
        .bind(1, id)
        .bind(2, object)
        .step();
}

std::int64_t DefinitionTable::add(const DefinitionRecord& definition) {
    std::vector<std::int64_t> bits;
    for (const std::string& operation : definition.operations) {
        bits.push_back(numberOf(database_, "SELECT bit FROM operations WHERE name = ?", operation));
    }
    return add(numberOf(database_, "SELECT id FROM objects WHERE name = ?", definition.object), definition.roleId,
               definition.propagation, bits);
}

std::int64_t DefinitionTable::add(std::int64_t object, std::int32_t roleId, GrantScope propagation,
                                  const std::vector<std::int64_t>& operationBits) {
    SqliteStatement insert(database_,
                           "INSERT INTO definitions (object, role, propagation) VALUES (?, ?, ?) RETURNING id");
    insert.bind(1, object).bind(2, std::int64_t{roleId}).bind(3, static_cast<std::int64_t>(propagation));
    const std::int64_t id = newId(insert);
    SqliteStatement operations(database_,
                               "INSERT INTO definition_operations (definition, position, operation) VALUES (?, ?, ?)");
    std::int64_t position = 0;
    for (const std::int64_t bit : operationBits) {
        operations.bind(1, id).bind(2, position).bind(3, bit).run();
        ++position;
    }
    return id;
}

void DefinitionTable::remove(std::int64_t id) {
    SqliteStatement(database_, "DELETE FROM definitions WHERE id = ?").bind(1, id).run();
}

std::int64_t DefinitionTable::countOfRole(std::int32_t roleId) const {
    SqliteStatement count(database_, "SELECT count(*) FROM definitions WHERE role = ?");
    count.bind(1, std::int64_t{roleId}).step();
    return count.integer(0);
}

const char* propagationText(GrantScope propagation) {
    return PROPAGATIONS.at(static_cast<std::size_t>(propagation));
}

boost::optional<GrantScope> propagationOf(const std::string& text) {
    for (std::size_t i = 0; i < PROPAGATIONS.size(); ++i) {
        if (text == PROPAGATIONS.at(i)) {
            return static_cast<GrantScope>(i);
        }
    }
    return boost::none;
}

const char* stateText(ObjectState state) {
    return STATES.at(static_cast<std::size_t>(state));
}

boost::optional<ObjectState> stateOf(const std::string& text) {
    for (std::size_t i = 0; i < STATES.size(); ++i) {
        if (text == STATES.at(i)) {
            return static_cast<ObjectState>(i);
        }
    }
    return boost::none;
}

}  // namespace Tesmor::Arkwell::Sandbox
