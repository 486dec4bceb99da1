#pragma once

#include <string>

namespace testing_support {

/// Whether the text holds what looks like a token, a private key or a database's password. The pattern is the one with
/// which ctest looks through the output of every test program.
bool holdsSecret(const std::string& text);

/// Ends the program where a line of the log holds a secret; of the line it shows where it comes from and no more.
/// LogCapture calls it for every line.
void refuseSecrets(const std::string& origin, const std::string& logged);

}  // namespace testing_support
