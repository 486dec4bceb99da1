#pragma once

#include "platform/HttpRequest.h"
#include "platform/HttpUpload.h"

#include <cstddef>
#include <cstdint>

namespace platform_detail {

constexpr std::size_t MAX_HEADER_BYTES = 262144;

/// One request and its response while they are under way: what libcurl's callbacks see and leave behind.
struct HttpExchange {
    bool idempotent = true;
    HttpUpload* upload = nullptr;  // borrowed; null: no file is sent
    std::uint64_t maxResponseBytes = 0;

    HttpResponse response;
    std::size_t headerBytes = 0;
    bool headersEnded = false;
    bool connecting = true;  // no connection is ready for the request
    int sendings = 0;        // how often the request was begun to be sent
    bool resendRefused = false;
    bool endAnnounced = false;  // the server has said farewell by TLS
    bool leavesBody = false;    // the last answer was followed by a body that was not read
    bool timeIsUp = false;      // that of the whole request
    bool headersTooLarge = false;
    bool bodyTooLarge = false;
    bool outOfMemory = false;
    int tlsAlert = 0;       // what the server complained of by TLS; 0: nothing
    long verification = 0;  // what made the client complain of the server's certificate, as OpenSSL numbers it
};

}  // namespace platform_detail
