#include "sandbox/Publisher.h"

#include "sandbox/LogLevels.h"

#include <platform/Logger.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::chrono::seconds SHORTEST_PAUSE{1};
constexpr std::chrono::seconds LONGEST_PAUSE{60};

bool any(const std::list<PublishedChange>& changes, bool PublishedChange::*question) {
    return std::any_of(changes.begin(), changes.end(),
                       [question](const PublishedChange& change) { return change.*question; });
}

}  // namespace

Publisher::Publisher(std::string folder, PublicationSource source, CacheWriterOptions writer)
    : folder_(std::move(folder)),
      source_(std::move(source)),
      writer_(std::move(writer)),
      retrying_([this] { retry(); }) {}

Publisher::~Publisher() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isEnding_ = true;
        retried_.notify_all();
    }
    retrying_.join();
}

std::uint64_t Publisher::note(std::list<PublishedChange>& change) {
    const std::lock_guard<std::mutex> lock(mutex_);
    noted_.splice(noted_.end(), change);
    return ++lastNoted_;
}

void Publisher::await(std::uint64_t change) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (lastPublished_ < change) {
        if (isPublishing_) {
            published_.wait(lock);
            continue;
        }
        isPublishing_ = true;
        const std::uint64_t newest = lastNoted_;
        std::list<PublishedChange> changes;
        changes.swap(noted_);
        const std::uint64_t before = lastPublished_;  // nobody else changes it meanwhile
        lock.unlock();
        const auto finish = [&](std::uint64_t reached) {
            lock.lock();
            isPublishing_ = false;
            lastPublished_ = reached;
            published_.notify_all();
        };
        try {
            publish(changes);
        } catch (...) {
            finish(before);
            hasFailed_ = true;
            retried_.notify_all();
            throw;
        }
        finish(newest);
        hasFailed_ = false;
    }
}

void Publisher::retry() {
    std::unique_lock<std::mutex> lock(mutex_);
    std::chrono::seconds pause = SHORTEST_PAUSE;
    while (!isEnding_) {
        if (!hasFailed_) {
            pause = SHORTEST_PAUSE;
            retried_.wait(lock);
            continue;
        }
        if (retried_.wait_for(lock, pause, [this] { return isEnding_ || !hasFailed_; })) {
            continue;
        }
        const std::uint64_t newest = lastNoted_;
        lock.unlock();
        try {
            await(newest);
            logmsg(LEVEL_NOTICE, "Publisher", "Published what could not be published before");
        } catch (const std::exception&) {
            // Whoever made the change has said why; to say it again each time would fill the log.
            pause = std::min(pause * 2, LONGEST_PAUSE);
        }
        lock.lock();
    }
}

void Publisher::publish(const std::list<PublishedChange>& changes) {
    const bool wasCurrent = isCurrent_;
    isCurrent_ = false;
    if (!wasCurrent || any(changes, &PublishedChange::operations)) {
        // First, so that whoever finds an operation in the access cache knows its number.
        writeOperationCache(folder_ + "/operation-cache.json", source_.operations());
    }
    if (!wasCurrent || any(changes, &PublishedChange::everything)) {
        model_ = source_.model();
    } else {
        for (const PublishedChange& change : changes) {
            std::for_each(change.objects.begin(), change.objects.end(),
                          [this](const ModelObject& object) { model_.add(object); });
        }
    }
    CacheWriter(folder_ + "/access-caches/" + CACHE_ID, writer_).publish(model_);
    isCurrent_ = true;
}

}  // namespace Tesmor::Arkwell::Sandbox
