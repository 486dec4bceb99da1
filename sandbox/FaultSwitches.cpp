#include "sandbox/FaultSwitches.h"

#include <boost/lexical_cast.hpp>

#include <array>
#include <stdexcept>

namespace Tesmor::Arkwell::Sandbox {

namespace {

struct KindName {
    const char* name;
    Fault::Kind kind;
    bool takesArgument;
    std::uint64_t usual;  // where no argument is given
};

// More than the default limit of a client's response.
constexpr std::uint64_t HUGE_BYTES = std::uint64_t{300} << 20U;

constexpr std::uint64_t EVERY = 0;  // in place of the number of a request

constexpr std::array<KindName, 9> KINDS{{
    {"delay", Fault::Kind::DELAY, true, 1000},
    {"close", Fault::Kind::CLOSE, false, 0},
    {"refuse", Fault::Kind::REFUSE, false, 0},
    {"status", Fault::Kind::WRONG_STATUS, true, 500},
    {"malformed", Fault::Kind::MALFORMED, false, 0},
    {"huge", Fault::Kind::HUGE_BODY, true, HUGE_BYTES},
    {"close-after", Fault::Kind::CLOSE_AFTER, false, 0},
    {"kill", Fault::Kind::KILL, false, 0},
    {"kill-after", Fault::Kind::KILL_AFTER, false, 0},
}};

[[noreturn]] void refuse(const std::string& text, const std::string& why) {
    throw std::invalid_argument("no fault, " + why + ": " + text);
}

std::uint64_t parseNumber(const std::string& number, const std::string& text) {
    std::uint64_t value = 0;
    const bool isNumber = number.find_first_not_of("0123456789") == std::string::npos &&
                          boost::conversion::try_lexical_convert(number, value);
    if (!isNumber) {
        refuse(text, "\"" + number + "\" is not a number");
    }
    return value;
}

/// Cuts off what follows the last separator, if there is one.
boost::optional<std::string> cutTail(std::string& text, char separator) {
    const std::size_t position = text.rfind(separator);
    if (position == std::string::npos) {
        return boost::none;
    }
    std::string tail = text.substr(position + 1);
    text.erase(position);
    return tail;
}

/// "delay:500"
Fault parseFault(std::string kind, const std::string& text) {
    const boost::optional<std::string> argument = cutTail(kind, ':');
    for (const KindName& known : KINDS) {
        if (kind != known.name) {
            continue;
        }
        if (!argument) {
            return {known.kind, known.usual};
        }
        if (!known.takesArgument) {
            refuse(text, kind + " takes no argument");
        }
        const std::uint64_t number = parseNumber(*argument, text);
        if (known.kind == Fault::Kind::WRONG_STATUS && (number < 200 || number > 599)) {
            refuse(text, "the status must be 200 to 599");
        }
        return {known.kind, number};
    }
    refuse(text, "\"" + kind + "\" is not known");
}

}  // namespace

FaultSwitches::Switch FaultSwitches::parse(const std::string& text) {
    const std::size_t equals = text.rfind('=');
    if (equals == std::string::npos) {
        refuse(text, "not of the form PATH=KIND");
    }
    std::string kind = text.substr(equals + 1);
    const boost::optional<std::string> nthText = cutTail(kind, '@');
    const std::uint64_t nth = nthText ? parseNumber(*nthText, text) : EVERY;
    if (nthText && nth == EVERY) {
        refuse(text, "requests are counted from 1");
    }
    std::string method;
    std::string path = text.substr(0, equals);
    const std::size_t blank = path.find(' ');
    if (blank != std::string::npos) {
        method = path.substr(0, blank);
        path.erase(0, blank + 1);
    }
    if (path.empty() || path.front() != '/') {
        refuse(text, "the path must begin with /");
    }
    return {text, method, path, parseFault(kind, text), nth, 0};
}

void FaultSwitches::set(const std::vector<std::string>& texts) {
    std::vector<Switch> parsed;
    for (const std::string& text : texts) {
        parsed.push_back(parse(text));
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    switches_.insert(switches_.end(), parsed.begin(), parsed.end());
}

void FaultSwitches::clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    switches_.clear();
}

std::vector<std::string> FaultSwitches::list() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> texts;
    for (const Switch& fault : switches_) {
        texts.push_back(fault.text + " (" + std::to_string(fault.seen) + " requests)");
    }
    return texts;
}

boost::optional<Fault> FaultSwitches::next(const std::string& method, const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex_);
    boost::optional<Fault> found;
    for (Switch& candidate : switches_) {
        const bool concerned = (candidate.method.empty() || candidate.method == method) &&
                               path.compare(0, candidate.path.size(), candidate.path) == 0;
        if (concerned && (++candidate.seen == candidate.nth || candidate.nth == EVERY) && !found) {
            found = candidate.fault;
        }
    }
    return found;
}

}  // namespace Tesmor::Arkwell::Sandbox
