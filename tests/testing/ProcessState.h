#pragma once

#include <string>

namespace testing_support {

// What the kernel knows about this process, most of it about the process and one file.

/// How often the file is mapped.
int mappingCount(const std::string& path);
/// The permissions of the file's first mapping, as "r--s"; empty where it is
/// not mapped.
std::string mappingPermissions(const std::string& path);
/// How many descriptors of the file are open.
int descriptorCount(const std::string& path);
/// How many descriptors of the file hold a lock on it as a whole.
int lockCount(const std::string& path);

/// The most memory that this process has had resident since it began, or since the last forgetPeakMemory(), in bytes.
long peakMemory();
void forgetPeakMemory();

/// Whether nobody, in any process, holds the file lock named by the path.
bool fileLockIsFree(const std::string& path);

}  // namespace testing_support
