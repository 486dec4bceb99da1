#include "testing/SecretScan.h"

#include <regex.h>

#include <cstdio>
#include <cstdlib>

namespace testing_support {

namespace {

/// The C library's expressions and not the standard library's: those recurse as deep as a line is long.
const regex_t& secrets() {
    static const regex_t compiled = [] {
        regex_t expression{};
        if (regcomp(&expression, ARKWELL_SECRETS, REG_EXTENDED | REG_NOSUB) != 0) {
            std::abort();
        }
        return expression;
    }();
    return compiled;
}

}  // namespace

bool holdsSecret(const std::string& text) {
    regmatch_t whole{0, static_cast<regoff_t>(text.size())};
    return regexec(&secrets(), text.data(), 1, &whole, REG_STARTEND) == 0;
}

void refuseSecrets(const std::string& origin, const std::string& logged) {
    if (holdsSecret(logged)) {
        std::fprintf(stderr, "A secret is in the log, in a line of %s\n", origin.c_str());
        std::abort();
    }
}

}  // namespace testing_support
