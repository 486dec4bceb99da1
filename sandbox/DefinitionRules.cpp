#include "sandbox/DefinitionRules.h"

#include "platform/UtcTime.h"
#include "sandbox/ServiceError.h"

#include <chrono>

namespace Tesmor::Arkwell::Sandbox {

ObjectRecord requireObject(const ServiceTables& tables, const std::string& name) {
    boost::optional<ObjectRecord> object = tables.objects.find(name);
    if (!object) {
        throw ServiceError(error_kinds::OBJECT_UNKNOWN, name);
    }
    return *object;
}

void setState(StateChange& change, const ObjectRecord& object, ObjectState state, const std::string& changedBy) {
    if (object.systemDefined && state != ObjectState::READY) {
        throw ServiceError(error_kinds::SYSTEM_DEFINED, object.name + " cannot become " + stateText(state));
    }
    if (state == ObjectState::DELETED) {
        change.tables.objects.remove(object.name);
    } else if (state != object.state) {
        ObjectRecord changed = object;
        changed.state = state;
        changed.changedAt = currentTime();
        changed.changedBy = changedBy;
        change.tables.objects.setState(changed);
    }
    change.touch(object.name);
}

std::string currentTime() {
    return platform_detail::utcText(std::chrono::system_clock::now());
}

void requireUsable(const ServiceTables& tables, const DefinitionRecord& definition) {
    if (!tables.roles.find(definition.roleId)) {
        throw ServiceError(error_kinds::ROLE_UNKNOWN, std::to_string(definition.roleId));
    }
    for (const std::string& name : definition.operations) {
        const boost::optional<OperationRecord> operation = tables.operations.find(name);
        if (!operation) {
            throw ServiceError(error_kinds::OPERATION_UNKNOWN, name);
        }
        // With CHILDREN the definition speaks of what is below the object, but that is below the same ancestors.
        if (definition.object.compare(0, operation->appliesTo.size(), operation->appliesTo) != 0) {
            throw ServiceError(
                error_kinds::OPERATION_NOT_APPLICABLE,
                name + " applies at and below " + operation->appliesTo + ", not to " + definition.object);
        }
    }
}

GrantScope readPropagation(const DocumentValue& value) {
    const boost::optional<GrantScope> propagation = propagationOf(value.text());
    if (!propagation) {
        value.refuse("must be OBJECT, CHILDREN or OBJECT_AND_CHILDREN");
    }
    return *propagation;
}

}  // namespace Tesmor::Arkwell::Sandbox
