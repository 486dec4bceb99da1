#include "platform/ForkGeneration.h"
#include "rbac/cache/ReaderSessions.h"
#include "rbac/cache/SegmentDescent.h"

#include <platform/Logger.h>
#include <rbac/AccessCache.h>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr int INVALID_CACHE = 12;

}  // namespace

namespace detail {

segment_iterator::segment_iterator(const std::string& text, std::size_t position) : text_(text), position_(position) {}

const std::int32_t* segment_iterator::operator->() const {
    value_ = segmentAt(text_.data() + position_, text_.size() - position_).value;
    return &value_;
}

segment_iterator& segment_iterator::operator++() {
    position_ += segmentAt(text_.data() + position_, text_.size() - position_).length;
    return *this;
}

std::pair<segment_iterator, segment_iterator> namespaceSegments(const ObjectNamespace& ns) {
    const std::string& text = ns.str();
    return {segment_iterator(text, 0), segment_iterator(text, text.size())};
}

bool get_operation_bit(const ManagedObject& object, const ReadOnlyBlockAllocator<TreeNode<int, NodeBits>>& nodes,
                       std::int32_t roleId, const Operation& operation, RoleTree tree) {
    return operationBit(nodes.records(), tree == RoleTree::OWN ? object.ownRoles : object.childRoles, roleId,
                        operation.bitNumber());
}

}  // namespace detail

AccessCache::Reader::Reader(const AccessCache& cache, detail::ReaderSession& session)
    : cache_(&cache), session_(&session), forkGeneration_(platform_detail::forkGeneration()) {}

AccessCache::Reader::Reader(const AccessCache& cache) : Reader(cache, cache.sessions_->enter()) {
    if (cache.metadataMap_.mapped_size() < sizeof(detail::MetadataHeader)) {
        logmsgf(16, "AccessCache::Reader", "The metadata of cache %s is too short. Assuming invalid.",
                cache.manifest_.objectNamespace().str().c_str());
        throw EC_exception(INVALID_CACHE);
    }
    if (writing_in_progress()) {
        logmsgf(16, "AccessCache::Reader", "A previous write on cache %s was interrupted. Assuming invalid.",
                cache.manifest_.objectNamespace().str().c_str());
        throw EC_exception(INVALID_CACHE);
    }
}

AccessCache::Reader::Reader(const Reader& other)
    : cache_(other.cache_), session_(other.session_), forkGeneration_(other.forkGeneration_) {
    if (forkGeneration_ == platform_detail::forkGeneration()) {
        detail::ReaderSessions::addReader(*session_);
    }
}

AccessCache::Reader& AccessCache::Reader::operator=(const Reader& other) {
    Reader copy(other);
    std::swap(cache_, copy.cache_);
    std::swap(session_, copy.session_);
    std::swap(forkGeneration_, copy.forkGeneration_);
    return *this;
}

AccessCache::Reader::~Reader() {
    // The sessions of a parent process are not there any more in its fork child.
    if (forkGeneration_ == platform_detail::forkGeneration()) {
        cache_->sessions_->leave(*session_);
    }
}

bool AccessCache::Reader::writing_in_progress() const {
    return __atomic_load_n(&cache_->metadata_.at(0)->writing, __ATOMIC_RELAXED) != 0;
}

const ManagedObject* AccessCache::Reader::lookup(const ObjectNamespace& ns) const {
    const std::string& text = ns.str();
    const ManagedObject* object = nullptr;
    detail::descend(detail::CacheAccess::view(*this), text, [&](const ManagedObject& record, std::size_t length) {
        if (length == text.size()) {
            object = &record;
        }
    });
    return object;
}

const ManagedObject* AccessCache::Reader::getManagedObject(NodeOffset offset) const {
    return cache_->objects_.containing(offset);
}

bool AccessCache::Reader::getOperationBit(const ManagedObject& object, std::int32_t roleId,
                                          const Operation& operation) const {
    return detail::get_operation_bit(object, cache_->nodes_, roleId, operation, detail::RoleTree::OWN);
}

bool AccessCache::Reader::getOperationBit(const ObjectNamespace& ns, std::int32_t roleId,
                                          const Operation& operation) const {
    const ManagedObject* const object = lookup(ns);
    return object != nullptr && getOperationBit(*object, roleId, operation);
}

bool AccessCache::Reader::getChildOperationBit(const ManagedObject& object, std::int32_t roleId,
                                               const Operation& operation) const {
    return detail::get_operation_bit(object, cache_->nodes_, roleId, operation, detail::RoleTree::CHILD);
}

bool AccessCache::Reader::getChildOperationBit(const ObjectNamespace& ns, std::int32_t roleId,
                                               const Operation& operation) const {
    const ManagedObject* const object = lookup(ns);
    return object != nullptr && getChildOperationBit(*object, roleId, operation);
}

}  // namespace Tesmor::Arkwell::Rbac
