#pragma once

/// @file
/// Registration of objects in two phases.

#include <platform/Export.h>
#include <platform/HttpClient.h>
#include <rbac/ManagedObjectState.h>
#include <rbac/ObjectNamespace.h>

#include <boost/shared_ptr.hpp>

#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>

struct json_t;

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// One object to register.
struct ARKWELL_EXPORT ObjectRegistrationData {
    /// Sets the members of the same names.
    ObjectRegistrationData(ObjectNamespace objectNamespace, std::string objectType,
                           boost::shared_ptr<json_t> accessControlAttributes,
                           std::list<ObjectNamespace> relativeChildNamespaces, bool ignoreAlreadyRegistered);

    ObjectNamespace objectNamespace;  ///< its name
    std::string objectType;           ///< sent as it is
    /// Whose access the object starts with, as the service defines it. Sent as it is.
    boost::shared_ptr<json_t> accessControlAttributes;
    /// Objects to register with this one, named relative to it.
    std::list<ObjectNamespace> relativeChildNamespaces;
    /// Whether an object that the service knows already is left as it is instead of failing the registration.
    bool ignoreAlreadyRegistered;
};

/// The caller's part of a registration.
class ARKWELL_EXPORT ObjectRegistrationCallback {
public:
    virtual ~ObjectRegistrationCallback();

    /// Makes the object, which the service knows as PENDING by now.
    ///
    /// @return 0: it is there, so its registration is committed; anything else takes the registration back. So does an
    /// exception, which is logged and then goes on to the caller of the workflow.
    virtual int process() = 0;

    /// The registration failed before process() could run.
    ///
    /// @param status what the workflow returns.
    virtual void failed(int status) = 0;
};

/// The caller's part of an unregistration.
class ARKWELL_EXPORT ObjectUnregistrationCallback {
public:
    virtual ~ObjectUnregistrationCallback();

    /// Removes the object, which the service has made PENDING by now.
    ///
    /// @return 0: it is gone, so the service forgets it; anything else makes it READY again. So does an exception,
    /// which is logged and then goes on to the caller of the workflow.
    virtual int process() = 0;

    /// The unregistration failed before process() could run.
    ///
    /// @param status what the workflow returns.
    virtual void failed(int status) = 0;
};

/// The caller's part of the registration of many objects.
class ARKWELL_EXPORT BulkObjectRegistrationCallback {
public:
    virtual ~BulkObjectRegistrationCallback();

    /// Makes the objects, which the service knows as PENDING by now.
    ///
    /// @param succeeded empty; to be filled with the namespaces of the objects that are there. Their registrations are
    /// committed, the others are taken back, also where an exception leaves this function; it is logged and then goes
    /// on to the caller of the workflow.
    /// @return is not looked at.
    virtual int process(std::set<ObjectNamespace>& succeeded) = 0;

    /// The registration failed before process() could run.
    ///
    /// @param status what the workflow returns.
    virtual void failed(int status) = 0;
};

/// Registers protected objects with the access-control service in two phases, so that no failure leaves an object
/// protected that does not exist, or one that exists unprotected, without somebody being told: the objects are recorded
/// as PENDING, which grants nothing; the caller's callback does the caller's own work; then they are committed (READY)
/// or taken back (DELETED).
///
/// The workflows return 0 or a status, which is logged with its cause:
///
/// | Status | Meaning | The service holds |
/// |---|---|---|
/// | 20 | an argument is missing | what it held |
/// | 8022 | the callback failed (in bulk: for some objects) | none of what failed |
/// | 8023 | the callback of an unregistration failed | the object, READY |
/// | 8024 | the commit of a registration or the deletion of an unregistered object failed | PENDING objects |
/// | 8025 | taking back failed | PENDING objects |
/// | 8030 | the commit of a bulk registration failed | PENDING objects |
/// | another | the first request failed: the service's or the transport's own status, or 114 | what it held |
///
/// A request that arrived, but whose answer was lost, counts as failed although the service has carried it out: it may
/// then hold PENDING objects where the table says what it held, and the final state where it says PENDING.
///
/// A service that answers with the error code 0, or a factory whose clients throw EC_exception(0), makes a first
/// request fail with the status 0. registerObject() then returns 0 after it has called failed(0): nothing is
/// registered. The other two carry on as after a success. unregisterObject() calls process() and deletes the object;
/// bulkRegisterObjects() calls process() and commits nothing, because nothing is known to be registered.
///
/// Exceptions of callbacks pass through. Each object is independent of the others; several threads may use one at once,
/// as far as the HTTP factory allows it.
class ARKWELL_EXPORT ObjectRegistrationService {
public:
    virtual ~ObjectRegistrationService();

    /// Registers an object with its children.
    ///
    /// @param data its access-control attributes must be there.
    /// @param callback makes the object.
    virtual int registerObject(boost::shared_ptr<ObjectRegistrationData> data,
                               boost::shared_ptr<ObjectRegistrationCallback> callback) = 0;

    /// Removes an object from the service, after the callback has removed it.
    ///
    /// @param ns not the root.
    /// @param callback removes the object.
    virtual int unregisterObject(const ObjectNamespace& ns,
                                 boost::shared_ptr<ObjectUnregistrationCallback> callback) = 0;

    /// Registers any number of objects, with one request before and one after the callback.
    ///
    /// @return also 8022 where the callback did not name as many objects as there are in `data`.
    virtual int bulkRegisterObjects(const std::list<boost::shared_ptr<ObjectRegistrationData> >& data,
                                    boost::shared_ptr<BulkObjectRegistrationCallback> callback) = 0;

    /// Sets the states of objects, all of them or none.
    ///
    /// @throws EC_exception with the service's or the transport's status.
    virtual void bulkUpdateObjectState(const std::list<ObjectNamespace>& ready,
                                       const std::list<ObjectNamespace>& pending,
                                       const std::list<ObjectNamespace>& deleted) = 0;

    /// Sets the state of one object.
    ///
    /// @throws EC_exception 20: there is no such state; otherwise as bulkUpdateObjectState().
    virtual void changeObjectState(const ObjectNamespace& ns, ManagedObjectState state) = 0;

    /// Makes the service forget an object.
    ///
    /// @throws EC_exception as bulkUpdateObjectState().
    virtual void deleteObject(const ObjectNamespace& ns) = 0;
};

/// What DefaultObjectRegistrationService::sendHttpRequest() sends.
enum HttpRequestType : int {
    HTTP_POST = 2,    ///< succeeds with 201
    HTTP_DELETE = 3,  ///< succeeds with 204
    HTTP_PATCH = 4    ///< succeeds with 204
};

/// Registers objects over HTTPS.
///
/// Example:
///
///     DefaultObjectRegistrationService service;
///     const auto data = boost::make_shared<ObjectRegistrationData>(
///         root_namespaces::ASSETS | "db", "DATABASE", attributes, std::list<ObjectNamespace>(), false);
///     if (const int status = service.registerObject(data, boost::make_shared<CreateDatabase>("db")); status != 0) {
///         report(status, getECmsg(status));
///     }
class ARKWELL_EXPORT DefaultObjectRegistrationService : public ObjectRegistrationService {
public:
    /// @name The service's resources, below its root.
    /// @{
    static const std::string OBJECT_REGISTRATION_URI;       ///< registers an object with its children
    static const std::string BULK_OBJECT_REGISTRATION_URI;  ///< registers any number of objects
    static const std::string BULK_OBJECT_UPDATE_URI;        ///< sets the states of any number of objects
    static const std::string MANAGED_OBJECT_URI;            ///< one object; its encoded text follows
    /// @}

    /// @name The media types of the service's interface in the version that this class speaks.
    /// @{
    static const std::string JSON_MEDIA_TYPE;          ///< of documents
    static const std::string OCTET_STREAM_MEDIA_TYPE;  ///< of bytes
    /// @}

    /// The same name within the class.
    using HttpRequestType = Rbac::HttpRequestType;
    /// An object, and the objects that its registration made: itself and its children, save those that were there.
    using RegisteredNamespaces = std::pair<ObjectNamespace, std::list<ObjectNamespace> >;
    /// The same for each object of a bulk registration.
    using BulkRegisteredNamespaces = std::map<ObjectNamespace, std::list<ObjectNamespace> >;

    /// Talks to the primary server with the host's certificate.
    ///
    /// @throws EC_exception: the primary server's name cannot be found.
    DefaultObjectRegistrationService();
    /// Talks to the primary server, through the clients that `factory` makes.
    ///
    /// @throws EC_exception: the primary server's name cannot be found.
    DefaultObjectRegistrationService(int port, boost::shared_ptr<AWClientCURL_BaseFactory> factory);

    int registerObject(boost::shared_ptr<ObjectRegistrationData> data,
                       boost::shared_ptr<ObjectRegistrationCallback> callback) override;
    int unregisterObject(const ObjectNamespace& ns, boost::shared_ptr<ObjectUnregistrationCallback> callback) override;
    int bulkRegisterObjects(const std::list<boost::shared_ptr<ObjectRegistrationData> >& data,
                            boost::shared_ptr<BulkObjectRegistrationCallback> callback) override;
    void bulkUpdateObjectState(const std::list<ObjectNamespace>& ready, const std::list<ObjectNamespace>& pending,
                               const std::list<ObjectNamespace>& deleted) override;
    void changeObjectState(const ObjectNamespace& ns, ManagedObjectState state) override;
    void deleteObject(const ObjectNamespace& ns) override;

    /// Sends one request.
    ///
    /// @param type of any other value nothing is sent.
    /// @param url below the service's root.
    /// @param payload the body; a DELETE has none.
    /// @param response set to the answer's body on success.
    /// @throws EC_exception with the transport's status or the service's "errorCode"; 9103 where a failure has none.
    void sendHttpRequest(HttpRequestType type, const std::string& url, const std::string& payload,
                         std::string& response);
    /// The same where the answer's body does not matter.
    void sendHttpRequest(HttpRequestType type, const std::string& url, const std::string& payload);

    /// @name The bodies of the requests
    /// Each whole or not made. They throw boost::bad_lexical_cast for a namespace without a text form, std::bad_alloc,
    /// or a pointer to one, where memory runs out, std::bad_alloc also for what is no JSON (an object type that is not
    /// UTF-8), and std::invalid_argument for an empty pointer.
    /// @{

    /// One object with its new state.
    static boost::shared_ptr<json_t> buildNamespaceStatePair(const ObjectNamespace& ns, const std::string& state);
    /// Objects with their new states.
    static boost::shared_ptr<json_t> buildBulkStateUpdateRequest(const std::list<ObjectNamespace>& ready,
                                                                 const std::list<ObjectNamespace>& pending,
                                                                 const std::list<ObjectNamespace>& deleted);
    /// One object to register, as a part of a request.
    static boost::shared_ptr<json_t> buildRegistrationJSON(const boost::shared_ptr<ObjectRegistrationData>& data);
    /// The registration of one object.
    static boost::shared_ptr<json_t> buildRegistrationRequest(const boost::shared_ptr<ObjectRegistrationData>& data);
    /// The registration of any number of objects.
    static boost::shared_ptr<json_t> buildBulkRegistrationRequest(
        const std::list<boost::shared_ptr<ObjectRegistrationData> >& data);
    /// @}

    /// @name What the answers say
    /// They throw EC_exception 9103, which is logged, and boost::bad_lexical_cast for an id that is no namespace.
    /// @{

    /// @param object one registered object, borrowed for the call.
    static RegisteredNamespaces extractRegisteredNamespaces(const json_t* object);
    /// @param body the answer to a registration.
    static RegisteredNamespaces extractRegisteredNamespaces(const std::string& body);
    /// @param body the answer to a bulk registration. An object that is in it more than once has all that was
    /// registered with it.
    static BulkRegisteredNamespaces extractBulkRegisteredNamespaces(const std::string& body);
    /// @param body as above. Its memory is released before the objects are read.
    static BulkRegisteredNamespaces extractBulkRegisteredNamespaces(std::string&& body);
    /// @}

private:
    int port_;
    std::string host_;
    boost::shared_ptr<AWClientCURL_BaseFactory> factory_;
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
