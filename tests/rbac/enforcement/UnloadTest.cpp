#include "testing/ChildProcess.h"
#include "testing/ProcessFigures.h"
#include "testing/TemporaryDirectory.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <stdexcept>

// This program is not linked with the library: it loads it, by way of a plugin, as often as it wants.

namespace {

using testing_support::ChildProcess;
using testing_support::openDescriptorCount;
using testing_support::residentMemory;
using testing_support::threadCount;

bool isLoaded(const char* library) {
    void* const found = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
    if (found != nullptr) {
        dlclose(found);
    }
    return found != nullptr;
}

bool isAnythingLoaded() {
    const std::array<const char*, 3> libraries{PLUGIN, RBAC_LIBRARY, PLATFORM_LIBRARY};
    return std::any_of(libraries.begin(), libraries.end(), isLoaded);
}

class LoadedPlugin {
public:
    LoadedPlugin() : handle_(dlopen(PLUGIN, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    ~LoadedPlugin() { dlclose(handle_); }
    LoadedPlugin(const LoadedPlugin&) = delete;
    LoadedPlugin& operator=(const LoadedPlugin&) = delete;

    int countWrongAnswers() const { return reinterpret_cast<int (*)()>(dlsym(handle_, "countWrongAnswers"))(); }

private:
    void* handle_;
};

bool loadsChecksAndUnloads() {
    const int wrong = LoadedPlugin().countWrongAnswers();
    return wrong == 0 && !isAnythingLoaded();
}

/// That a fork finds nothing that unloaded libraries wanted to be told of it.
bool forks() {
    ChildProcess child([] { return 0; });
    return child.wait() == 0;
}

}  // namespace

TEST(Unload, LeavesNothingBehindHoweverOftenItHappens) {
    ChildProcess program([] {
        constexpr int WARM_UP = 5;
        constexpr int TIMES = 25;
        for (int i = 0; i < WARM_UP; ++i) {
            if (!loadsChecksAndUnloads() || !forks()) {
                return 1;
            }
        }
        const int descriptors = openDescriptorCount();
        const int threads = threadCount();
        const long memory = residentMemory();
        for (int i = 0; i < TIMES; ++i) {
            if (!loadsChecksAndUnloads() || !forks()) {
                return 2;
            }
        }
        if (openDescriptorCount() != descriptors) {
            return 3;
        }
        if (threadCount() != threads) {
            return 4;
        }
        constexpr long CHANCE_KIB = 4096;
        return residentMemory() - memory < CHANCE_KIB ? 0 : 5;
    });
    EXPECT_EQ(program.wait(), 0);
}

TEST(Unload, AWorkerThatWasForkedWhileItWasLoadedMayUnloadIt) {
    ChildProcess program([] {
        auto* const plugin = new LoadedPlugin;
        if (plugin->countWrongAnswers() != 0) {
            return 1;
        }
        ChildProcess worker([plugin] {
            const int wrong = plugin->countWrongAnswers();
            delete plugin;
            return wrong == 0 && !isAnythingLoaded() && forks() && loadsChecksAndUnloads() ? 0 : 2;
        });
        const int end = worker.wait();
        delete plugin;
        return end;
    });
    EXPECT_EQ(program.wait(), 0);
}
