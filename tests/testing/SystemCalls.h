#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace testing_support {

// Watches the mapping of files and lets system calls fail on purpose. A program
// that uses this lists testing/SystemCalls.cpp among its sources, which puts
// its own mmap() and fstat() in front of the C library's.

/// A successful mapping of a file.
struct FileMapping {
    std::string path;
    std::size_t length;

    friend bool operator==(const FileMapping& a, const FileMapping& b) {
        return a.path == b.path && a.length == b.length;
    }
};
void PrintTo(const FileMapping& mapping, std::ostream* out);

/// Every file mapping that the program made while this lives, in order. One at
/// a time.
class MappingRecord {
public:
    MappingRecord();
    ~MappingRecord();
    MappingRecord(const MappingRecord&) = delete;
    MappingRecord& operator=(const MappingRecord&) = delete;

    std::vector<FileMapping> made() const;
};

enum class SystemCall { MMAP, FSTAT, PREAD, FLOCK };

/// While it lives, a system call on the file fails with `error`. One at a time.
class FailingCall {
public:
    FailingCall(SystemCall call, const std::string& path, int error);
    ~FailingCall();
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;
};

/// How often a system call on the file is made while this lives. One at a time.
class CallCount {
public:
    CallCount(SystemCall call, const std::string& path);
    ~CallCount();
    CallCount(const CallCount&) = delete;
    CallCount& operator=(const CallCount&) = delete;

    int calls() const;
};

}  // namespace testing_support
