#include "rbac/enforcement/ConstantAccessChecker.h"

namespace Tesmor::Arkwell::Rbac {

template <bool Allowed>
ConstantAccessChecker<Allowed>::~ConstantAccessChecker() = default;

template <bool Allowed>
bool ConstantAccessChecker<Allowed>::checkAccess(const ObjectNamespace& /*object*/) const {
    return Allowed;
}

template class ConstantAccessChecker<true>;
template class ConstantAccessChecker<false>;

}  // namespace Tesmor::Arkwell::Rbac
