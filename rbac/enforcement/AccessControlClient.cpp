#include <rbac/AccessControlClient.h>

namespace Tesmor::Arkwell::Rbac {

AccessChecker::~AccessChecker() = default;

AccessControlClient::~AccessControlClient() = default;

}  // namespace Tesmor::Arkwell::Rbac
