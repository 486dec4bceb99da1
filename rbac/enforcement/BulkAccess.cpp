#include "rbac/enforcement/DiskAccessChecker.h"

#include <rbac/BulkAccess.h>

#include <algorithm>
#include <memory>

namespace Tesmor::Arkwell::Rbac {

void checkAccessToAll(const AccessChecker& checker, const ObjectNamespace* objects, std::size_t count, bool* allowed) {
    const auto* const disk = dynamic_cast<const DiskAccessChecker*>(&checker);
    if (disk == nullptr) {
        std::transform(objects, objects + count, allowed,
                       [&checker](const ObjectNamespace& object) { return checker.checkAccess(object); });
        return;
    }
    for (std::size_t first = 0; first < count; first += MOST_OBJECTS_AT_ONCE) {
        disk->checkAccess(objects + first, std::min(count - first, MOST_OBJECTS_AT_ONCE), allowed + first);
    }
}

std::vector<bool> checkAccessToAll(const AccessChecker& checker, const std::vector<ObjectNamespace>& objects) {
    const auto allowed = std::make_unique<bool[]>(objects.size());
    checkAccessToAll(checker, objects.data(), objects.size(), allowed.get());
    std::vector<bool> answers(allowed.get(), allowed.get() + objects.size());
    return answers;
}

}  // namespace Tesmor::Arkwell::Rbac
