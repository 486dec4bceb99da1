// For an administrator: why somebody may do something, or why not and what would change that.
//
//     explain_access OPERATION OBJECT <token
//
// Reads the user's session token from the standard input. OPERATION and OBJECT are namespaces such as
// "|OPERATIONS|VIEW|". Exits with 0 where it is allowed, 1 where it is denied, 2 where that cannot be told.
//
// An explanation names roles that the user does not hold, so it is not for the user.

#include <jwt/JWTHandler.h>
#include <platform/Dal.h>
#include <rbac/AccessControlClient.h>
#include <rbac/AccessExplanation.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <boost/shared_ptr.hpp>

#include <exception>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;

void require(int status) {
    if (status != 0) {
        throw EC_exception(status);
    }
}

ObjectNamespace parseNamespace(const std::string& text) {
    try {
        return boost::lexical_cast<ObjectNamespace>(text);
    } catch (const boost::bad_lexical_cast&) {
        throw std::invalid_argument("not a namespace, which has a | before and after each component: " + text);
    }
}

/// The token is a secret: an argument would be seen by every user of the machine.
std::set<int> rolesOfToken(std::istream& in) {
    std::string token;
    in >> token;
    Tesmor::Dal::DbConnectionManager database(0, 1, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
    std::set<int> roles;
    require(JWTHandler().getRoleIds(&database, token, roles));
    return roles;
}

bool explain(const ObjectNamespace& operation, const ObjectNamespace& object) {
    const std::set<int> roles = rolesOfToken(std::cin);
    boost::shared_ptr<AccessControlClient> client;
    require(AccessControlClient::create(object, client));
    AccessExplanation why;
    require(explainAccess(*client, roles, operation, object, why));
    std::cout << why;
    if (!why.allowed) {
        writeChanges(std::cout, why, whatWouldAllow(*client, why));
    }
    return why.allowed;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        if (words.size() != 2) {
            throw std::invalid_argument("usage: explain_access OPERATION OBJECT <token");
        }
        return explain(parseNamespace(words[0]), parseNamespace(words[1])) ? 0 : 1;
    } catch (const std::exception& failure) {
        std::cerr << "explain_access: " << failure.what() << "\n";
        return 2;
    }
}
