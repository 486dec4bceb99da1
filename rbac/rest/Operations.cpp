#include "platform/Handles.h"
#include "rbac/namespace/NamespaceText.h"
#include "rbac/rest/Rbac2Curl.h"
#include "rbac/rest/Resources.h"

#include <platform/Logger.h>
#include <rbac/EC_exception.h>
#include <rbac/OperationAPI.h>

#include <boost/scoped_ptr.hpp>

#include <utility>

namespace Tesmor::Arkwell::Rbac {

namespace {

constexpr char OPERATIONS_URL[] = "arkwell/access-control/operations";
constexpr char TAG[] = "OperationAPI::get_options";  // log readers know the operation by this name

ObjectNamespace readOperation(const json_t* resource) {
    const char* type = nullptr;
    const char* id = nullptr;
    json_error_t error;
    if (json_unpack_ex(unpackable(resource), &error, 0, "{s:s, s:s}", "type", &type, "id", &id) != 0) {
        logmsgf(16, TAG, "Error parsing JSON at position %d: %s", error.position, error.text);
        throw EC_exception(DOCUMENT_INCOMPLETE);
    }
    require_type(type, OPERATION_TYPE, TAG);
    return NamespaceText::parse(id);
}

}  // namespace

OperationAPI::OperationAPI() = default;

OperationAPI::OperationAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory) : BaseAPI(std::move(factory)) {}

std::list<ObjectNamespace> OperationAPI::get_operations(const std::string& filter) {
    const std::string url = filtered(OPERATIONS_URL, filter);
    const boost::scoped_ptr<AWClientCURL_Base> client(new_curl());
    const std::string body = finish_request(*client, client->Get(url), url, 200, TAG);
    logmsgf(2, TAG, "Received JSON: %s", body.c_str());
    // A body that does not parse is reported as one without "data".
    const platform_detail::JsonPointer document(json_loads(body.c_str(), 0, nullptr));
    const json_t* const data = data_of(document.get(), TAG);
    std::list<ObjectNamespace> operations;
    for (std::size_t i = 0; i < json_array_size(data); ++i) {
        operations.push_back(readOperation(json_array_get(data, i)));
    }
    return operations;
}

}  // namespace Tesmor::Arkwell::Rbac
