// Any bytes as the file of operations.

#include "FuzzHost.h"

#include <rbac/EC_exception.h>
#include <rbac/OperationCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/numeric/conversion/cast.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

using Tesmor::Arkwell::Rbac::OperationCache;

namespace {

bool load(OperationCache& operations) {
    try {
        operations.load();
        return true;
    } catch (const EC_exception& failure) {
        require(failure.status == 13 && operations.known().empty());
    } catch (const boost::bad_lexical_cast&) {
        return false;
    } catch (const boost::numeric::bad_numeric_cast&) {
        return false;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FuzzHost host;
    static const testing_support::TemporaryDirectory directory;
    testing_support::writeFile(directory / "operations", std::string(reinterpret_cast<const char*>(data), size));
    OperationCache operations(directory / "operations");
    const bool loaded = load(operations);
    const auto known = operations.known();
    // What was read before a fault is found without the file.
    for (const auto& [ns, operation] : known) {
        require(operations[ns]->bitNumber() == operation.bitNumber());
    }
    require(load(operations) == loaded && operations.known().size() == known.size());
    return 0;
}
