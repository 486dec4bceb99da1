// A program that protects files: it registers each with the access-control service in two phases, so that whatever goes
// wrong, no file is left unprotected and no protection without a file.
//
//     register_files tree FOLDER    everything in the folder, at once; what is registered already is left as it is
//     register_files create FILE    makes the file and registers it
//     register_files remove FILE    removes the file and its registration
//     register_files name FILE      prints the file's namespace
//
// Owners, groups and modes become access definitions. Exits with 1 where something failed, and says what.

#include "sandbox/TreeImport.h"
#include "sandbox/UnixRoles.h"

#include <platform/Status.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectRegistrationService.h>
#include <rbac/RoleAPI.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <fcntl.h>
#include <jansson.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using namespace Tesmor::Arkwell::Sandbox;
namespace fs = std::filesystem;

using Json = boost::shared_ptr<json_t>;

Json owned(json_t* value) {
    return {value, json_decref};
}

/// The service's words for the access to files. Grants to owners and groups for whom it has no role are left out: they
/// would have nobody to hold for.
class AccessWords {
public:
    AccessWords() {
        for (const Role& role : RoleAPI().get_roles("")) {
            roles_.insert(role.id);
        }
    }

    Json attributes(bool inherit, const AccessModel::GrantList& grants) const {
        const Json definitions = owned(json_array());
        for (const Grant& grant : grants) {
            if (roles_.count(grant.roleId) != 0) {
                json_array_append_new(definitions.get(), definition(grant));
            }
        }
        return owned(json_pack("{s:b, s:O}", "inherit", inherit ? 1 : 0, "accessDefinitions", definitions.get()));
    }

private:
    static json_t* definition(const Grant& grant) {
        const auto propagation = static_cast<Propagation::enum_type>(grant.scope);
        return json_pack("{s:i, s:s, s:[s]}", "roleId", grant.roleId, "propagation",
                         boost::lexical_cast<std::string>(propagation).c_str(), "operations",
                         operationOf(grant.operationBit).c_str());
    }

    static std::string operationOf(std::int32_t bit) {
        for (const auto& [operation, number] : fileOperations()) {
            if (number == bit) {
                return operation.str();
            }
        }
        throw std::logic_error("no operation has the bit " + std::to_string(bit));
    }

    std::set<int> roles_;
};

/// What registers the files at and below a path.
std::list<boost::shared_ptr<ObjectRegistrationData>> registrationsOf(const std::string& path, ImportCounts& counts) {
    const AccessModel model = importTree(path, {}, counts);
    const AccessWords words;
    std::list<boost::shared_ptr<ObjectRegistrationData>> registrations;
    for (std::size_t i = 0; i < model.objectCount(); ++i) {
        const AccessModel::Entry entry = model.entry(i);
        registrations.push_back(boost::make_shared<ObjectRegistrationData>(
            boost::lexical_cast<ObjectNamespace>(std::string(entry.text).c_str()), "file",
            words.attributes(entry.inherit, model.grants(entry.grantList)), std::list<ObjectNamespace>(), true));
    }
    return registrations;
}

void reportFailure(int status) {
    std::cerr << "register_files: the service did not take the registration: " << getECmsg(status) << "\n";
}

/// Protects what is still there when the service knows it as PENDING.
class ProtectFiles : public BulkObjectRegistrationCallback {
public:
    ProtectFiles(std::string root, std::set<ObjectNamespace> registered)
        : root_(std::move(root)), registered_(std::move(registered)) {}

    int process(std::set<ObjectNamespace>& succeeded) override {
        protect(root_, succeeded);
        for (const fs::directory_entry& entry :
             fs::recursive_directory_iterator(root_, fs::directory_options::skip_permission_denied)) {
            protect(entry.path(), succeeded);
        }
        return 0;
    }
    void failed(int status) override { reportFailure(status); }

private:
    void protect(const fs::path& path, std::set<ObjectNamespace>& succeeded) const {
        const ObjectNamespace name = namespaceOfPath(path.string());
        if (registered_.count(name) != 0) {
            succeeded.insert(name);
        }
    }

    std::string root_;
    std::set<ObjectNamespace> registered_;
};

class CreateFile : public ObjectRegistrationCallback {
public:
    explicit CreateFile(fs::path path) : path_(std::move(path)) {}

    int process() override {
        const int descriptor = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        return descriptor < 0 ? errno : close(descriptor);
    }
    void failed(int status) override { reportFailure(status); }

private:
    fs::path path_;
};

class RemoveFile : public ObjectUnregistrationCallback {
public:
    explicit RemoveFile(fs::path path) : path_(std::move(path)) {}

    int process() override {
        std::error_code failure;
        fs::remove(path_, failure);
        return failure.value();
    }
    void failed(int status) override { reportFailure(status); }

private:
    fs::path path_;
};

int registerTree(const std::string& path) {
    const auto begin = std::chrono::steady_clock::now();
    ImportCounts counts;
    const auto registrations = registrationsOf(path, counts);
    std::set<ObjectNamespace> names;
    for (const auto& registration : registrations) {
        names.insert(registration->objectNamespace);
    }
    const int status = DefaultObjectRegistrationService().bulkRegisterObjects(
        registrations, boost::make_shared<ProtectFiles>(path, std::move(names)));
    if (status != 0) {
        return status;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::cout << counts.objects << " files registered, " << counts.protectedOnTheirOwn << " of them not protected like"
              << " their folder, in " << std::fixed << std::setprecision(1) << took.count() << " s\n";
    return 0;
}

int createFile(const std::string& path) {
    const auto data = boost::make_shared<ObjectRegistrationData>(
        namespaceOfPath(path), "file", owned(json_pack("{s:b}", "inherit", 1)), std::list<ObjectNamespace>(), false);
    return DefaultObjectRegistrationService().registerObject(data, boost::make_shared<CreateFile>(path));
}

int removeFile(const std::string& path) {
    return DefaultObjectRegistrationService().unregisterObject(namespaceOfPath(path),
                                                               boost::make_shared<RemoveFile>(path));
}

int printName(const std::string& path) {
    std::cout << namespaceOfPath(path) << "\n";
    return 0;
}

int run(const std::vector<std::string>& words) {
    const std::map<std::string, int (*)(const std::string&)> commands{
        {"tree", registerTree}, {"create", createFile}, {"remove", removeFile}, {"name", printName}};
    const auto command = words.size() == 2 ? commands.find(words[0]) : commands.end();
    if (command == commands.end()) {
        throw std::invalid_argument("usage: register_files tree FOLDER | create FILE | remove FILE | name FILE");
    }
    return command->second(fs::absolute(words[1]).string());
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const int status = run({argv + 1, argv + argc});
        if (status != 0) {
            std::cerr << "register_files: status " << status << ": " << getECmsg(status) << "\n";
        }
        return status == 0 ? 0 : 1;
    } catch (const std::exception& failure) {
        std::cerr << "register_files: " << failure.what() << "\n";
        return 1;
    }
}
