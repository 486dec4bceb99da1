#pragma once

#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// The newest version of the service's documents, as it stands in their media type
/// "application/vnd.arkwell+json;version=6.0".
constexpr char NEWEST_VERSION[] = "6.0";

/// Whether a document of this "Content-Type" is taken: plain JSON, or the service's own type in a version up to the
/// newest.
bool isMediaTypeTaken(const std::string& contentType);

/// The media type to answer with: of those that "Accept" lists, the first that the service can write.
///
/// @param accept empty where the client takes anything.
/// @return empty where there is none.
std::string mediaTypeFor(const std::string& accept);

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
