#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// One kind of refusal: the HTTP status, the error code by which programs tell it from others, and what it says.
struct ErrorKind {
    int httpStatus;
    int code;
    const char* message;
};

// docs/status-codes.md lists them for the service's users.
namespace error_kinds {
inline constexpr ErrorKind DOCUMENT_MALFORMED{400, 5001, "The document is malformed"};
inline constexpr ErrorKind NAMESPACE_MALFORMED{400, 5002, "The text is no namespace"};
inline constexpr ErrorKind FILTER_MALFORMED{400, 5003, "The filter is malformed"};
inline constexpr ErrorKind ADDRESS_MALFORMED{400, 5004, "The address is malformed"};
inline constexpr ErrorKind OPERATION_NOT_APPLICABLE{400, 5005, "The operation does not apply to the object"};
inline constexpr ErrorKind REQUEST_MALFORMED{400, 5006, "The request is malformed"};

inline constexpr ErrorKind RESOURCE_UNKNOWN{404, 5101, "There is no such resource"};
inline constexpr ErrorKind ROLE_UNKNOWN{404, 5102, "There is no such role"};
inline constexpr ErrorKind OBJECT_UNKNOWN{404, 5103, "There is no such managed object"};
inline constexpr ErrorKind DEFINITION_UNKNOWN{404, 5104, "There is no such access definition"};
inline constexpr ErrorKind OPERATION_UNKNOWN{404, 5105, "There is no such operation"};

inline constexpr ErrorKind NAME_TAKEN{409, 5201, "The name is taken"};
inline constexpr ErrorKind SYSTEM_DEFINED{409, 5202, "The system itself defines it"};
inline constexpr ErrorKind ROLE_IN_USE{409, 5203, "The role is in use"};
inline constexpr ErrorKind ALREADY_REGISTERED{409, 5204, "The object is registered already"};

inline constexpr ErrorKind METHOD_NOT_ALLOWED{405, 5301, "The resource does not take this method"};
inline constexpr ErrorKind NOT_ACCEPTABLE{406, 5302, "None of the media types that the client takes is served"};
inline constexpr ErrorKind TOO_LARGE{413, 5303, "The document is too large"};
inline constexpr ErrorKind ADDRESS_TOO_LONG{414, 5304, "The address is too long"};
inline constexpr ErrorKind MEDIA_TYPE_UNSUPPORTED{415, 5305, "The media type of the document is not taken"};

inline constexpr ErrorKind INTERNAL{500, 5501, "The service failed"};
inline constexpr ErrorKind NOT_PUBLISHED{500, 5502, "The change is recorded but not published"};
}  // namespace error_kinds

/// A request that is not carried out, or not in full.
class ServiceError : public std::runtime_error {
public:
    /// @param details what was wrong in this case, for people.
    ServiceError(const ErrorKind& errorKind, std::vector<std::string> details);
    ServiceError(const ErrorKind& errorKind, const std::string& detail);

    const ErrorKind& kind() const { return kind_; }
    const std::vector<std::string>& details() const { return details_; }

private:
    ErrorKind kind_;
    std::vector<std::string> details_;
};

/// The body that goes with a refusal: {"errorCode": ..., "errorMessage": ..., "errorDetails": [...]}. Details that are
/// not UTF-8 are left out.
std::string errorBody(int code, const std::string& message, const std::vector<std::string>& details);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
