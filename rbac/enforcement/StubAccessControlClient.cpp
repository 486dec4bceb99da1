#include "rbac/enforcement/StubAccessControlClient.h"

#include "rbac/enforcement/ConstantAccessChecker.h"

#include <boost/make_shared.hpp>

namespace Tesmor::Arkwell::Rbac {

StubAccessControlClient::~StubAccessControlClient() = default;

int StubAccessControlClient::createAccessChecker(Tesmor::Dal::DbConnectionManager* /*db*/,
                                                 const std::string& /*sessionToken*/,
                                                 const ObjectNamespace& /*operation*/, int /*option*/,
                                                 boost::shared_ptr<const AccessChecker>& checker) {
    checker = boost::make_shared<ConstantAccessChecker<true>>();
    return 0;
}

int StubAccessControlClient::createAccessChecker(const std::set<int>& /*roleIds*/, const ObjectNamespace& /*operation*/,
                                                 int /*option*/, boost::shared_ptr<const AccessChecker>& checker) {
    checker = boost::make_shared<ConstantAccessChecker<true>>();
    return 0;
}

}  // namespace Tesmor::Arkwell::Rbac
