#pragma once

#include <rbac/AccessControlClient.h>
#include <rbac/EC_exception.h>
#include <rbac/ObjectNamespace.h>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// For the tests of programs that ask for access. Header-only, and of no test framework.

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// A client over tables: which roles a session has, and what is granted to a role. No service, no database, no files.
///
///     FakeAccessControlClient client;
///     client.addSession("alice", {5});
///     client.refuseSession("yesterday", 8001);
///     client.grant(5, root_namespaces::operations::VIEW, ObjectNamespace("ASSETS", "db"));
///     serve(client);
///     client.checks();
///
/// A checker allows what is granted to one of its roles, and everything to role 0; nothing is inherited from an
/// object's ancestors. As with the library's own client, checkers see changes of the tables at once, and are good for
/// as long as they are held, whatever becomes of the client.
///
/// It is a client of a program's own, so checkAccessToAll() asks its checkers object by object, and explainAccess(),
/// whatWouldAllow() and the lists of AccessLists.h throw std::invalid_argument: what these need is an access cache.
///
/// Every function may be called from any thread, also while others check.
class FakeAccessControlClient : public AccessControlClient {
public:
    static constexpr int UNKNOWN_SESSION = 117;  ///< the status of a session that was never named

    /// A call of createAccessChecker().
    struct Creation {
        std::string sessionToken;   ///< empty where roles were given
        std::set<int> roleIds;      ///< those given, or those of the session
        ObjectNamespace operation;  ///< as it was given
        int option;                 ///< as it was given
        int status;                 ///< what it returned
    };
    /// A call of AccessChecker::checkAccess().
    struct Check {
        std::set<int> roleIds;      ///< those of the checker
        ObjectNamespace operation;  ///< that of the checker
        ObjectNamespace object;     ///< what was asked about
    };

    /// The session's token gives these roles from now on. A token that was never named has the status UNKNOWN_SESSION.
    void addSession(const std::string& sessionToken, const std::set<int>& roleIds) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->sessions[sessionToken] = {0, roleIds};
    }
    /// The session's token gives no checker but this status from now on, for example 8001: it has expired.
    void refuseSession(const std::string& sessionToken, int status) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->sessions[sessionToken] = {status, {}};
    }

    /// The role holds the operation on that very object from now on.
    void grant(int roleId, const ObjectNamespace& operation, const ObjectNamespace& object) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->grants.insert({roleId, operation, object});
    }
    /// Takes a grant back, if there is one.
    void revoke(int roleId, const ObjectNamespace& operation, const ObjectNamespace& object) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->grants.erase({roleId, operation, object});
    }

    /// From now on no checker is made, but this status returned, for example 13: the operation cache cannot be read.
    /// 0 ends that.
    void failCreations(int status) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->creationStatus = status;
    }
    /// From now on every check throws EC_exception with this status, for example 12: the access cache is invalid.
    /// 0 ends that.
    void failChecks(int status) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->checkStatus = status;
    }

    /// All calls of createAccessChecker() so far, in order.
    std::vector<Creation> creations() const {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->creations;
    }
    /// All checks so far by checkers of this client, in order.
    std::vector<Check> checks() const {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->checks;
    }

    /// The database is not looked at.
    ///
    /// @return 0, or the status that the session or all creations were given, with `checker` untouched.
    /// @throws std::bad_alloc.
    int createAccessChecker(Tesmor::Dal::DbConnectionManager* /*db*/, const std::string& sessionToken,
                            const ObjectNamespace& operation, int option,
                            boost::shared_ptr<const AccessChecker>& checker) override {
        return create(sessionToken, sessionOf(sessionToken), operation, option, checker);
    }
    int createAccessChecker(const std::set<int>& roleIds, const ObjectNamespace& operation, int option,
                            boost::shared_ptr<const AccessChecker>& checker) override {
        return create("", {0, roleIds}, operation, option, checker);
    }

private:
    static constexpr int ALL_POWERFUL_ROLE = 0;

    struct Session {
        int status = 0;
        std::set<int> roleIds = {};
    };

    struct State {
        bool isAllowed(const Check& check) const {
            return std::any_of(check.roleIds.begin(), check.roleIds.end(), [&](int role) {
                return role == ALL_POWERFUL_ROLE || grants.count({role, check.operation, check.object}) != 0;
            });
        }

        std::mutex mutex;  // guards all below
        std::map<std::string, Session> sessions;
        std::set<std::tuple<int, ObjectNamespace, ObjectNamespace> > grants;
        int creationStatus = 0;
        int checkStatus = 0;
        std::vector<Creation> creations;
        std::vector<Check> checks;
    };

    class Checker : public AccessChecker {
    public:
        Checker(std::shared_ptr<State> state, const std::set<int>& roleIds, const ObjectNamespace& operation)
            : state_(std::move(state)), roleIds_(roleIds), operation_(operation) {}

        bool checkAccess(const ObjectNamespace& object) const override {
            const std::lock_guard<std::mutex> lock(state_->mutex);
            state_->checks.push_back({roleIds_, operation_, object});
            if (state_->checkStatus != 0) {
                throw EC_exception(state_->checkStatus);
            }
            return state_->isAllowed(state_->checks.back());
        }

    private:
        const std::shared_ptr<State> state_;
        const std::set<int> roleIds_;
        const ObjectNamespace operation_;
    };

    Session sessionOf(const std::string& sessionToken) const {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        const auto found = state_->sessions.find(sessionToken);
        return found != state_->sessions.end() ? found->second : Session{UNKNOWN_SESSION, {}};
    }

    int create(const std::string& sessionToken, const Session& session, const ObjectNamespace& operation, int option,
               boost::shared_ptr<const AccessChecker>& checker) {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        // A session is looked at first, as by the library's own client.
        const int status = session.status != 0 ? session.status : state_->creationStatus;
        state_->creations.push_back({sessionToken, session.roleIds, operation, option, status});
        if (status == 0) {
            checker = boost::make_shared<Checker>(state_, session.roleIds, operation);
        }
        return status;
    }

    const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
