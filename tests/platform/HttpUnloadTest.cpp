#include "HttpFixture.h"
#include "testing/ChildProcess.h"
#include "testing/ProcessFigures.h"
#include "testing/TemporaryDirectory.h"

#include <platform/HttpClient.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

// This program is not linked with the platform library.

namespace {

using Server = HttpFixture::Server;
using Connection = HttpFixture::Connection;
using testing_support::ChildProcess;
using testing_support::residentMemory;
using testing_support::threadCount;

/// The platform library, loaded while this lives.
class LoadedLibrary {
public:
    LoadedLibrary() : handle_(dlopen(PLATFORM_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    ~LoadedLibrary() { dlclose(handle_); }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    static bool isLoaded() {
        void* found = dlopen(PLATFORM_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
        if (found != nullptr) {
            dlclose(found);
        }
        return found != nullptr;
    }

    /// The status of a GET by a client that the library's factory makes.
    int get(int port) const {
        alignas(AWClientCURLFactory) unsigned char storage[sizeof(AWClientCURLFactory)];
        using Construct = void (*)(void*, cert_type);
        const auto construct = reinterpret_cast<Construct>(dlsym(handle_, "_ZN19AWClientCURLFactoryC1E9cert_type"));
        construct(storage, CERT_HOST);
        auto& factory = *reinterpret_cast<AWClientCURL_BaseFactory*>(storage);
        AWClientCURL_Base* client = factory.create("localhost", port, SESSION_SERVICE);
        const int status = client->Get("a");
        delete client;
        factory.~AWClientCURL_BaseFactory();
        return status;
    }

private:
    void* handle_;
};

/// In a process of its own, whose descriptors and threads are only its own.
template <class Work>
int inProcess(Work work) {
    ChildProcess child(work);
    return child.wait();
}

void answerAll(Connection& c) {
    c.answerAll(200, "");
}

TEST(HttpUnload, ALibraryLoadedAHundredTimesLeavesNothingBehind) {
    const HttpFixture fixture;
    const Server server(fixture.options(), answerAll);
    const auto loadAndUse = [&server] { return LoadedLibrary().get(server.port()); };
    EXPECT_EQ(0, inProcess([&] {
                  for (int i = 0; i < 10; ++i) {
                      if (loadAndUse() != 0 || LoadedLibrary::isLoaded()) {
                          return 1;
                      }
                  }
                  const int descriptors = testing_support::openDescriptorCount();
                  const int threads = threadCount();
                  const long memory = residentMemory();
                  for (int i = 0; i < 100; ++i) {
                      if (loadAndUse() != 0) {
                          return 2;
                      }
                  }
                  if (testing_support::openDescriptorCount() != descriptors) {
                      return 3;
                  }
                  if (threadCount() != threads) {
                      return 4;
                  }
                  return residentMemory() - memory < 1024 ? 0 : 5;
              }));
    EXPECT_TRUE(server.waitForOpen(0));
}

TEST(HttpUnload, AProgramThatEndsWithConnectionsKeptEndsWell) {
    const HttpFixture fixture;
    const Server server(fixture.options(), answerAll);
    EXPECT_EQ(7, inProcess([&]() -> int {
                  const LoadedLibrary* library = new LoadedLibrary;
                  std::exit(library->get(server.port()) == 0 ? 7 : 1);
              }));
    EXPECT_TRUE(server.waitForOpen(0));
}

}  // namespace
