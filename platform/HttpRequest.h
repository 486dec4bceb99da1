#pragma once

#include <string>

namespace platform_detail {

struct HttpMethod {
    const char* name;
    const char* function;  // for the log
    bool idempotent;       // sending it twice does what sending it once does
};

/// What a request carries; at most one of the two is set. Borrows the caller's strings.
struct HttpBody {
    const std::string* text = nullptr;
    const std::string* filePath = nullptr;
};

struct HttpResponse {
    long status = 0;
    std::string body;
};

/// Why a request failed; what is thrown inside.
struct HttpFailure {
    int status;
    std::string detail;
};

}  // namespace platform_detail
