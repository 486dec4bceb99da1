#include "rbac/cache/ReaderSessions.h"

#include <rbac/AccessCache.h>

namespace Tesmor::Arkwell::Rbac {

AccessCache::AccessCache(const Manifest& manifest)
    : manifest_(manifest),
      directory_(manifest.directory()),
      name_(manifest.name()),
      metadataMap_(directory_ + "/" + METADATA_FILE_NAME),
      objectMap_(directory_ + "/" + OBJECT_FILE_NAME),
      nodeMap_(directory_ + "/" + NODE_FILE_NAME),
      segmentMap_(directory_ + "/" + SEGMENT_FILE_NAME),
      metadata_(metadataMap_),
      objects_(objectMap_),
      nodes_(nodeMap_),
      segments_(segmentMap_),
      sessions_(std::make_unique<detail::ReaderSessions>(manifest.path())) {}

AccessCache::~AccessCache() = default;

AccessCache::Reader AccessCache::lock() const {
    Reader reader(*this);
    if (!detail::ReaderSessions::isShared(*reader.session_)) {
        refresh(*reader.session_);
        sessions_->share(*reader.session_);
    }
    return reader;
}

// The metadata map is left alone: the header keeps its size.
void AccessCache::refresh(detail::ReaderSession& session) const {
    sessions_->refresh(objectMap_, session);
    sessions_->refresh(nodeMap_, session);
    sessions_->refresh(segmentMap_, session);
}

std::size_t AccessCache::managedObjectCount() const {
    return objectMap_.mapped_size() / sizeof(ManagedObject);
}

}  // namespace Tesmor::Arkwell::Rbac
