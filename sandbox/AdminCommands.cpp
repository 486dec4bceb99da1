#include "sandbox/AdminCommands.h"

#include "sandbox/DefinitionRules.h"
#include "sandbox/Json.h"
#include "sandbox/ServiceError.h"
#include "sandbox/StateImport.h"

#include <map>
#include <new>
#include <stdexcept>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {

namespace {

/// What a command works on.
struct Surroundings {
    AccessService& service;
    FaultSwitches& faults;
};

std::string importTree(const Surroundings& surroundings, const DocumentValue& command) {
    std::vector<Revocation> revocations;
    for (const DocumentValue& text : command.member("revoke").elements()) {
        revocations.push_back(parseRevocation(text.text()));
    }
    const std::string path = command.member("path").text();
    const ImportCounts counts = importIntoState(surroundings.service, path, revocations);
    std::string report = "imported " + std::to_string(counts.objects) + " objects of " + path + " (" +
                         std::to_string(counts.protectedOnTheirOwn) + " with an owner or mode of their own";
    if (counts.unreadable != 0) {
        report += ", " + std::to_string(counts.unreadable) + " folders could not be listed";
    }
    return report + ")\n";
}

std::string importRoles(const Surroundings& surroundings, const DocumentValue& /*command*/) {
    return "added " + std::to_string(importRoles(surroundings.service)) + " roles\n";
}

std::string addOperation(const Surroundings& surroundings, const DocumentValue& command) {
    const std::string name = command.member("name").objectName().str();
    const std::string appliesTo = command.member("appliesTo").objectName().str();
    surroundings.service.change([&](StateChange& change) {
        if (change.tables.operations.find(name)) {
            throw ServiceError(error_kinds::NAME_TAKEN, name);
        }
        change.tables.operations.add(name, appliesTo);
        change.touchOperations();
    });
    return "added " + name + "\n";
}

std::string settle(const Surroundings& surroundings, const DocumentValue& command) {
    const std::string name = command.member("name").objectName().str();
    const boost::optional<ObjectState> state = stateOf(command.member("state").text());
    if (!state || *state == ObjectState::PENDING) {
        command.member("state").refuse("must be READY or DELETED");
    }
    surroundings.service.change([&](StateChange& change) {
        const ObjectRecord object = requireObject(change.tables, name);
        if (object.state != ObjectState::PENDING) {
            throw std::invalid_argument(name + " is " + stateText(object.state) + ", not PENDING");
        }
        setState(change, object, *state, command.member("user").text());
    });
    return name + " is " + stateText(*state) + "\n";
}

std::string setFaults(const Surroundings& surroundings, const DocumentValue& command) {
    std::vector<std::string> faults;
    for (const DocumentValue& fault : command.member("faults").elements()) {
        faults.push_back(fault.text());
    }
    surroundings.faults.set(faults);
    return {};
}

std::string clearFaults(const Surroundings& surroundings, const DocumentValue& /*command*/) {
    surroundings.faults.clear();
    return {};
}

std::string listFaults(const Surroundings& surroundings, const DocumentValue& /*command*/) {
    std::string list;
    for (const std::string& fault : surroundings.faults.list()) {
        list += fault + "\n";
    }
    return list;
}

using Command = std::string (*)(const Surroundings&, const DocumentValue&);
const std::map<std::string, Command> COMMANDS{
    {"import-tree", importTree}, {"import-roles", importRoles}, {"add-operation", addOperation}, {"settle", settle},
    {"set-faults", setFaults},   {"clear-faults", clearFaults}, {"list-faults", listFaults},
};

std::string report(const char* key, const std::string& text) {
    const JsonPointer document(json_pack("{s:s}", key, text.c_str()));
    return document ? json::dump(document) : std::string(R"({"error": "a text that is not UTF-8"})");
}

}  // namespace

std::string carryOutCommand(AccessService& service, FaultSwitches& faults, const std::string& command) {
    try {
        const Document document(command);
        const auto known = COMMANDS.find(document.root().member("command").text());
        if (known == COMMANDS.end()) {
            throw std::invalid_argument("no such command");
        }
        return report("output", known->second({service, faults}, document.root()));
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        return report("error", failure.what());
    }
}

}  // namespace Tesmor::Arkwell::Sandbox
