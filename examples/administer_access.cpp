// An administrator's program: roles, and who may do what on an object.
//
//     administer_access roles ["name eq 'auditors'"]
//     administer_access create-role NAME [DESCRIPTION]
//     administer_access delete-role NAME
//     administer_access show OBJECT
//     administer_access grant ROLE OPERATION OBJECT [OBJECT|CHILDREN|OBJECT_AND_CHILDREN]
//     administer_access revoke ROLE OBJECT
//     administer_access inherit OBJECT on|off
//
// ROLE and NAME are a role's name, OPERATION and OBJECT are namespaces such as "|OPERATIONS|VIEW|". Exits with 1 where
// the service refuses, and says what it answered.

#include <rbac/EC_exception.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/shared_ptr.hpp>
#include <jansson.h>

#include <exception>
#include <iostream>
#include <list>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using Words = std::vector<std::string>;

constexpr char USAGE[] = "usage: administer_access roles|create-role|delete-role|show|grant|revoke|inherit ...";

ObjectNamespace parseNamespace(const std::string& text) {
    try {
        return boost::lexical_cast<ObjectNamespace>(text.c_str());
    } catch (const boost::bad_lexical_cast&) {
        throw std::invalid_argument("not a namespace, which has a | before and after each component: " + text);
    }
}

Role findRole(const std::string& name) {
    // In a filter, a quote within the text is written twice.
    const std::list<Role> roles =
        RoleAPI().get_roles("name eq '" + boost::algorithm::replace_all_copy(name, "'", "''") + "'");
    return !roles.empty() ? roles.front() : throw std::invalid_argument("there is no role of the name " + name);
}

void listRoles(const Words& words) {
    for (const Role& role : RoleAPI().get_roles(words.empty() ? "" : words[0])) {
        std::cout << role.id << "\t" << role.name << "\t" << role.description << "\n";
    }
}

void createRole(const Words& words) {
    std::cout << RoleAPI().create_role(words[0], words.size() > 1 ? words[1] : "").id << "\n";
}

void deleteRole(const Words& words) {
    RoleAPI().delete_role_by_id(findRole(words[0]).id);
}

void show(const Words& words) {
    ManagedObjectAPI api;
    const ObjectNamespace object = parseNamespace(words[0]);
    const ManagedObjectResource resource = api.get_object(object);
    std::cout << object << (resource.state == READY ? "" : " (pending)")
              << (resource.inherit != 0 ? " inherits" : " does not inherit") << "\n";
    for (const AccessDefinition& definition : api.get_access_definitions(object)) {
        std::cout << "  role " << definition.roleId << " on " << definition.propagation << ":";
        for (const ObjectNamespace& operation : definition.operations) {
            std::cout << " " << operation;
        }
        std::cout << "\n";
    }
}

void grant(const Words& words) {
    const boost::shared_ptr<json_t> operations(
        json_pack("[{s:s, s:s}]", "id", parseNamespace(words[1]).str().c_str(), "type", "accessControlOperation"),
        json_decref);
    const auto propagation =
        words.size() > 3 ? boost::lexical_cast<Propagation>(words[3]) : Propagation(Propagation::OBJECT_AND_CHILDREN);
    const AccessDefinition made =
        ManagedObjectAPI().add_access_definition(parseNamespace(words[2]), findRole(words[0]), propagation, operations);
    std::cout << "access definition " << made.id << "\n";
}

void revoke(const Words& words) {
    ManagedObjectAPI api;
    const int role = findRole(words[0]).id;
    const ObjectNamespace object = parseNamespace(words[1]);
    for (const AccessDefinition& definition : api.get_access_definitions(object)) {
        if (definition.roleId == role) {
            api.delete_access_definition_by_id(object, definition.id);
        }
    }
}

void switchInheritance(const Words& words) {
    if (words[1] != "on" && words[1] != "off") {
        throw std::invalid_argument(USAGE);
    }
    ManagedObjectAPI().set_inherit(parseNamespace(words[0]), words[1] == "on");
}

struct Command {
    std::size_t leastWords;  // the command's own name included
    std::size_t mostWords;
    void (*run)(const Words&);
};

const std::map<std::string, Command> COMMANDS{{"roles", {1, 2, listRoles}},
                                              {"create-role", {2, 3, createRole}},
                                              {"delete-role", {2, 2, deleteRole}},
                                              {"show", {2, 2, show}},
                                              {"grant", {4, 5, grant}},
                                              {"revoke", {3, 3, revoke}},
                                              {"inherit", {3, 3, switchInheritance}}};

void run(Words words) {
    const auto command = words.empty() ? COMMANDS.end() : COMMANDS.find(words[0]);
    if (command == COMMANDS.end() || words.size() < command->second.leastWords ||
        words.size() > command->second.mostWords) {
        throw std::invalid_argument(USAGE);
    }
    words.erase(words.begin());
    command->second.run(words);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run({argv + 1, argv + argc});
        return 0;
    } catch (const EC_exception& failure) {
        std::cerr << "administer_access: status " << failure.status << ": " << failure.what() << "\n";
    } catch (const std::exception& failure) {
        std::cerr << "administer_access: " << failure.what() << "\n";
    }
    return 1;
}
