#pragma once

#include "platform/HttpExchange.h"
#include "platform/HttpRequest.h"

#include <curl/curl.h>

#include <string>

namespace platform_detail {

/// What it means that libcurl ended a request with `code`, which is not CURLE_OK.
///
/// @param systemError the number of the system's last error while it connected.
/// @param detail what libcurl wrote into the error buffer.
HttpFailure httpFailure(CURLcode code, long systemError, const HttpExchange& exchange, const std::string& detail);

}  // namespace platform_detail
