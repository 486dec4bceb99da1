#include "tools/AccessDefinitions.h"

#include "rbac/cache/RoleTrees.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

using Bits = std::vector<std::int32_t>;
using Propagation = AccessDefinition::Propagation;
using Rbac::detail::forEachGrant;

struct PropagationNames {
    const char* forPeople;
    const char* inDocuments;
};

PropagationNames namesOf(Propagation propagation) {
    switch (propagation) {
        case Propagation::OBJECT_AND_CHILDREN:
            return {"object and children", "OBJECT_AND_CHILDREN"};
        case Propagation::OBJECT:
            return {"object", "OBJECT"};
        case Propagation::CHILDREN:
            break;
    }
    return {"children", "CHILDREN"};
}

Bits common(const Bits& left, const Bits& right) {
    Bits both;
    std::set_intersection(left.begin(), left.end(), right.begin(), right.end(), std::back_inserter(both));
    return both;
}

Bits without(const Bits& bits, const Bits& others) {
    Bits rest;
    std::set_difference(bits.begin(), bits.end(), others.begin(), others.end(), std::back_inserter(rest));
    return rest;
}

}  // namespace

std::vector<AccessDefinition> definitionsOf(const Rbac::detail::CacheView& cache, const Rbac::ManagedObject& object) {
    struct Granted {
        Bits own;
        Bits child;
    };
    std::map<std::int32_t, Granted> byRole;
    forEachGrant(cache.nodes, object.ownRoles,
                 [&](std::int32_t role, std::int32_t bit) { byRole[role].own.push_back(bit); });
    forEachGrant(cache.nodes, object.childRoles,
                 [&](std::int32_t role, std::int32_t bit) { byRole[role].child.push_back(bit); });

    std::vector<AccessDefinition> definitions;
    const auto add = [&definitions](std::int32_t role, Propagation propagation, Bits bits) {
        if (!bits.empty()) {
            definitions.push_back({role, propagation, std::move(bits)});
        }
    };
    for (const auto& [role, granted] : byRole) {
        const Bits both = common(granted.own, granted.child);
        add(role, Propagation::OBJECT_AND_CHILDREN, both);
        add(role, Propagation::OBJECT, without(granted.own, both));
        add(role, Propagation::CHILDREN, without(granted.child, both));
    }
    return definitions;
}

std::string textOf(const std::vector<AccessDefinition>& definitions, const OperationTexts& operations) {
    std::string text;
    for (const AccessDefinition& definition : definitions) {
        text += (text.empty() ? "" : "; ") + std::to_string(definition.roleId) + ": ";
        for (const std::int32_t bit : definition.operationBits) {
            text += shortName(operations.of(bit)) + ",";
        }
        text.back() = ' ';
        text += std::string("(") + namesOf(definition.propagation).forPeople + ")";
    }
    return text;
}

JsonList documentsOf(const std::vector<AccessDefinition>& definitions, const OperationTexts& operations) {
    JsonList documents;
    for (const AccessDefinition& definition : definitions) {
        JsonList names;
        for (const std::int32_t bit : definition.operationBits) {
            if (operations.knows(bit)) {
                names.add(operations.of(bit));
            } else {
                names.add(bit);
            }
        }
        JsonObject document;
        document.set("roleId", definition.roleId)
            .set("propagation", namesOf(definition.propagation).inDocuments)
            .set("operations", std::move(names));
        documents.add(std::move(document));
    }
    return documents;
}

}  // namespace Tesmor::Arkwell::Tools
