#include "jwt/TokenCases.h"

#include "jwt/Tokens.h"
#include "platform/Handles.h"

#include <jansson.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace testing_support {

namespace {

using platform_detail::JsonPointer;
using Tesmor::Arkwell::Sandbox::base64Url;

constexpr char FOLDER[] = TOKEN_CASES;
constexpr int ATTEMPTS = 64;

std::string textOr(const json_t* object, const char* member, const char* otherwise) {
    const json_t* const value = json_object_get(object, member);
    return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value)) : otherwise;
}

TokenVerdict verdictOf(const json_t* array, const std::string& where) {
    TokenVerdict verdict;
    int verifies = 0;
    const int unpacked = json_unpack(const_cast<json_t*>(array), "[biii!]", &verifies, &verdict.parser,  // NOLINT
                                     &verdict.roles, &verdict.checker);
    if (unpacked != 0) {
        throw std::runtime_error(where + ": no verdict");
    }
    verdict.verifies = verifies != 0;
    return verdict;
}

/// What a word that carries its own meaning stands for: "1000 of A", "bytes C3A9", "now - 1000".
std::string speltOut(const std::string& word) {
    if (word.rfind("bytes ", 0) == 0) {
        std::string bytes;
        for (std::size_t at = 6; at + 1 < word.size(); at += 2) {
            bytes += static_cast<char>(std::stoi(word.substr(at, 2), nullptr, 16));
        }
        return bytes;
    }
    if (word.rfind("now ", 0) == 0) {
        const long long distance = std::stoll(word.substr(6));
        return std::to_string(nowInMilliseconds() + (word[4] == '-' ? -distance : distance));
    }
    const std::size_t of = word.find(" of ");
    if (of == std::string::npos) {
        throw std::invalid_argument("nothing is called <" + word + ">");
    }
    const unsigned long count = std::stoul(word);
    const std::string repeated = word.substr(of + 4);
    std::string text;
    text.reserve(count * repeated.size());
    for (unsigned long i = 0; i < count; ++i) {
        text += repeated;
    }
    return text;
}

/// The same bytes in the alphabet of RFC 4648 section 4.
std::string inStandardAlphabet(std::string text) {
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    return text;
}

/// The same bytes where the bits of the last character that are none of theirs are ignored.
std::string withOtherLastBits(std::string text) {
    static const std::string ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    if (text.size() % 4 == 2 || text.size() % 4 == 3) {
        text.back() = ALPHABET[ALPHABET.find(text.back()) ^ 1U];
    }
    return text;
}

std::string withEndsOfLines(const std::string& text) {
    std::string lines;
    for (std::size_t at = 0; at < text.size(); at += 64) {
        lines += text.substr(at, 64) + "\n";
    }
    return lines;
}

}  // namespace

void PrintTo(const TokenVerdict& verdict, std::ostream* out) {
    *out << (verdict.verifies ? "verifies" : "does not verify") << ", parser " << verdict.parser << ", roles "
         << verdict.roles << ", checker " << verdict.checker;
}

std::vector<TokenCase> tokenCases(const std::string& table) {
    const std::string path = std::string(FOLDER) + "/" + table + ".json";
    json_error_t error{};
    const JsonPointer document(json_load_file(path.c_str(), JSON_REJECT_DUPLICATES | JSON_ALLOW_NUL, &error));
    const json_t* const lines = json_object_get(document.get(), "cases");
    if (json_array_size(lines) == 0) {
        throw std::runtime_error(path + ": no cases; line " + std::to_string(error.line) + ": " + error.text);
    }
    const json_t* const expected = json_object_get(document.get(), "expected");
    std::vector<TokenCase> cases;
    for (std::size_t i = 0; i < json_array_size(lines); ++i) {
        const json_t* const line = json_array_get(lines, i);
        const json_t* const own = json_object_get(line, "expected");
        TokenCase made{textOr(line, "name", ""),
                       textOr(line, "key", "host"),
                       textOr(line, "token", "<header>.<payload>.<signature>"),
                       textOr(line, "header", RS256_HEADER),
                       textOr(line, "payload", R"({"jti":"<id>","exp":<expiry>})"),
                       textOr(line, "signature", "RS256"),
                       textOr(line, "other", ""),
                       {}};
        made.expected = verdictOf(own != nullptr ? own : expected, path + ": " + made.name);
        cases.push_back(std::move(made));
    }
    return cases;
}

TokenMaker::TokenMaker(const std::string& sessionId)
    : words_{{"id", sessionId},
             {"expiry", std::to_string(nowInMilliseconds() + 3'600'000)},
             {"expiry in seconds", std::to_string(nowInMilliseconds() / 1000 + 3'600)},
             {"now", std::to_string(nowInMilliseconds())},
             {"genuine token", signedToken(sessionClaims(sessionId))},
             {"stranger's modulus", base64Url(modulusOf(strangersKey().privatePem()))}},
      keys_{{"host", hostKey().privatePem()}} {}

const std::string& TokenMaker::privatePem(const std::string& key) {
    std::string& pem = keys_[key];
    if (pem.empty()) {
        pem = key == "exponent 3" ? newKeyWithExponentThree() : newEcKey();
    }
    return pem;
}

std::string TokenMaker::expanded(const std::string& text, const Words& words) {
    std::string result;
    std::size_t done = 0;
    for (std::size_t begin = 0; (begin = text.find('<', done)) != std::string::npos;) {
        const std::size_t end = text.find('>', begin);
        const std::string word = text.substr(begin + 1, end - begin - 1);
        const auto found = words.find(word);
        result.append(text, done, begin - done).append(found != words.end() ? found->second : speltOut(word));
        done = end + 1;
    }
    return result.append(text, done);
}

std::string TokenMaker::makeOnce(const TokenCase& forgery, int attempt) {
    Words words = words_;
    words["attempt"] = std::to_string(attempt);
    const UnsignedToken signedTexts{expanded(forgery.header, words), expanded(forgery.payload, words)};
    const std::string signature = base64Url(signatureOf(forgery.signature, privatePem(forgery.key), signedTexts));
    words["other"] = base64Url(expanded(forgery.other, words));
    words["header"] = base64Url(signedTexts.header);
    words["payload"] = base64Url(signedTexts.payload);
    words["signature"] = signature;
    words["half a signature"] = signature.substr(0, signature.size() / 2);
    words["signature in the standard alphabet"] = inStandardAlphabet(signature);
    words["signature with other last bits"] = withOtherLastBits(signature);
    words["signature in lines"] = withEndsOfLines(signature);
    return expanded(forgery.token, words);
}

std::string TokenMaker::make(const TokenCase& forgery) {
    for (int attempt = 0;; ++attempt) {
        try {
            return makeOnce(forgery, attempt);
        } catch (const std::runtime_error&) {
            if (attempt == ATTEMPTS || forgery.payload.find("<attempt>") == std::string::npos) {
                throw;
            }
        }
    }
}

}  // namespace testing_support
