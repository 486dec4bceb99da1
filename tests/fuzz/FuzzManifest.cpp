// Any bytes as an access cache's manifest.

#include "FuzzHost.h"

#include <rbac/AccessCache.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FuzzHost host;
    static const testing_support::TemporaryDirectory directory;
    testing_support::writeFile(directory / AccessCache::MANIFEST_FILE_NAME,
                               std::string(reinterpret_cast<const char*>(data), size));
    try {
        const Manifest manifest("a cache", directory.path());
        const ObjectNamespace& ns = manifest.objectNamespace();
        require(boost::lexical_cast<ObjectNamespace>(ns.str()) == ns);
    } catch (const EC_exception& failure) {
        require(failure.status == 12);
    } catch (const boost::bad_lexical_cast&) {
        return 0;
    }
    return 0;
}
