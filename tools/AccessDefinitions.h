#pragma once

#include "rbac/cache/SegmentDescent.h"
#include "tools/JsonObject.h"
#include "tools/Names.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Tesmor::Arkwell::Tools {

/// Operations that an object grants to a role.
struct AccessDefinition {
    enum class Propagation { OBJECT_AND_CHILDREN, OBJECT, CHILDREN };

    std::int32_t roleId;
    Propagation propagation;
    std::vector<std::int32_t> operationBits;  ///< ascending
};

/// What an object grants: by role, each with as few definitions as say it.
std::vector<AccessDefinition> definitionsOf(const Rbac::detail::CacheView& cache, const Rbac::ManagedObject& object);

/// As in "5: VIEW,ADD (object and children); 7: VIEW (children)"; empty where there are none.
std::string textOf(const std::vector<AccessDefinition>& definitions, const OperationTexts& operations);

/// As the access-control service has them; an operation that nobody has named as its number.
JsonList documentsOf(const std::vector<AccessDefinition>& definitions, const OperationTexts& operations);

}  // namespace Tesmor::Arkwell::Tools
