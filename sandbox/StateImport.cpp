#include "sandbox/StateImport.h"

#include "sandbox/DefinitionRules.h"
#include "sandbox/ServiceError.h"
#include "sandbox/UnixRoles.h"

#include <boost/lexical_cast.hpp>

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
    StateFiller(StateChange& change, const AccessModel& model) : change_(change), model_(model) {}

    void fill() {
        addRoles();
        for (std::size_t i = 0; i < model_.objectCount(); ++i) {
            const AccessModel::Entry entry = model_.entry(i);
            const std::int64_t object = change_.tables.objects.add(
                {std::string(entry.text), OBJECT_TYPE, entry.inherit, ObjectState::READY, false, now_, IMPORTER});
            addDefinitions(object, model_.grants(entry.grantList));
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

    void addDefinitions(std::int64_t object, const AccessModel::GrantList& grants) {
        std::map<std::pair<std::int32_t, GrantScope>, std::vector<std::int64_t>> definitions;
        for (const Grant& grant : grants) {
            definitions[{grant.roleId, grant.scope}].push_back(grant.operationBit);
        }
        for (const auto& [whoAndWhere, operations] : definitions) {
            change_.tables.definitions.add(object, whoAndWhere.first, whoAndWhere.second, operations);
        }
    }

    StateChange& change_;
    const AccessModel& model_;
    const std::string now_ = currentTime();
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
