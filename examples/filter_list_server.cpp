// A server that shows everybody what they may see: GET /items, with "Authorization: Bearer TOKEN", answers with those
// of the server's items that the user of the session may view.
//
//     filter_list_server PORT ITEMS_FILE
//
// The file has a namespace on each line, such as "|ASSETS|db|". Listens on 127.0.0.1, behind whatever ends TLS in front
// of it, and prints "listening on PORT" when it is ready; port 0 takes a free one.
//
//     200  {"items": [...]}
//     401  the token is missing, expired, forged or of no session any more: log in again
//     403  the user is known and has no role at all
//     503  nothing can be decided now: no access cache, no database. Nobody sees anything meanwhile

#include <jwt/JWTHandler.h>
#include <platform/Dal.h>
#include <platform/Logger.h>
#include <rbac/AccessControlClient.h>
#include <rbac/BulkAccess.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <boost/shared_ptr.hpp>
#include <httplib.h>
#include <jansson.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;

constexpr char ADDRESS[] = "127.0.0.1";
constexpr int OUT_OF_MEMORY = 36;

std::vector<ObjectNamespace> readItems(const std::string& path) {
    std::vector<ObjectNamespace> items;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        items.push_back(boost::lexical_cast<ObjectNamespace>(line));
        items.back().str();  // threads share them, so their texts are computed before
    }
    return file.eof() ? items : throw std::runtime_error("cannot read " + path);
}

std::string tokenOf(const httplib::Request& request) {
    const std::string header = request.get_header_value("Authorization");
    return header.compare(0, 7, "Bearer ") == 0 ? header.substr(7) : "";
}

/// The roles could not be found because of the token, and not because something is broken.
bool isFaultOfToken(int status) {
    static const std::set<int> statuses{10, 20, 117, 7610, 8001, 8002};
    return statuses.count(status) != 0;
}

std::string toJson(const std::vector<ObjectNamespace>& items, const std::vector<bool>& visible) {
    const std::unique_ptr<json_t, decltype(&json_decref)> document(json_pack("{s:[]}", "items"), json_decref);
    json_t* const list = json_object_get(document.get(), "items");  // borrowed
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (visible[i]) {
            json_array_append_new(list, json_string(items[i].str().c_str()));
        }
    }
    const std::unique_ptr<char, decltype(&std::free)> text(json_dumps(document.get(), JSON_COMPACT), std::free);
    return text ? std::string(text.get()) : throw std::bad_alloc();
}

class ItemServer {
public:
    ItemServer(AccessControlClient& client, std::vector<ObjectNamespace> items)
        : client_(client), items_(std::move(items)) {}

    void answer(const httplib::Request& request, httplib::Response& response) {
        std::set<int> roles;
        // Each thread takes a connection of the pool for as long as it looks the session up.
        const int status = JWTHandler().getRoleIds(&database_, tokenOf(request), roles);
        if (isFaultOfToken(status)) {
            response.status = 401;
            response.set_header("WWW-Authenticate", "Bearer");
        } else if (status != 0) {
            response.status = 503;
        } else if (roles.empty()) {
            response.status = 403;
        } else {
            list(roles, response);
        }
    }

private:
    void list(const std::set<int>& roles, httplib::Response& response) {
        try {
            boost::shared_ptr<const AccessChecker> checker;
            const int status = client_.createAccessChecker(roles, root_namespaces::operations::VIEW, 0, checker);
            if (status != 0 || !checker) {
                throw EC_exception(status != 0 ? status : OUT_OF_MEMORY);
            }
            response.set_content(toJson(items_, checkAccessToAll(*checker, items_)), "application/json");
        } catch (const std::exception& failure) {
            logmsg(16, "ItemServer::list", failure.what());
            response.status = 503;
        }
    }

    AccessControlClient& client_;
    Tesmor::Dal::DbConnectionManager database_{1, 4, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false};
    const std::vector<ObjectNamespace> items_;
};

void serve(int port, const std::string& itemsFile) {
    boost::shared_ptr<AccessControlClient> client;
    if (const int status = AccessControlClient::create(ObjectNamespace(), client); status != 0) {
        throw EC_exception(status);
    }
    ItemServer items(*client, readItems(itemsFile));
    httplib::Server server;
    server.Get("/items",
               [&](const httplib::Request& request, httplib::Response& response) { items.answer(request, response); });
    const int bound = port == 0 ? server.bind_to_any_port(ADDRESS) : server.bind_to_port(ADDRESS, port) ? port : -1;
    if (bound < 0) {
        throw std::runtime_error("cannot listen on port " + std::to_string(port));
    }
    std::cout << "listening on " << bound << std::endl;
    server.listen_after_bind();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 3) {
            throw std::invalid_argument("usage: filter_list_server PORT ITEMS_FILE");
        }
        serve(std::stoi(argv[1]), argv[2]);
    } catch (const std::exception& failure) {
        std::cerr << "filter_list_server: " << failure.what() << "\n";
        return 1;
    }
}
