#include "sandbox/StateImport.h"

#include "platform/UtcTime.h"
#include "sandbox/ServiceError.h"
#include "sandbox/UnixRoles.h"

#include <boost/lexical_cast.hpp>

#include <chrono>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr char ROLE_DESCRIPTION[] = "of this machine";
constexpr char OBJECT_TYPE[] = "file";
constexpr char IMPORTER[] = "import-tree";

/// @return how many were missing.
std::size_t addMissingRoles(RoleTable& table, const std::set<int>& roles) {
    std::size_t added = 0;
    for (const int role : roles) {
        if (table.find(role)) {
            continue;
        }
        const std::string name = unix_roles::nameOf(role);
        if (table.findByName(name)) {
            throw ServiceError(error_kinds::NAME_TAKEN, "there is a role of the name " + name);
        }
        table.put({role, name, ROLE_DESCRIPTION});
        ++added;
    }
    return added;
}

/// Puts the objects of a model into the tables, where they are not yet.
class StateFiller {
public:
    StateFiller(StateChange& change, const AccessModel& model)
        : change_(change),
          model_(model),
          object_(change.database,
                  "INSERT INTO objects (name, type, inherit, state, system_defined, changed_at, changed_by)"
                  " VALUES (?, ?, ?, 0, 0, ?, ?) RETURNING id"),
          definition_(change.database,
                      "INSERT INTO definitions (object, role, propagation) VALUES (?, ?, ?) RETURNING id"),
          operation_(change.database,
                     "INSERT INTO definition_operations (definition, position, operation) VALUES (?, ?, ?)") {}

    void fill() {
        addRoles();
        for (std::size_t i = 0; i < model_.objectCount(); ++i) {
            const AccessModel::Entry entry = model_.entry(i);
            addDefinitions(addObject(entry), model_.grants(entry.grantList));
        }
    }

private:
    void addRoles() {
        std::set<int> roles;
        for (std::uint32_t list = 0; list < model_.grantListCount(); ++list) {
            for (const Grant& grant : model_.grants(list)) {
                roles.insert(grant.roleId);
            }
        }
        addMissingRoles(change_.tables.roles, roles);
    }

    std::int64_t addObject(const AccessModel::Entry& entry) {
        object_.bind(1, entry.text)
            .bind(2, OBJECT_TYPE)
            .bind(3, std::int64_t{entry.inherit})
            .bind(4, now_)
            .bind(5, IMPORTER);
        return newId(object_);
    }

    void addDefinitions(std::int64_t object, const AccessModel::GrantList& grants) {
        std::map<std::pair<std::int32_t, GrantScope>, std::int64_t> definitions;
        for (const Grant& grant : grants) {
            std::int64_t& definition = definitions[{grant.roleId, grant.scope}];
            if (definition == 0) {
                definition_.bind(1, object)
                    .bind(2, std::int64_t{grant.roleId})
                    .bind(3, static_cast<std::int64_t>(grant.scope));
                definition = newId(definition_);
            }
            // The place within a definition says nothing, it only has to be another one each time.
            operation_.bind(1, definition)
                .bind(2, std::int64_t{grant.operationBit})
                .bind(3, std::int64_t{grant.operationBit});
            operation_.run();
        }
    }

    /// Runs a statement that returns the number of what it added.
    static std::int64_t newId(SqliteStatement& statement) {
        statement.step();
        const std::int64_t id = statement.integer(0);
        statement.run();  // to its end
        return id;
    }

    StateChange& change_;
    const AccessModel& model_;
    const std::string now_ = platform_detail::utcText(std::chrono::system_clock::now());
    SqliteStatement object_;
    SqliteStatement definition_;
    SqliteStatement operation_;
};

}  // namespace

Revocation parseRevocation(const std::string& text) {
    const std::size_t first = text.find(':');
    const std::size_t second = first == std::string::npos ? first : text.find(':', first + 1);
    if (second == std::string::npos) {
        throw std::invalid_argument("not of the form ROLE:OPERATION:PATH: " + text);
    }
    const std::string role = text.substr(0, first);
    int roleId = unix_roles::EVERYBODY;
    if (role != "everybody" && !boost::conversion::try_lexical_convert(role, roleId)) {
        throw std::invalid_argument("neither a role's number nor \"everybody\": " + role);
    }
    return {roleId, ObjectNamespace("OPERATIONS", text.substr(first + 1, second - first - 1)), text.substr(second + 1)};
}

ImportCounts importIntoState(AccessService& service, const std::string& path,
                             const std::vector<Revocation>& revocations) {
    ImportCounts counts;
    const AccessModel model = importTree(path, revocations, counts);
    service.change([&](StateChange& change) {
        change.tables.objects.removeTree(namespaceOfPath(path).str());
        StateFiller(change, model).fill();
        change.touchEverything();
    });
    return counts;
}

std::size_t importRoles(AccessService& service) {
    std::size_t added = 0;
    service.change(
        [&](StateChange& change) { added = addMissingRoles(change.tables.roles, unix_roles::ofThisMachine()); });
    return added;
}

}  // namespace Tesmor::Arkwell::Sandbox
