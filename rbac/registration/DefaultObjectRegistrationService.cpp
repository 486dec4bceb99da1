#include "rbac/registration/RequestText.h"
#include "rbac/rest/Rbac2Json.h"

#include <platform/Logger.h>
#include <platform/Status.h>
#include <rbac/EC_exception.h>
#include <rbac/ObjectRegistrationService.h>

#include <exception>
#include <new>
#include <optional>
#include <utility>

// The workflows: what is sent when, what the caller's callback decides, and what the caller is told.

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr int ARGUMENT_MISSING = 20;
constexpr int FAILED_WITHOUT_STATUS = 114;
constexpr int ROLLED_BACK = 8022;
constexpr int UNREGISTRATION_UNDONE = 8023;
constexpr int COMMIT_FAILED = 8024;
constexpr int ROLLBACK_FAILED = 8025;
constexpr int STATE_UPDATE_FAILED = 8030;

constexpr char REGISTER_TAG[] = "DefaultObjectRegistrationService::registerObject";
constexpr char UNREGISTER_TAG[] = "DefaultObjectRegistrationService::unregisterObject";
constexpr char BULK_REGISTER_TAG[] = "DefaultObjectRegistrationService::bulkRegisterObjects";
constexpr char BULK_UPDATE_TAG[] = "DefaultObjectRegistrationService::bulkUpdateObjectState";
constexpr char CHANGE_TAG[] = "DefaultObjectRegistrationService::changeObjectState";

int refuse(const char* who, const char* why) {
    logmsg(16, who, why);
    return ARGUMENT_MISSING;
}

/// The words for what a step throws, each before the status or the exception's text. Where those for a status are
/// empty, an exception with a status is told like any other.
struct FailureWords {
    std::string status;
    std::string exception;
    std::string unknown;
};

/// Takes a step of a workflow.
///
/// @return nothing where it succeeded; otherwise the status of what it threw, which is logged.
template <class Step>
std::optional<int> attempt(const char* who, const FailureWords& words, Step step) {
    try {
        step();
        return std::nullopt;
    } catch (const EC_exception& failure) {
        if (words.status.empty()) {
            logmsgf(16, who, "%s%s", words.exception.c_str(), failure.what());
        } else {
            logmsgf(16, who, "%s%d", words.status.c_str(), failure.status);
        }
        return failure.status;
    } catch (const std::exception& failure) {
        logmsgf(16, who, "%s%s", words.exception.c_str(), failure.what());
        // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): as the JSON helpers throw it
    } catch (const std::bad_alloc* failure) {
        delete failure;
        logmsg(16, who, words.unknown.c_str());
    } catch (...) {
        logmsg(16, who, words.unknown.c_str());
    }
    return FAILED_WITHOUT_STATUS;
}

/// What came of the caller's callback. An exception counts as a failure; it waits until the workflow has done what a
/// failure asks for.
class CallbackOutcome {
public:
    template <class Callback>
    CallbackOutcome(const char* who, Callback callback) {
        try {
            status_ = callback();
        } catch (...) {
            thrown_ = std::current_exception();
            status_ = logThrown(who);
        }
    }

    bool succeeded() const { return status_ == 0 && !thrown_; }
    int status() const { return status_; }

    /// Ends the workflow: with the callback's exception where there is one.
    int end(int workflowStatus) const {
        if (thrown_) {
            std::rethrow_exception(thrown_);
        }
        return workflowStatus;
    }

private:
    /// @return the status of the exception.
    int logThrown(const char* who) const {
        try {
            std::rethrow_exception(thrown_);
        } catch (const std::exception& failure) {
            logmsgf(8, who, "Callback threw exception: %s", failure.what());
            const auto* const known = dynamic_cast<const EC_exception*>(&failure);
            return known != nullptr ? known->status : FAILED_WITHOUT_STATUS;
        } catch (...) {
            logmsg(8, who, "Callback threw unknown exception.");
            return FAILED_WITHOUT_STATUS;
        }
    }

    int status_ = 0;
    std::exception_ptr thrown_;
};

void addStatePairs(RequestText& request, const std::list<ObjectNamespace>& objects, const std::string& state) {
    for (const ObjectNamespace& ns : objects) {
        request.add(DefaultObjectRegistrationService::buildNamespaceStatePair(ns, state));
    }
}

int commit(ObjectRegistrationService& service, const std::list<ObjectNamespace>& registered,
           const ObjectNamespace& object) {
    const std::string what = "Failed to commit [" + object.toLogStr() + "]. ";
    const FailureWords failed{"", what + "exception: ", what + "Unknown exception thrown."};
    logmsg(2, REGISTER_TAG, "Callback success. Committing the object.");
    if (attempt(REGISTER_TAG, failed, [&] { service.bulkUpdateObjectState(registered, {}, {}); })) {
        return COMMIT_FAILED;
    }
    logmsgf(4, REGISTER_TAG, "Object successfully registered [%s]", object.toLogStr().c_str());
    return 0;
}

int rollBack(ObjectRegistrationService& service, const std::list<ObjectNamespace>& registered,
             const ObjectNamespace& object, int callbackStatus) {
    const std::string what = "Failed to rollback [" + object.toLogStr() + "]. ";
    const FailureWords failed{"", what + "exception: ", what + "Unknown exception thrown."};
    logmsgf(2, REGISTER_TAG, "Callback failed. Rolling back the object. callbackStatus=%d", callbackStatus);
    if (attempt(REGISTER_TAG, failed, [&] { service.bulkUpdateObjectState({}, {}, registered); })) {
        return ROLLBACK_FAILED;
    }
    logmsgf(16, REGISTER_TAG, "Object successfully rolled back [%s]", object.toLogStr().c_str());
    return ROLLED_BACK;
}

int finishUnregistration(ObjectRegistrationService& service, const ObjectNamespace& ns) {
    const std::string what = "Failed to delete [" + ns.toLogStr() + "]";
    const FailureWords failed{what + ", status=", what + ". Exception: ", what + ". Unknown exception occurred."};
    logmsg(4, UNREGISTER_TAG, "Callback success. Deleting object");
    if (attempt(UNREGISTER_TAG, failed, [&] { service.deleteObject(ns); })) {
        return COMMIT_FAILED;
    }
    logmsgf(4, UNREGISTER_TAG, "[%s] unregistered successfully.", ns.toLogStr().c_str());
    return 0;
}

int undoUnregistration(ObjectRegistrationService& service, const ObjectNamespace& ns, int callbackStatus) {
    const FailureWords failed{"Failed to rollback, status=", "Failed to rollback. Exception: ",
                              "Failed to rollback. Unknown exception occurred."};
    logmsgf(16, UNREGISTER_TAG, "Callback failed, status=%d. Rolling back unregistration for [%s]", callbackStatus,
            ns.toLogStr().c_str());
    if (attempt(UNREGISTER_TAG, failed, [&] { service.changeObjectState(ns, READY); })) {
        return ROLLBACK_FAILED;
    }
    logmsg(4, UNREGISTER_TAG, "Rollback successful.");
    return UNREGISTRATION_UNDONE;
}

/// Commits what the callback names, takes back the rest.
int settle(ObjectRegistrationService& service, DefaultObjectRegistrationService::BulkRegisteredNamespaces registered,
           const std::set<ObjectNamespace>& succeeded, std::size_t requested) {
    int status = 0;
    if (succeeded.size() == requested) {
        logmsg(2, BULK_REGISTER_TAG, "Callback success. Committing objects.");
    } else {
        logmsgf(16, BULK_REGISTER_TAG,
                "Callback failed. successful=%lu, failed=%lu. Committing successful, rolling back failed.",
                succeeded.size(), requested - succeeded.size());
        status = ROLLED_BACK;
    }
    std::list<ObjectNamespace> ready;
    std::list<ObjectNamespace> deleted;
    // Both are in order: one pass instead of a search for each object.
    auto named = succeeded.begin();
    for (auto& [object, namespaces] : registered) {
        while (named != succeeded.end() && *named < object) {
            ++named;
        }
        std::list<ObjectNamespace>& list = named != succeeded.end() && *named == object ? ready : deleted;
        list.splice(list.end(), namespaces);
    }
    registered.clear();
    const FailureWords words{"State update failed, status=", "State update failed with exception: ",
                             "State update failed with unknown exception."};
    if (attempt(BULK_REGISTER_TAG, words, [&] { service.bulkUpdateObjectState(ready, {}, deleted); })) {
        return STATE_UPDATE_FAILED;
    }
    logmsg(2, BULK_REGISTER_TAG, "Successfully updated object states.");
    return status;
}

}  // namespace

ObjectRegistrationCallback::~ObjectRegistrationCallback() = default;
ObjectUnregistrationCallback::~ObjectUnregistrationCallback() = default;
BulkObjectRegistrationCallback::~BulkObjectRegistrationCallback() = default;
ObjectRegistrationService::~ObjectRegistrationService() = default;

int DefaultObjectRegistrationService::registerObject(boost::shared_ptr<ObjectRegistrationData> data,
                                                     boost::shared_ptr<ObjectRegistrationCallback> callback) {
    if (!data || !data->accessControlAttributes) {
        return refuse(REGISTER_TAG, "ObjectRegistrationData and AccessControlAttributes are required");
    }
    if (!callback) {
        return refuse(REGISTER_TAG, "ObjectRegistrationCallback is required");
    }
    RegisteredNamespaces registered;
    const FailureWords words{
        "Registration failed, status=", "Registration threw exception: ", "Registration threw unknown exception."};
    const std::optional<int> failure = attempt(REGISTER_TAG, words, [&] {
        std::string response;
        sendHttpRequest(HTTP_POST, OBJECT_REGISTRATION_URI, json_dumps_shared(buildRegistrationRequest(data)).get(),
                        response);
        registered = extractRegisteredNamespaces(response);
    });
    if (failure) {
        callback->failed(*failure);
        return *failure;
    }
    const CallbackOutcome outcome(REGISTER_TAG, [&] { return callback->process(); });
    return outcome.end(outcome.succeeded()
                           ? commit(*this, registered.second, data->objectNamespace)
                           : rollBack(*this, registered.second, data->objectNamespace, outcome.status()));
}

int DefaultObjectRegistrationService::unregisterObject(const ObjectNamespace& ns,
                                                       boost::shared_ptr<ObjectUnregistrationCallback> callback) {
    if (ns == ObjectNamespace()) {
        return refuse(UNREGISTER_TAG, "object Namespace is required");
    }
    if (!callback) {
        return refuse(UNREGISTER_TAG, "ObjectUnregistrationCallback is required");
    }
    logmsgf(4, UNREGISTER_TAG, "Unregistering %s", ns.toLogStr().c_str());
    const FailureWords words{
        "Failed to update object to pending, status=", "Failed to update object to pending. Exception: ",
        "Failed to update object to pending. Unknown exception occurred."};
    // A status of 0 that a step throws counts as success from here on.
    const int status = attempt(UNREGISTER_TAG, words, [&] { changeObjectState(ns, PENDING); }).value_or(0);
    if (status != 0) {
        callback->failed(status);
        return status;
    }
    logmsgf(4, UNREGISTER_TAG, "Updated [%s] state to PENDING", ns.toLogStr().c_str());
    const CallbackOutcome outcome(UNREGISTER_TAG, [&] { return callback->process(); });
    return outcome.end(outcome.succeeded() ? finishUnregistration(*this, ns)
                                           : undoUnregistration(*this, ns, outcome.status()));
}

int DefaultObjectRegistrationService::bulkRegisterObjects(
    const std::list<boost::shared_ptr<ObjectRegistrationData> >& data,
    boost::shared_ptr<BulkObjectRegistrationCallback> callback) {
    if (data.empty()) {
        return refuse(BULK_REGISTER_TAG, "bulkRegistrationData must not be empty");
    }
    if (!callback) {
        return refuse(BULK_REGISTER_TAG, "callback is required");
    }
    logmsgf(4, BULK_REGISTER_TAG, "Registering %lu objects", data.size());
    BulkRegisteredNamespaces registered;
    const FailureWords words{"Registration failed, status=", "Registration failed with exception: ",
                             "Registration failed with unknown exception."};
    // A status of 0 that a step throws counts as success, with nothing registered.
    const int status = attempt(BULK_REGISTER_TAG, words, [&] {
                           RequestText request(buildBulkRegistrationRequest({}));
                           for (const boost::shared_ptr<ObjectRegistrationData>& object : data) {
                               request.add(buildRegistrationJSON(object));
                           }
                           std::string response;
                           sendHttpRequest(HTTP_POST, BULK_OBJECT_REGISTRATION_URI, request.take(), response);
                           registered = extractBulkRegisteredNamespaces(std::move(response));
                       }).value_or(0);
    if (status != 0) {
        callback->failed(status);
        return status;
    }
    logmsg(2, BULK_REGISTER_TAG, "Successfully registered the objects in PENDING state.");
    std::set<ObjectNamespace> succeeded;
    const CallbackOutcome outcome(BULK_REGISTER_TAG, [&] {
        callback->process(succeeded);
        return 0;
    });
    return outcome.end(settle(*this, std::move(registered), succeeded, data.size()));
}

void DefaultObjectRegistrationService::bulkUpdateObjectState(const std::list<ObjectNamespace>& ready,
                                                             const std::list<ObjectNamespace>& pending,
                                                             const std::list<ObjectNamespace>& deleted) {
    logmsgf(4, BULK_UPDATE_TAG, "Updating object state. ready=%lu, pending=%lu, deleted=%lu", ready.size(),
            pending.size(), deleted.size());
    RequestText request(buildBulkStateUpdateRequest({}, {}, {}));
    addStatePairs(request, ready, READY_STR);
    addStatePairs(request, pending, PENDING_STR);
    addStatePairs(request, deleted, DELETED_STR);
    sendHttpRequest(HTTP_POST, BULK_OBJECT_UPDATE_URI, request.take());
}

void DefaultObjectRegistrationService::changeObjectState(const ObjectNamespace& ns, ManagedObjectState state) {
    switch (state) {
        case READY:
            return bulkUpdateObjectState({ns}, {}, {});
        case PENDING:
            return bulkUpdateObjectState({}, {ns}, {});
        case DELETED:
            return bulkUpdateObjectState({}, {}, {ns});
    }
    logmsgf(16, CHANGE_TAG, "Unknown object state, %d", state);
    throw EC_exception(ARGUMENT_MISSING);
}

void DefaultObjectRegistrationService::deleteObject(const ObjectNamespace& ns) {
    changeObjectState(ns, DELETED);
}

}  // namespace Tesmor::Arkwell::Rbac
