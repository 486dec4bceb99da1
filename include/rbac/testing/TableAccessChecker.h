#pragma once

#include <rbac/AccessControlClient.h>
#include <rbac/ObjectNamespace.h>

#include <exception>
#include <map>
#include <mutex>
#include <vector>

// For the tests of programs that ask for access. Header-only, and of no test framework.

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// Answers from a table and remembers what it was asked. What the table does not name is denied.
///
///     const auto checker = boost::make_shared<TableAccessChecker>();
///     checker->allow(ObjectNamespace("ASSETS", "db"));
///     drawMenu(*checker);
///     checker->asked();
///
/// An entry holds for that very object, not for what is below it. The last entry for an object counts. As any checker
/// that is not the library's own, it is asked object by object by checkAccessToAll(); explainAccess() and the lists of
/// AccessLists.h take clients, and refuse those of a program's own.
///
/// Every function may be called from any thread, also while others check.
class TableAccessChecker : public AccessChecker {
public:
    /// @param otherwise the answer for objects that the table does not name.
    explicit TableAccessChecker(bool otherwise = false) : otherwise_(otherwise) {}

    /// Checks of this object are answered with yes.
    TableAccessChecker& allow(const ObjectNamespace& object) { return set(object, {true, {}}); }
    /// Checks of this object are answered with no.
    TableAccessChecker& deny(const ObjectNamespace& object) { return set(object, {false, {}}); }
    /// Checks of this object throw a copy of this, such as EC_exception(12), an access cache that cannot be used.
    template <class Thrown>
    TableAccessChecker& raise(const ObjectNamespace& object, const Thrown& thrown) {
        return set(object, {false, std::make_exception_ptr(thrown)});
    }

    bool checkAccess(const ObjectNamespace& object) const override {
        const std::lock_guard<std::mutex> lock(mutex_);
        asked_.push_back(object);
        const auto entry = table_.find(object);
        if (entry == table_.end()) {
            return otherwise_;
        }
        if (entry->second.thrown) {
            std::rethrow_exception(entry->second.thrown);
        }
        return entry->second.allowed;
    }

    /// The objects of all checks so far, in order.
    std::vector<ObjectNamespace> asked() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return asked_;
    }

private:
    struct Entry {
        bool allowed = false;
        std::exception_ptr thrown = {};  // null: nothing
    };

    TableAccessChecker& set(const ObjectNamespace& object, const Entry& entry) {
        const std::lock_guard<std::mutex> lock(mutex_);
        table_[object] = entry;
        return *this;
    }

    const bool otherwise_;
    mutable std::mutex mutex_;  // guards the table and what was asked
    std::map<ObjectNamespace, Entry> table_;
    mutable std::vector<ObjectNamespace> asked_;
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
