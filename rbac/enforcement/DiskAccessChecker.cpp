#include "rbac/enforcement/DiskAccessChecker.h"

#include "rbac/enforcement/AccessWalk.h"
#include "rbac/enforcement/BulkWalk.h"

#include <algorithm>
#include <string_view>
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
                              [](const detail::PathRecord&, detail::RoleTree, detail::StepOutcome) {});
}

void DiskAccessChecker::checkAccess(const ObjectNamespace* objects, std::size_t count, bool* allowed) const {
    for (std::size_t i = 0; i < count; ++i) {
        objects[i].str();  // the texts are there when the lock is had
    }
    const AccessCache::Reader reader = cache_->lock();
    const detail::CacheView view = detail::CacheAccess::view(reader);
    const detail::AccessQuestion question{roleIds_, operation_.bitNumber()};
    detail::BulkWalk walk(view, question);
    for (std::size_t first = 0; first < count; first += detail::BulkWalk::BLOCK) {
        walk.answer(
            first, std::min(count - first, detail::BulkWalk::BLOCK),
            [objects](std::size_t i) { return std::string_view(objects[i].str()); }, allowed + first);
    }
}

}  // namespace Tesmor::Arkwell::Rbac
