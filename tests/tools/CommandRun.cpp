#include "CommandRun.h"

#include "sandbox/CacheWriter.h"
#include "testing/ChildProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace testing_support {

namespace {

using namespace Tesmor::Arkwell::Sandbox;

void redirect(int descriptor, const std::string& path, int flags) {
    const int file = open(path.c_str(), flags, 0600);
    if (file < 0 || dup2(file, descriptor) < 0) {
        _exit(126);
    }
    close(file);
}

[[noreturn]] void become(std::vector<std::string> words, const std::map<std::string, std::string>& environment) {
    for (const auto& [name, value] : environment) {
        if (value.empty()) {
            unsetenv(name.c_str());
        } else {
            setenv(name.c_str(), value.c_str(), 1);
        }
    }
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    execvp(pointers.front(), pointers.data());
    _exit(127);
}

AccessModel publishedModel() {
    constexpr auto BOTH = GrantScope::OBJECT_AND_CHILDREN;
    constexpr auto READY = ObjectState::READY;
    const ObjectNamespace assets("ASSETS");
    AccessModel model;
    model.add({ObjectNamespace(), true, READY, {{2, 37, BOTH}}});
    model.add({assets, true, READY, {{5, 37, BOTH}, {5, 0, BOTH}, {9, 32, GrantScope::CHILDREN}}});
    model.add({assets | "db 1", false, READY, {{7, 37, BOTH}, {5, 32, GrantScope::OBJECT}}});
    model.add({assets | "db 1" | "t", true, READY});
    model.add({assets | "web" | "eu" | "a/", true, READY, {{5, 0, GrantScope::OBJECT}, {5, 32, GrantScope::CHILDREN}}});
    model.add({ObjectNamespace("STORAGE"), true, READY, {{-3, 31, GrantScope::CHILDREN}}});
    return model;
}

}  // namespace

void PrintTo(const CommandRun& run, std::ostream* out) {
    *out << "status " << run.status << "\nout:\n" << run.out << "\nerr:\n" << run.err;
}

CommandRun runProgram(const std::vector<std::string>& words, const std::map<std::string, std::string>& environment,
                      const std::string& input) {
    const TemporaryDirectory streams;
    writeFile(streams / "in", input);
    ChildProcess child([&]() -> int {
        redirect(STDIN_FILENO, streams / "in", O_RDONLY);
        redirect(STDOUT_FILENO, streams / "out", O_WRONLY | O_CREAT);
        redirect(STDERR_FILENO, streams / "err", O_WRONLY | O_CREAT);
        become(words, environment);
    });
    const int status = child.wait();
    return {status, readFile(streams / "out"), readFile(streams / "err")};
}

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

CacheCommandTest::CacheCommandTest() {
    std::filesystem::create_directories(cache_);
    CacheWriter(cache_).publish(publishedModel());
    writeOperationCache(published("operation-cache.json"), {{ObjectNamespace("OPERATIONS", "VIEW"), 37},
                                                            {ObjectNamespace("OPERATIONS", "ADD"), 0},
                                                            {ObjectNamespace("OPERATIONS", "UPDATE"), 32}});
}

CommandRun CacheCommandTest::run(std::vector<std::string> words,
                                 const std::map<std::string, std::string>& environment) const {
    words.insert(words.begin(), RBAC_CACHE);
    words.insert(words.end(), {"--cache", cache_});
    return runProgram(words, environment);
}

std::string CacheCommandTest::succeed(const std::vector<std::string>& words) const {
    const CommandRun result = run(words);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return result.out;
}

}  // namespace testing_support
