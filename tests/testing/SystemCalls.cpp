#include "testing/SystemCalls.h"

#include <dlfcn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <ostream>

namespace testing_support {

namespace {

struct Watch {
    std::mutex mutex;
    bool recording = false;
    std::vector<FileMapping> mappings;
    bool failing = false;
    SystemCall call = SystemCall::MMAP;
    std::string path;
    int error = 0;
    bool counting = false;
    SystemCall counted = SystemCall::MMAP;
    std::string countedPath;
    int calls = 0;
};

Watch& watch() {
    static Watch instance;
    return instance;
}

std::string pathOf(int descriptor) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    char target[4096];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

/// The error with which this call is to fail, or 0.
int errorFor(SystemCall call, int descriptor) {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.mutex);
    w.calls += w.counting && w.counted == call && w.countedPath == pathOf(descriptor) ? 1 : 0;
    return w.failing && w.call == call && w.path == pathOf(descriptor) ? w.error : 0;
}

void record(int descriptor, std::size_t length) {
    Watch& w = watch();
    const std::lock_guard<std::mutex> lock(w.mutex);
    if (w.recording) {
        w.mappings.push_back({pathOf(descriptor), length});
    }
}

template <class Function>
Function next(const char* name) {
    void* const found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function>(found);
}

}  // namespace

void PrintTo(const FileMapping& mapping, std::ostream* out) {
    *out << mapping.path << " (" << mapping.length << ")";
}

MappingRecord::MappingRecord() {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    watch().mappings.clear();
    watch().recording = true;
}

MappingRecord::~MappingRecord() {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    watch().recording = false;
}

std::vector<FileMapping> MappingRecord::made() const {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    return watch().mappings;
}

FailingCall::FailingCall(SystemCall call, const std::string& path, int error) {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    watch().failing = true;
    watch().call = call;
    watch().path = path;
    watch().error = error;
}

FailingCall::~FailingCall() {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    watch().failing = false;
}

CallCount::CallCount(SystemCall call, const std::string& path) {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    watch().counting = true;
    watch().counted = call;
    watch().countedPath = path;
    watch().calls = 0;
}

CallCount::~CallCount() {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    watch().counting = false;
}

int CallCount::calls() const {
    const std::lock_guard<std::mutex> lock(watch().mutex);
    return watch().calls;
}

}  // namespace testing_support

using testing_support::errorFor;
using testing_support::next;
using testing_support::SystemCall;

extern "C" {

__attribute__((visibility("default"))) void* mmap(void* address, std::size_t length, int protection, int flags,
                                                  int descriptor, off_t offset) noexcept {
    static const auto real = next<void* (*)(void*, std::size_t, int, int, int, off_t)>("mmap");
    if (descriptor < 0) {
        return real(address, length, protection, flags, descriptor, offset);
    }
    if (const int error = errorFor(SystemCall::MMAP, descriptor)) {
        errno = error;
        return MAP_FAILED;
    }
    void* const mapped = real(address, length, protection, flags, descriptor, offset);
    if (mapped != MAP_FAILED) {
        testing_support::record(descriptor, length);
    }
    return mapped;
}

__attribute__((visibility("default"))) int fstat(int descriptor, struct stat* status) noexcept {
    static const auto real = next<int (*)(int, struct stat*)>("fstat");
    if (const int error = errorFor(SystemCall::FSTAT, descriptor)) {
        errno = error;
        return -1;
    }
    return real(descriptor, status);
}

__attribute__((visibility("default"))) ssize_t pread(int descriptor, void* to, std::size_t size, off_t offset) {
    static const auto real = next<ssize_t (*)(int, void*, std::size_t, off_t)>("pread");
    if (const int error = errorFor(SystemCall::PREAD, descriptor)) {
        errno = error;
        return -1;
    }
    return real(descriptor, to, size, offset);
}

__attribute__((visibility("default"))) int flock(int descriptor, int operation) noexcept {
    static const auto real = next<int (*)(int, int)>("flock");
    if (const int error = errorFor(SystemCall::FLOCK, descriptor)) {
        errno = error;
        return -1;
    }
    return real(descriptor, operation);
}
}
