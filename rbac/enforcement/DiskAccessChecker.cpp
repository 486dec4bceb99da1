#include "rbac/enforcement/DiskAccessChecker.h"

#include "rbac/enforcement/AccessWalk.h"

#include <utility>

namespace Tesmor::Arkwell::Rbac {

DiskAccessChecker::DiskAccessChecker(boost::shared_ptr<const AccessCache> cache, const std::set<int>& roleIds,
                                     const Operation& operation, int option)
    : cache_(std::move(cache)), roleIds_(roleIds.begin(), roleIds.end()), operation_(operation), option_(option) {}

DiskAccessChecker::~DiskAccessChecker() = default;

bool DiskAccessChecker::checkAccess(const ObjectNamespace& object) const {
    const std::string& text = object.str();
    __builtin_prefetch(text.data());  // is there when the lock is had
    const AccessCache::Reader reader = cache_->lock();
    return detail::walkAccess(detail::CacheAccess::view(reader), text, {roleIds_, operation_.bitNumber()},
                              [](const detail::PathRecord&, detail::RoleTree, bool) {});
}

}  // namespace Tesmor::Arkwell::Rbac
