#pragma once

#include <rbac/AccessCache.h>
#include <rbac/AccessControlClient.h>
#include <rbac/OperationCache.h>

#include <boost/shared_ptr.hpp>

#include <set>
#include <string>

namespace Tesmor::Arkwell::Rbac {

/// Makes checkers that answer from an access cache on disk.
class ARKWELL_EXPORT DiskAccessControlClient : public AccessControlClient {
public:
    /// @param scope the namespace that the cache was built for.
    /// @param operations must outlive the client.
    DiskAccessControlClient(const ObjectNamespace& scope, boost::shared_ptr<const AccessCache> cache,
                            OperationCache& operations);
    ~DiskAccessControlClient() override;

    int createAccessChecker(Tesmor::Dal::DbConnectionManager* db, const std::string& sessionToken,
                            const ObjectNamespace& operation, int option,
                            boost::shared_ptr<const AccessChecker>& checker) override;
    int createAccessChecker(const std::set<int>& roleIds, const ObjectNamespace& operation, int option,
                            boost::shared_ptr<const AccessChecker>& checker) override;

    const AccessCache& cache() const { return *cache_; }
    OperationCache& operations() const { return operations_; }

private:
    ObjectNamespace scope_;
    boost::shared_ptr<const AccessCache> cache_;
    OperationCache& operations_;
};

}  // namespace Tesmor::Arkwell::Rbac
