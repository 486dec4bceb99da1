#pragma once

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// Who may read a file besides its owner, who alone may write it.
enum class Readers { OWNER, EVERYBODY };

/// Makes a folder that only its owner may enter, and those above it where they are missing.
///
/// @throws std::system_error; std::runtime_error where it is there and others may enter it.
void makePrivateFolder(const std::string& path);

/// That nobody but its owner may do anything with a file or folder.
///
/// @throws std::system_error naming the path; std::runtime_error where others may.
void requirePrivate(const std::string& path);

/// Replaces a file, durably: whoever opens it finds the old contents or the new ones. Folders above it are made where
/// they are missing.
///
/// @throws std::system_error naming the path.
void replaceFile(const std::string& path, const std::string& contents, Readers readers);

/// Reads a file that holds a secret.
///
/// @throws std::system_error naming the path; std::runtime_error where others than the owner may read or write it.
std::string readPrivateFile(const std::string& path);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
