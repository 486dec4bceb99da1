#pragma once

#include "jwt/ForgedSignatures.h"

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace testing_support {

/// What the entry points are to make of a token.
struct TokenVerdict {
    bool verifies = false;  ///< JWTSSLApi
    int parser = 0;         ///< ValidatingJwtParser
    int roles = 0;          ///< JWTHandler
    int checker = 0;        ///< createAccessChecker()

    friend bool operator==(const TokenVerdict& a, const TokenVerdict& b) {
        return a.verifies == b.verifies && a.parser == b.parser && a.roles == b.roles && a.checker == b.checker;
    }
};
void PrintTo(const TokenVerdict& verdict, std::ostream* out);

/// A line of the tables in tests/data/tokens, whose README.md describes them.
struct TokenCase {
    std::string name;
    /// Whose key lies on the host, which is the one that signs as well: "host", "exponent 3" or "EC".
    std::string key;
    std::string token;  ///< what it is made of, in angle brackets
    std::string header;
    std::string payload;
    std::string signature;  ///< the way that signatureOf() takes
    std::string other;
    TokenVerdict expected;
};

/// The cases of one table.
///
/// @throws std::runtime_error: there are none, or a line is not as it should be.
std::vector<TokenCase> tokenCases(const std::string& table);

/// Makes the tokens of cases.
class TokenMaker {
public:
    /// @param sessionId what "<id>" stands for.
    explicit TokenMaker(const std::string& sessionId);

    /// The private key of a case, made once.
    const std::string& privatePem(const std::string& key);
    /// @throws std::invalid_argument: angle brackets around something unknown.
    std::string make(const TokenCase& forgery);

private:
    using Words = std::map<std::string, std::string>;

    static std::string expanded(const std::string& text, const Words& words);
    std::string makeOnce(const TokenCase& forgery, int attempt);

    Words words_;
    std::map<std::string, std::string> keys_;
};

}  // namespace testing_support
