#include "rbac/rest/Rbac2Curl.h"

#include <rbac/BaseAPI.h>

#include <boost/make_shared.hpp>

#include <utility>

namespace Tesmor::Arkwell::Rbac {

BaseAPI::BaseAPI() : master_(get_master()), factory_(boost::make_shared<AWClientCURLFactory>(CERT_HOST)) {}

BaseAPI::BaseAPI(boost::shared_ptr<AWClientCURL_BaseFactory> factory)
    : master_(get_master()), factory_(std::move(factory)) {}

AWClientCURL_Base* BaseAPI::new_curl() {
    return factory_->create(master_, SERVICE_PORT, SESSION_SERVICE);
}

}  // namespace Tesmor::Arkwell::Rbac
