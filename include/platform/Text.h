#pragma once

#include <platform/Export.h>

#include <string>

/// @file
/// Text helpers. All are safe from any thread and throw nothing but std::bad_alloc. `in` and `out` may be one string.

/// Percent-encodes `in` for use as one part of a URL's path or query: every byte but the unreserved characters of
/// RFC 3986 section 2.3 (letters, digits, "-", ".", "_", "~") becomes "%" and two upper-case hexadecimal digits.
///
/// @return 0; nothing makes it fail.
ARKWELL_EXPORT int percentEncodeUriPart(const std::string& in, std::string& out);

/// Turns "%" with two hexadecimal digits (of either case) into the byte that they spell and "+" into a space; every
/// other byte stays as it is.
///
/// @return 0, or platform_status::TEXT_MALFORMED for a "%" not followed by two hexadecimal digits, with `out`
/// untouched.
ARKWELL_EXPORT int percentDecodeUriPart(const std::string& in, std::string& out);

/// Reads the integer member "errorCode" of the service's error body, a JSON object.
///
/// @return 0 with `errorCode` set, or, with `errorCode` untouched, platform_status::JSON_MALFORMED for a body that is
/// not a JSON object, or platform_status::JSON_MEMBER_MISSING for one without a 32-bit integer "errorCode".
ARKWELL_EXPORT int extractErrorFromJSON(const std::string& body, int& errorCode);
