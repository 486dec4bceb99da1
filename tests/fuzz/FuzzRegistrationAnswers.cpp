// Any bytes as the service's answer to the first request of a registration. The first byte of an input says which
// workflow asks, the second whether the request succeeds, the others are the answer's body.

#include "FuzzHost.h"
#include "testing/ScriptedHttp.h"

#include <platform/Text.h>
#include <rbac/ObjectRegistrationService.h>

#include <boost/make_shared.hpp>
#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

using namespace Tesmor::Arkwell::Rbac;
using testing_support::ScriptedHttp;

namespace {

const ObjectNamespace OBJECT("A", "OBJECT");

template <class Interface>
struct Callback : Interface {
    int process() override {
        processed = true;
        return 0;
    }
    void failed(int status) override { failedWith = status; }

    bool processed = false;
    int failedWith = -1;
};

struct BulkCallback : BulkObjectRegistrationCallback {
    int process(std::set<ObjectNamespace>& succeeded) override {
        processed = true;
        succeeded.insert(OBJECT);
        return 0;
    }
    void failed(int status) override { failedWith = status; }

    bool processed = false;
    int failedWith = -1;
};

boost::shared_ptr<ObjectRegistrationData> dataOf(const ObjectNamespace& ns) {
    const boost::shared_ptr<json_t> attributes(json_object(), json_decref);
    return boost::make_shared<ObjectRegistrationData>(ns, "DATABASE", attributes, std::list<ObjectNamespace>(), false);
}

/// That the callback was told either to work, and the result was committed with one request more, or of the failure.
template <class Told>
void requireOneOrTheOther(const Told& callback, const ScriptedHttp& http, int status) {
    require(http.requests().size() == (callback.processed ? 2 : 1));
    require(callback.processed ? status == 0 && callback.failedWith == -1 : callback.failedWith == status);
}

/// That a failure has the reason that the answer gives.
void requireReason(bool success, int status, const std::string& body) {
    if (success) {
        require(status == 0 || status == 9103 || status == 114);
        return;
    }
    int named = 0;
    require(extractErrorFromJSON(body, named) == 0 ? status == named : status == 9103);
}

void registerOne(ScriptedHttp& http, DefaultObjectRegistrationService& service, bool success, const std::string& body) {
    const auto callback = boost::make_shared<Callback<ObjectRegistrationCallback>>();
    const int status = service.registerObject(dataOf(OBJECT), callback);
    requireOneOrTheOther(*callback, http, status);
    requireReason(success, status, body);
}

void registerInBulk(ScriptedHttp& http, DefaultObjectRegistrationService& service, bool success,
                    const std::string& body) {
    const auto callback = boost::make_shared<BulkCallback>();
    const int status = service.bulkRegisterObjects({dataOf(OBJECT)}, callback);
    requireOneOrTheOther(*callback, http, status);
    requireReason(success, status, body);
}

void unregister(ScriptedHttp& http, DefaultObjectRegistrationService& service, bool success, const std::string& body) {
    const auto callback = boost::make_shared<Callback<ObjectUnregistrationCallback>>();
    const int status = service.unregisterObject(OBJECT, callback);
    requireOneOrTheOther(*callback, http, status);
    requireReason(success, status, body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FuzzHost host;
    if (size < 2) {
        return 0;
    }
    const auto http = boost::make_shared<ScriptedHttp>();
    DefaultObjectRegistrationService service(1556, http);
    const bool success = data[1] != '-';
    const std::string body(reinterpret_cast<const char*>(data) + 2, size - 2);
    http->answer(success ? 201 : 409, body);
    http->answer(201);
    switch (data[0]) {
        case 'b':
            registerInBulk(*http, service, success, body);
            break;
        case 'u':
            unregister(*http, service, success, body);
            break;
        default:
            registerOne(*http, service, success, body);
    }
    require(http->liveClients() == 0);
    return 0;
}
