#pragma once

#include "sandbox/AccessModel.h"
#include "sandbox/CacheWriter.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// What a change of the state means for what is published.
struct PublishedChange {
    std::vector<ModelObject> objects = {};  ///< as they are now
    bool everything = false;                ///< too much has changed to tell one by one
    bool operations = false;                ///< the operation cache as well
};

/// Where what is published comes from. Called by one thread at a time.
struct PublicationSource {
    std::function<AccessModel()> model;
    std::function<std::map<ObjectNamespace, std::int32_t>()> operations;
};

/// Keeps the access cache and the operation cache of an installation up to date. Those who wait for a publication at
/// the same time share one. Safe from any thread.
class Publisher {
public:
    /// The identifier of the one access cache, which covers every object.
    static constexpr char CACHE_ID[] = "all";

    /// @param folder where "operation-cache.json" and the folder "access-caches" are.
    /// @param writer how the access cache is written.
    Publisher(std::string folder, PublicationSource source, CacheWriterOptions writer = {});
    ~Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    /// Takes notice of a change, without publishing it yet. Call it in the order in which the changes were made.
    ///
    /// @param change a list of one: to take it cannot fail.
    /// @return what await() takes.
    std::uint64_t note(std::list<PublishedChange>& change);
    /// Returns when a publication contains the change.
    ///
    /// @throws what CacheWriter::publish() and writeOperationCache() throw. The change is then part of the next
    /// publication that succeeds, which is attempted now and then until it does.
    void await(std::uint64_t change);

private:
    void publish(const std::list<PublishedChange>& changes);
    void retry();

    const std::string folder_;
    const PublicationSource source_;
    const CacheWriterOptions writer_;

    AccessModel model_;       // of who is publishing
    bool isCurrent_ = false;  // whether the model is as it was published last; of who is publishing

    std::mutex mutex_;
    std::condition_variable published_;
    std::list<PublishedChange> noted_;
    std::uint64_t lastNoted_ = 0;
    std::uint64_t lastPublished_ = 0;
    bool isPublishing_ = false;

    std::condition_variable retried_;
    bool hasFailed_ = false;  // whether a publication is to be attempted again
    bool isEnding_ = false;
    std::thread retrying_;  // the last one: it uses the others
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
