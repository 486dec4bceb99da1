#pragma once

#include "testing/TlsServer.h"

#include <functional>
#include <string>
#include <vector>

namespace testing_support {

/// One way into the library that asks the service something.
struct ServiceCall {
    const char* name;
    /// How a status of it reaches the caller.
    enum Report { RETURNED, THROWN } report;
    /// The status for an answer that is not the document it has to be; 0: the answer is not read.
    int unreadable;
    /// The status for an HTTP status that is no success, with a body that names no error.
    int unexplained;
    /// Whether the error that a body names is the call's status.
    bool passesErrorsOn;
    /// @return the status where it is returned; 0 otherwise.
    std::function<int()> call;
};

/// All of them, each with arguments that there is nothing to object to. Those that call the caller back make sure
/// that it is told of a failure, or else let to work, and never both.
const std::vector<ServiceCall>& serviceCalls();

/// How a call ended: "returned 9568", "threw 9568" or "threw bad_lexical_cast"; a success is "returned 0".
std::string outcomeOf(const ServiceCall& call);
/// How it ends with this status.
std::string outcomeWith(const ServiceCall& call, int status);

/// The cache that an honest service names.
constexpr char CACHE_ID[] = "abc";

/// What an honest service answers.
struct HonestAnswer {
    int status;
    std::string body;
};
HonestAnswer honestAnswer(const HttpMessage& request);
/// The same as it goes over the connection.
std::string honestBytes(const HttpMessage& request);

}  // namespace testing_support
