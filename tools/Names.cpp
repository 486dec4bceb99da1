#include "tools/Names.h"

#include "tools/ToolFailures.h"

#include <boost/lexical_cast.hpp>

#include <string_view>

namespace Tesmor::Arkwell::Tools {

using Rbac::ObjectNamespace;

namespace {

constexpr std::string_view COMMON_PARENT = "|OPERATIONS|";

}  // namespace

ObjectNamespace objectNamed(const std::string& text) {
    try {
        return boost::lexical_cast<ObjectNamespace>(text);
    } catch (const boost::bad_lexical_cast&) {
        throw UsageError("\"" + text + "\" is no object; write it as in |ASSETS|db+1|, in quotes for the shell");
    }
}

ObjectNamespace operationNamed(const std::string& text) {
    const bool isFullText = !text.empty() && text.front() == '|';
    const std::string full = isFullText ? text : std::string(COMMON_PARENT) + text + "|";
    try {
        return boost::lexical_cast<ObjectNamespace>(full);
    } catch (const boost::bad_lexical_cast&) {
        throw UsageError("\"" + text + "\" is no operation; write it as in VIEW or |OPERATIONS|VIEW|");
    }
}

std::string shortName(const std::string& operationText) {
    std::string_view name = operationText;
    if (name.substr(0, COMMON_PARENT.size()) != COMMON_PARENT || name.size() < COMMON_PARENT.size() + 2) {
        return operationText;
    }
    name = name.substr(COMMON_PARENT.size(), name.size() - COMMON_PARENT.size() - 1);
    return std::string(name);
}

OperationTexts::OperationTexts(const Rbac::OperationCache& operations) {
    for (const auto& [name, operation] : operations.known()) {
        texts_.emplace(operation.bitNumber(), name.str());
    }
}

std::string OperationTexts::of(std::int32_t bitNumber) const {
    const auto entry = texts_.find(bitNumber);
    return entry != texts_.end() ? entry->second : "#" + std::to_string(bitNumber);
}

}  // namespace Tesmor::Arkwell::Tools
