#pragma once

#include "sandbox/ServiceRequest.h"

#include <map>
#include <string>

namespace Tesmor {
namespace Arkwell {
namespace Sandbox {

/// What a list is narrowed down by:
///
///     name eq 'text'
///     startswith(name,'text')
///
/// Within the text, '' stands for one quote. Blanks may stand between the words.
class FilterExpression {
public:
    /// Lets everything through.
    FilterExpression() = default;
    /// The filter in a request's query; lets everything through where there is none. Otherwise as the next one.
    FilterExpression(const ServiceRequest& request, const std::map<std::string, bool>& fields);
    /// @param fields what may stand for "name", and whether "startswith" may be asked of it.
    /// @throws ServiceError of the kind FILTER_MALFORMED, whose details say where the text stops making sense.
    FilterExpression(const std::string& text, const std::map<std::string, bool>& fields);

    bool accepts(const std::string& value) const;
    const std::string& field() const { return field_; }
    const std::string& text() const { return text_; }

private:
    enum class Comparison { EVERYTHING, EQUAL, STARTS_WITH };

    Comparison comparison_ = Comparison::EVERYTHING;
    std::string field_;
    std::string text_;
};

}  // namespace Sandbox
}  // namespace Arkwell
}  // namespace Tesmor
