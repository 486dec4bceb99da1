#include "rbac/enforcement/DiskAccessControlClient.h"

#include "rbac/enforcement/ClientQuery.h"
#include "rbac/enforcement/ConstantAccessChecker.h"
#include "rbac/enforcement/DiskAccessChecker.h"

#include <jwt/JWTHandler.h>
#include <platform/Logger.h>
#include <rbac/EC_exception.h>

#include <boost/make_shared.hpp>

#include <new>
#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr char TAG[] = "DiskAccessControlClient::createAccessChecker";
constexpr int OUT_OF_MEMORY = 36;

}  // namespace

DiskAccessControlClient::DiskAccessControlClient(const ObjectNamespace& scope,
                                                 boost::shared_ptr<const AccessCache> cache, OperationCache& operations)
    : scope_(scope), cache_(std::move(cache)), operations_(operations) {}

DiskAccessControlClient::~DiskAccessControlClient() = default;

int DiskAccessControlClient::createAccessChecker(Tesmor::Dal::DbConnectionManager* db, const std::string& sessionToken,
                                                 const ObjectNamespace& operation, int option,
                                                 boost::shared_ptr<const AccessChecker>& checker) {
    std::set<int> roleIds;
    if (const int status = JWTHandler().getRoleIds(db, sessionToken, roleIds); status != 0) {
        logmsgf(16, TAG, "Failed to extract role IDs from ID token, error=%d", status);
        return status;
    }
    return createAccessChecker(roleIds, operation, option, checker);
}

int DiskAccessControlClient::createAccessChecker(const std::set<int>& roleIds, const ObjectNamespace& operation,
                                                 int option, boost::shared_ptr<const AccessChecker>& checker) {
    boost::optional<Operation> known;
    try {
        known = operations_[operation];
    } catch (const EC_exception& failure) {
        logmsgf(16, TAG, "Failed to convert operation to offset/mask, error=%d", failure.status);
        return failure.status;
    }
    try {
        // An operation that the service does not know is denied to everybody, before any role is looked at.
        if (!known) {
            checker = boost::make_shared<ConstantAccessChecker<false>>();
        } else if (roleIds.count(detail::ALL_POWERFUL_ROLE) != 0) {
            checker = boost::make_shared<ConstantAccessChecker<true>>();
        } else {
            checker = boost::make_shared<DiskAccessChecker>(cache_, roleIds, *known, option);
        }
    } catch (const std::bad_alloc&) {
        // Callers tell this by the empty checker: the status stays 0.
        logmsgf(16, TAG, "Failed to create AccessChecker, error=%d", OUT_OF_MEMORY);
    }
    return 0;
}

}  // namespace Tesmor::Arkwell::Rbac
