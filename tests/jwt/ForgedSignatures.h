#pragma once

#include <string>

namespace testing_support {

/// What is to be signed, as texts of JSON or whatever stands in their place.
struct UnsignedToken {
    std::string header;
    std::string payload;
};

/// A signature of the token in a way that has a name, such as "RS256" (the only one that is to be accepted), "HS256
/// with the public key" or "cube root, bytes behind it". Those that the way needs the private key for are made with it:
/// a verifier that were laxer in just that respect would accept them.
///
/// @param privatePem the key of the host.
/// @return the bytes.
/// @throws std::invalid_argument: there is no such way; std::runtime_error: there is none for this key and token.
std::string signatureOf(const std::string& way, const std::string& privatePem, const UnsignedToken& token);

/// A new RSA key with public exponent 3, as PEM text.
std::string newKeyWithExponentThree();
/// A new P-256 key, as PEM text.
std::string newEcKey();
/// The public half of a key, as PEM text.
std::string publicPemOf(const std::string& privatePem);
/// The modulus of an RSA key, as bytes.
std::string modulusOf(const std::string& privatePem);

}  // namespace testing_support
