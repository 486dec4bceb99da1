#include "rbac/enforcement/ClientQuery.h"

#include <rbac/EC_exception.h>

#include <stdexcept>

namespace Tesmor::Arkwell::Rbac::detail {

const DiskAccessControlClient& diskClient(const AccessControlClient& client) {
    const auto* const disk = dynamic_cast<const DiskAccessControlClient*>(&client);
    if (disk == nullptr) {
        throw std::invalid_argument("the client reads no access cache");
    }
    return *disk;
}

int findOperation(const DiskAccessControlClient& client, const ObjectNamespace& operation,
                  boost::optional<Operation>& found) {
    try {
        found = client.operations()[operation];
        return 0;
    } catch (const EC_exception& failure) {
        return failure.status;
    }
}

}  // namespace Tesmor::Arkwell::Rbac::detail
