// Publishes the access that a file describes, as `rbac-cache ls --json` prints it, with the operations of every
// installation.
//
//     publish-model MODEL TEMP_FOLDER
#include "sandbox/CacheWriter.h"
#include "tools/ModelFile.h"

#include <filesystem>
#include <iostream>

using namespace Tesmor::Arkwell;
namespace operations = Rbac::root_namespaces::operations;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: publish-model MODEL TEMP_FOLDER\n";
        return 2;
    }
    try {
        const std::string folder = argv[2];
        std::filesystem::create_directories(folder);
        const std::string operationsFile = folder + "/operation-cache.json";
        if (!std::filesystem::exists(operationsFile)) {
            Sandbox::writeOperationCache(operationsFile, {{operations::VIEW, 0},
                                                          {operations::ADD, 1},
                                                          {operations::UPDATE, 2},
                                                          {operations::DELETE_NS, 3},
                                                          {operations::MANAGE_ACCESS, 4}});
        }
        Rbac::OperationCache known(operationsFile);
        Sandbox::CacheWriter(folder + "/access-caches/all").publish(Tools::readModelFile(argv[1], known));
    } catch (const std::exception& failure) {
        std::cerr << "publish-model: " << failure.what() << "\n";
        return 1;
    }
    return 0;
}
