#include <platform/Logger.h>
#include <rbac/AccessCache.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <stdexcept>
#include <system_error>

namespace Tesmor::Arkwell::Rbac::detail {

namespace {

void report(const char* what, const std::string& path, int error) {
    std::cerr << what << path << ": " << std::generic_category().message(error) << std::endl;
}

int openReadOnly(const std::string& path) {
    int descriptor = -1;
    do {
        descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

}  // namespace

Mapping::Mapping(Mapping&& other) noexcept
    : base_(std::exchange(other.base_, nullptr)), size_(std::exchange(other.size_, 0)) {}

Mapping& Mapping::operator=(Mapping&& other) noexcept {
    std::swap(base_, other.base_);
    std::swap(size_, other.size_);
    return *this;
}

Mapping::~Mapping() {
    if (base_ != nullptr) {
        munmap(base_, size_);
    }
}

MemoryMap::MemoryMap(const std::string& path) : path_(path), descriptor_(openReadOnly(path)) {
    const int error = errno;
    logmsgf(4, "MemoryMap", "instantiating memory map for %s", path_.c_str());
    if (descriptor_ < 0) {
        report("error opening ", path_, error);
        throw std::runtime_error("error opening file");
    }
    try {
        map();
    } catch (...) {
        close(descriptor_);
        throw;
    }
}

MemoryMap::~MemoryMap() {
    unmap();
    close(descriptor_);
}

std::uint64_t MemoryMap::current_size() const {
    struct stat status;  // NOLINT(cppcoreguidelines-pro-type-member-init): asked on every check, and fstat() fills it
    if (fstat(descriptor_, &status) != 0) {
        report("error statting ", path_, errno);
        throw std::runtime_error("error statting file");
    }
    return static_cast<std::uint64_t>(status.st_size);
}

void MemoryMap::map() {
    const std::uint64_t size = current_size();
    if (size == 0) {
        publish({});
        return;
    }
    void* const base = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor_, 0);
    if (base == MAP_FAILED) {
        report("error mapping ", path_, errno);
        throw std::runtime_error("error mapping file");
    }
    publish(Mapping(base, size));
}

void MemoryMap::unmap() {
    base_.store(nullptr);
    mapping_ = Mapping();
}

void MemoryMap::refresh() {
    if (resized()) {
        Mapping old;
        replace(old);
    }
}

void MemoryMap::replace(Mapping& old) {
    old = std::move(mapping_);
    // Until the file is mapped again this is an empty map, so that a failure leaves one that the next attempt replaces.
    publish({});
    map();
}

/// The base goes first: who sees the new size sees the new base.
void MemoryMap::publish(Mapping mapping) {
    mapping_ = std::move(mapping);
    base_.store(mapping_.base());
    size_.store(mapping_.size());
}

}  // namespace Tesmor::Arkwell::Rbac::detail
