#pragma once

#include "sandbox/Publisher.h"
#include "sandbox/ServiceTables.h"
#include "sandbox/SqliteDatabase.h"

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// A change of the state that is being made: it works on the tables and says what it touches.
class StateChange {
public:
    explicit StateChange(SqliteDatabase& database) : tables(database) {}

    /// What is known of this object, its access definitions included, has changed.
    void touch(const std::string& objectName) { touched_.insert(objectName); }
    /// More has changed than can be told one by one.
    void touchEverything() { everything_ = true; }
    void touchOperations() { operations_ = true; }

    /// Whether anything that is published has changed.
    bool isPublished() const { return everything_ || operations_ || !touched_.empty(); }
    /// What it means for what is published.
    PublishedChange published() const;

    ServiceTables tables;

private:
    std::set<std::string> touched_;
    bool everything_ = false;
    bool operations_ = false;
};

/// The state of the stand-in service and what is published of it. Safe from any thread.
///
/// A change is answered for when it is in the database, whatever happens to the machine, and in the published caches.
class AccessService {
public:
    /// Opens the state and publishes what it says, in case that was interrupted the last time.
    ///
    /// @param publicationFolder see Publisher, as for `writer`.
    AccessService(std::string stateFile, const std::string& publicationFolder, const CacheWriterOptions& writer = {});

    /// Makes a change: all of it or, where `make` throws, nothing.
    ///
    /// @throws what `make` throws; ServiceError of the kind NOT_PUBLISHED.
    void change(const std::function<void(StateChange&)>& make);

    /// Looks at one state, beside changes and other readers: the one that there is when `look` first asks for
    /// something.
    void read(const std::function<void(const ServiceTables&)>& look);

private:
    struct GiveBack {
        AccessService* owner;
        void operator()(SqliteDatabase* reader) const;
    };
    using Loan = std::unique_ptr<SqliteDatabase, GiveBack>;
    Loan borrowReader();

    const std::string stateFile_;

    std::mutex changing_;
    SqliteDatabase database_;

    std::mutex lending_;
    std::vector<std::unique_ptr<SqliteDatabase>> readers_;  // never more than there is room for

    Publisher publisher_;  // the last one: its thread uses the others
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
