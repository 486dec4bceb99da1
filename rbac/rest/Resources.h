#pragma once

#include <boost/shared_ptr.hpp>
#include <jansson.h>

#include <string>

// What the readers of the service's documents share.

namespace Tesmor::Arkwell::Rbac {

// Types of resources that more than one reader meets.
constexpr char ROLE_TYPE[] = "accessControlRole";
constexpr char OPERATION_TYPE[] = "accessControlOperation";

constexpr int DOCUMENT_INCOMPLETE = 7610;
constexpr int DOCUMENT_UNEXPECTED = 9103;

/// The URL of a resource's list, with the filter where there is one.
std::string filtered(const std::string& url, const std::string& filter);

/// Logs and parses an answer.
///
/// @throws EC_exception, as json_loads_shared().
boost::shared_ptr<json_t> parse_response(const std::string& body, const char* who);

/// The member "data" of an answer, borrowed from it.
///
/// @param document null has none.
/// @throws EC_exception 7610 where there is none, which is logged.
const json_t* data_of(const json_t* document, const char* who);

/// Refuses a document whose shape jansson did not find.
///
/// @throws EC_exception 7610, after logging what jansson said.
[[noreturn]] void throw_incomplete(const json_error_t& error, const char* who);

/// @throws EC_exception 9103 unless the type is the expected one; the type is logged.
void require_type(const std::string& type, const char* expected, const char* who);

/// The number that is a role's id, as boost::lexical_cast<int>(text) reads it in the classic locale: the program's
/// locale makes no difference.
///
/// @throws boost::bad_lexical_cast.
int parse_role_id(const char* text);

/// Jansson unpacks without changing what it unpacks, but does not say so.
inline json_t* unpackable(const json_t* value) {
    return const_cast<json_t*>(value);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

/// One record for each element of an array; none for anything else.
template <class Record, class List>
void append_records(const json_t* array, List& records) {
    for (std::size_t i = 0; i < json_array_size(array); ++i) {
        records.push_back(Record(json_array_get(array, i)));
    }
}

}  // namespace Tesmor::Arkwell::Rbac
