#pragma once

#include <platform/Export.h>
#include <rbac/AccessControlClient.h>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// Gives the same answer for every object, without looking at it. Stateless: any number of threads may use one.
template <bool Allowed>
class ARKWELL_EXPORT ConstantAccessChecker : public AccessChecker {
public:
    ~ConstantAccessChecker() override;

    bool checkAccess(const ObjectNamespace& object) const override;
};

extern template class ConstantAccessChecker<true>;
extern template class ConstantAccessChecker<false>;

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
