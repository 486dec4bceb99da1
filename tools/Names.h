#pragma once

#include <rbac/ObjectNamespace.h>
#include <rbac/OperationCache.h>

#include <cstdint>
#include <string>
#include <unordered_map>

namespace Tesmor::Arkwell::Tools {

/// The object with this text form.
///
/// @throws UsageError
Rbac::ObjectNamespace objectNamed(const std::string& text);

/// The operation with this text form, or the one below |OPERATIONS| that is called so.
///
/// @throws UsageError
Rbac::ObjectNamespace operationNamed(const std::string& text);

/// How the operation with this text form is shown to people: without the |OPERATIONS| that most begin with.
std::string shortName(const std::string& operationText);

/// The texts of operations by their numbers.
class OperationTexts {
public:
    explicit OperationTexts(const Rbac::OperationCache& operations);

    bool knows(std::int32_t bitNumber) const { return texts_.count(bitNumber) != 0; }

    /// "#N" for a number that no operation has.
    std::string of(std::int32_t bitNumber) const;

private:
    std::unordered_map<std::int32_t, std::string> texts_;
};

}  // namespace Tesmor::Arkwell::Tools
