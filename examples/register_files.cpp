// A program that protects files: it registers each with the access-control service in two phases, so that whatever goes
// wrong, no file is left unprotected and no protection without a file.
//
//     register_files tree FOLDER    everything in the folder, at once; what is registered already is left as it is
//     register_files create FILE    makes the file and registers it
//     register_files remove FILE    removes the file and its registration
//     register_files name FILE      prints the file's namespace
//
// A file that has the owner, group and mode of its folder inherits its access; any other gets access definitions. Exits
// with 1 where something failed, and says what.

#include "FileAccess.h"

#include <platform/Status.h>
#include <rbac/ObjectRegistrationService.h>

#include <boost/make_shared.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
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
namespace fs = std::filesystem;

void reportFailure(int status) {
    std::cerr << "register_files: the service did not take the registration: " << getECmsg(status) << "\n";
}

/// Protects the files that are still there when the service knows them as PENDING.
class ProtectFiles : public BulkObjectRegistrationCallback {
public:
    explicit ProtectFiles(std::vector<fs::path> paths) : paths_(std::move(paths)) {}

    int process(std::set<ObjectNamespace>& succeeded) override {
        for (const fs::path& path : paths_) {
            if (std::error_code failure; fs::exists(fs::symlink_status(path, failure))) {
                succeeded.insert(nameOf(path));
            }
        }
        return 0;
    }
    void failed(int status) override { reportFailure(status); }

private:
    std::vector<fs::path> paths_;
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

    int process() override { return std::remove(path_.c_str()) == 0 ? 0 : errno; }
    void failed(int status) override { reportFailure(status); }

private:
    fs::path path_;
};

int registerTree(const fs::path& folder) {
    std::vector<fs::path> paths{folder};
    std::copy(fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied), {},
              std::back_inserter(paths));
    const FileAccess access;
    std::size_t onTheirOwn = 0;
    std::list<boost::shared_ptr<ObjectRegistrationData>> registrations;
    for (const fs::path& path : paths) {
        const bool inherits = path != folder && FileAccess::isLikeItsFolder(path);
        onTheirOwn += inherits ? 0 : 1;
        registrations.push_back(boost::make_shared<ObjectRegistrationData>(
            nameOf(path), "file", inherits ? FileAccess::inherited() : access.of(path), std::list<ObjectNamespace>(),
            true));
    }
    const int status =
        DefaultObjectRegistrationService().bulkRegisterObjects(registrations, boost::make_shared<ProtectFiles>(paths));
    if (status != 0) {
        return status;
    }
    std::cout << paths.size() << " files registered, " << onTheirOwn << " of them not protected like their folder\n";
    return 0;
}

int createFile(const fs::path& path) {
    const auto data = boost::make_shared<ObjectRegistrationData>(nameOf(path), "file", FileAccess::inherited(),
                                                                 std::list<ObjectNamespace>(), false);
    return DefaultObjectRegistrationService().registerObject(data, boost::make_shared<CreateFile>(path));
}

int removeFile(const fs::path& path) {
    return DefaultObjectRegistrationService().unregisterObject(nameOf(path), boost::make_shared<RemoveFile>(path));
}

int printName(const fs::path& path) {
    std::cout << nameOf(path) << "\n";
    return 0;
}

int run(const std::vector<std::string>& words) {
    const std::map<std::string, int (*)(const fs::path&)> commands{
        {"tree", registerTree}, {"create", createFile}, {"remove", removeFile}, {"name", printName}};
    const auto command = words.size() == 2 ? commands.find(words[0]) : commands.end();
    if (command == commands.end()) {
        throw std::invalid_argument("usage: register_files tree FOLDER | create FILE | remove FILE | name FILE");
    }
    return command->second(fs::absolute(words[1]));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const int status = run({argv + 1, argv + argc});
        return status == 0 ? 0 : throw EC_exception(status);
    } catch (const std::exception& failure) {
        std::cerr << "register_files: " << failure.what() << "\n";
        return 1;
    }
}
