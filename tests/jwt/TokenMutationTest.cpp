#include "jwt/HostKey.h"
#include "testing/LogCapture.h"
#include "testing/Soak.h"

#include <jwt/JWTSSLApi.h>
#include <jwt/ValidatingJwtParser.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

// Genuine tokens that something happens to, thousands of them.

using testing_support::hostKey;
using testing_support::HostKeyFile;
using testing_support::LogCapture;
using namespace Tesmor::Arkwell;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int MUTANTS = 6'000;
constexpr unsigned SEED = 20'240'501;

/// What was signed of a token: all but its last segment.
std::string signedText(const std::string& token) {
    return token.substr(0, token.rfind('.'));
}

class Mutator {
public:
    explicit Mutator(std::vector<std::string> genuine) : genuine_(std::move(genuine)) {}

    std::string next() {
        std::string token = pick(genuine_);
        for (std::size_t change = 0, changes = 1 + below(3); change < changes; ++change) {
            mutate(token);
        }
        return token;
    }

private:
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_); }
    const std::string& pick(const std::vector<std::string>& from) { return from[below(from.size())]; }

    char character() {
        static const std::string LIKELY = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_+/=.. \n\t";
        return below(8) == 0 ? static_cast<char>(below(256)) : LIKELY[below(LIKELY.size())];
    }

    /// A place, rather often near the end of the token or of a segment.
    std::size_t place(const std::string& token) {
        if (below(4) == 0) {
            const std::size_t dot = token.find('.', below(token.size()));
            const std::size_t border = dot == std::string::npos ? token.size() - 1 : dot;
            return border - std::min(border, below(3));
        }
        return below(token.size());
    }

    void mutate(std::string& token) {
        if (token.empty()) {
            token = pick(genuine_);
        }
        const std::size_t at = place(token);
        switch (below(8)) {
            case 0:
                token[at] = static_cast<char>(token[at] ^ (1 << below(8)));
                break;
            case 1:
                token[at] = character();
                break;
            case 2:
                token.insert(at, 1, character());
                break;
            case 3:
                token.erase(at, 1 + below(4));
                break;
            case 4:
                std::swap(token[at], token[place(token)]);
                break;
            case 5:
                token.insert(at, token.substr(below(token.size()), 1 + below(40)));
                break;
            case 6:
                token.append(1 + below(4), character());
                break;
            default:
                splice(token);
        }
    }

    /// The beginning of this one and the end of another one, cut at a dot or anywhere.
    void splice(std::string& token) {
        const std::string& other = pick(genuine_);
        const auto cut = [this](const std::string& text) {
            return below(2) == 0 ? below(text.size()) : std::min(text.find('.', below(text.size())), text.size());
        };
        token = token.substr(0, cut(token)) + other.substr(cut(other));
    }

    std::mt19937 random_{SEED};
    std::vector<std::string> genuine_;
};

std::map<std::string, std::string> genuineTokens() {
    const std::string expiry = std::to_string(testing_support::nowInMilliseconds() + 36'000'000);
    std::map<std::string, std::string> tokens;
    for (const char* id : {"alice", "bob", "root", "a-rather-long-id-of-a-session-0123456789"}) {
        for (const char* header : {testing_support::RS256_HEADER, R"({"alg":"none"})", "{}"}) {
            tokens[hostKey().signToken(header, R"({"jti":")" + std::string(id) + R"(","exp":)" + expiry + "}")] = id;
        }
    }
    return tokens;
}

/// The session that a token is let in for; empty where it is not.
std::string sessionOf(const std::string& token) {
    JWT* made = nullptr;
    if (ValidatingJwtParser().parseJwt(token, made) != 0) {
        return {};
    }
    const std::unique_ptr<JWT> parsed(made);
    std::string id;
    EXPECT_EQ(parsed->getJwtId(id), 0);
    return id;
}

}  // namespace

TEST(TokenMutationTest, LetsAMutantInOnlyForWhatWasSigned) {
    const HostKeyFile key;
    const std::map<std::string, std::string> genuine = genuineTokens();
    std::map<std::string, std::string> sessions;  // by what was signed
    std::vector<std::string> tokens;
    for (const auto& [token, id] : genuine) {
        ASSERT_EQ(sessionOf(token), id);
        sessions[signedText(token)] = id;
        tokens.push_back(token);
    }
    Mutator mutator(tokens);
    const auto end = Clock::now() + testing_support::soakSeconds(std::chrono::seconds(0));
    long shown = 0;
    long unchanged = 0;
    long spelt = 0;
    for (; shown < MUTANTS || Clock::now() < end; ++shown) {
        const std::string mutant = mutator.next();
        const LogCapture log;
        const std::string session = sessionOf(mutant);
        const auto found = sessions.find(signedText(mutant));
        ASSERT_TRUE(session.empty() || (found != sessions.end() && found->second == session))
            << "mutant " << shown << ": " << mutant;
        ASSERT_EQ(JWTSSLApi::verifyJWTSignature(mutant, hostKey().publicPem()), !session.empty());
        unchanged += genuine.count(mutant) != 0 ? 1 : 0;
        spelt += !session.empty() && genuine.count(mutant) == 0 ? 1 : 0;
    }
    std::printf("%ld mutants: %ld as they were, %ld with their signature spelt otherwise, all others refused\n", shown,
                unchanged, spelt);
    EXPECT_GT(spelt, 0);  // or the end of a token has not been tried
}
