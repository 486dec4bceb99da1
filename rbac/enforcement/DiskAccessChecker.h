#pragma once

#include <rbac/AccessCache.h>
#include <rbac/AccessControlClient.h>
#include <rbac/OperationCache.h>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

namespace Tesmor::Arkwell::Rbac {

/// Answers from an access cache on disk for one set of roles and one operation. Keeps the cache open.
class ARKWELL_EXPORT DiskAccessChecker : public AccessChecker {
public:
    DiskAccessChecker(boost::shared_ptr<const AccessCache> cache, const std::set<int>& roleIds,
                      const Operation& operation, int option);
    ~DiskAccessChecker() override;

    bool checkAccess(const ObjectNamespace& object) const override;

    /// Answers for many objects from one state of the cache.
    void checkAccess(const ObjectNamespace* objects, std::size_t count, bool* allowed) const;

private:
    boost::shared_ptr<const AccessCache> cache_;
    std::vector<int> roleIds_;  // ascending
    Operation operation_;
    [[maybe_unused]] std::int32_t option_;  // carried for callers; consulted nowhere
};

}  // namespace Tesmor::Arkwell::Rbac
