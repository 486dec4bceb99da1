// A program outside the tree: it knows the installed package only.

#include <platform/Logger.h>
#include <rbac/AccessCache.h>
#include <rbac/AccessControlClient.h>
#include <rbac/OperationCache.h>

#include <boost/lexical_cast.hpp>

#include <iostream>

namespace {

class Nobody : public Tesmor::Arkwell::Rbac::AccessChecker {
public:
    bool checkAccess(const Tesmor::Arkwell::Rbac::ObjectNamespace&) const override { return false; }
};

}  // namespace

int main() {
    using namespace Tesmor::Arkwell::Rbac;

    const auto object = boost::lexical_cast<ObjectNamespace>("|STORAGE|disk+1|");
    std::cout << object << " below " << root_namespaces::STORAGE << ": "
              << root_namespaces::STORAGE.is_ancestor_of(object) << "\n";
    std::cout << "nobody: " << Nobody().checkAccess(object) << "\n";

    std::string lastMessage;
    setLogSink([&lastMessage](int, const std::string&, const std::string& message) { lastMessage = message; });
    try {
        const Manifest manifest("none", "/nowhere");
    } catch (const EC_exception& failure) {
        std::cout << "status " << failure.status << "\n";
    }
    setLogSink({});
    std::cout << (lastMessage.empty() ? "silent" : "logged") << "\n";
}
