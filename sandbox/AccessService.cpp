#include "sandbox/AccessService.h"

#include "sandbox/LogLevels.h"
#include "sandbox/ServiceError.h"

#include <platform/Logger.h>

#include <utility>

namespace Tesmor::Arkwell::Sandbox {

namespace {

constexpr std::size_t MOST_IDLE_READERS = 8;

/// Sees one state of the database while it lives.
class Snapshot {
public:
    explicit Snapshot(SqliteDatabase& database) : database_(database) { database_.execute("BEGIN"); }
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;
    ~Snapshot() {
        try {
            database_.execute("ROLLBACK");
        } catch (const std::exception& failure) {
            logmsgf(LEVEL_ERROR, "AccessService::read", "%s", failure.what());
        }
    }

private:
    SqliteDatabase& database_;
};

}  // namespace

PublishedChange StateChange::published() const {
    PublishedChange change;
    change.everything = everything_;
    change.operations = operations_;
    if (!everything_) {
        for (const std::string& name : touched_) {
            change.objects.push_back(tables.objects.modelObject(name));
        }
    }
    return change;
}

AccessService::AccessService(std::string stateFile, const std::string& publicationFolder,
                             const CacheWriterOptions& writer)
    : stateFile_(std::move(stateFile)),
      database_(stateFile_),
      publisher_(publicationFolder,
                 {[this] { return ObjectTable(*borrowReader()).model(); },
                  [this] { return OperationTable(*borrowReader()).bitNumbers(); }},
                 writer) {
    readers_.reserve(MOST_IDLE_READERS);
    createServiceTables(database_);
    std::list<PublishedChange> everything(1);
    publisher_.await(publisher_.note(everything));
}

void AccessService::change(const std::function<void(StateChange&)>& make) {
    std::uint64_t noted = 0;
    {
        const std::lock_guard<std::mutex> lock(changing_);
        SqliteTransaction transaction(database_);
        StateChange change(database_);
        make(change);
        std::list<PublishedChange> published;
        published.push_back(change.published());
        transaction.commit();
        if (!change.isPublished()) {
            return;
        }
        noted = publisher_.note(published);
    }
    try {
        publisher_.await(noted);
    } catch (const std::exception& failure) {
        logmsgf(LEVEL_ERROR, "AccessService::change", "Cannot publish: %s", failure.what());
        throw ServiceError(error_kinds::NOT_PUBLISHED, failure.what());
    }
}

void AccessService::read(const std::function<void(const ServiceTables&)>& look) {
    const Loan reader = borrowReader();
    const Snapshot snapshot(*reader);
    look(ServiceTables(*reader));
}

void AccessService::GiveBack::operator()(SqliteDatabase* reader) const {
    std::unique_ptr<SqliteDatabase> returned(reader);
    const std::lock_guard<std::mutex> lock(owner->lending_);
    if (owner->readers_.size() < owner->readers_.capacity()) {
        owner->readers_.push_back(std::move(returned));
    }
}

AccessService::Loan AccessService::borrowReader() {
    {
        const std::lock_guard<std::mutex> lock(lending_);
        if (!readers_.empty()) {
            SqliteDatabase* const reader = readers_.back().release();
            readers_.pop_back();
            return Loan(reader, GiveBack{this});
        }
    }
    return Loan(std::make_unique<SqliteDatabase>(stateFile_).release(), GiveBack{this});
}

}  // namespace Tesmor::Arkwell::Sandbox
