#include "rbac/rest/Resources.h"

#include "rbac/rest/Rbac2Curl.h"
#include "rbac/rest/Rbac2Json.h"

#include <platform/Logger.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast/bad_lexical_cast.hpp>

#include <charconv>
#include <cstring>
#include <system_error>
#include <typeinfo>

namespace Tesmor::Arkwell::Rbac {

std::string filtered(const std::string& url, const std::string& filter) {
    return filter.empty() ? url : url + "?filter=" + encode_uri_part(filter);
}

boost::shared_ptr<json_t> parse_response(const std::string& body, const char* who) {
    logmsgf(2, who, "Received JSON: %s", body.c_str());
    return json_loads_shared(body);
}

const json_t* data_of(const json_t* document, const char* who) {
    const json_t* const data = json_object_get(document, "data");
    if (data == nullptr) {
        logmsg(16, who, "Error getting 'data' field from JSON response");
        throw EC_exception(DOCUMENT_INCOMPLETE);
    }
    return data;
}

void throw_incomplete(const json_error_t& error, const char* who) {
    logmsgf(16, who, "Error parsing JSON response at position %d: %s", error.position, error.text);
    throw EC_exception(DOCUMENT_INCOMPLETE);
}

void require_type(const std::string& type, const char* expected, const char* who) {
    if (type != expected) {
        logmsgf(16, who, "Unexpected response type: %s", type.c_str());
        throw EC_exception(DOCUMENT_UNEXPECTED);
    }
}

int parse_role_id(const char* text) {
    const char* const begin = text + (text[0] == '+' && text[1] != '-' ? 1 : 0);
    const char* const end = text + std::strlen(text);
    int id = 0;
    const auto [stop, error] = std::from_chars(begin, end, id);
    if (error != std::errc() || stop != end) {
        throw boost::bad_lexical_cast(typeid(const char*), typeid(int));
    }
    return id;
}

}  // namespace Tesmor::Arkwell::Rbac
