#pragma once

#include <boost/shared_ptr.hpp>
#include <jansson.h>

#include <string>

namespace Tesmor::Arkwell::Rbac {

/// Writes a request that is one long array in a small envelope: each element is made, written and gone again, so that
/// a request of 100,000 objects takes the memory of its text instead of several times that.
class RequestText {
public:
    /// @param envelope the request with its only array empty.
    explicit RequestText(const boost::shared_ptr<json_t>& envelope);

    /// Appends an element to the array.
    void add(const boost::shared_ptr<json_t>& element);

    /// The text of the whole request, as json_dumps_shared() writes it. The writer is done.
    std::string take();

private:
    std::string text_;
    std::string tail_;
};

}  // namespace Tesmor::Arkwell::Rbac
