#pragma once

#include "rbac/enforcement/DiskAccessControlClient.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/OperationCache.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace testing_support {

/// A client over a cache and an operation cache of the test's own.
class ClientFixture : public testing::Test {
protected:
    ClientFixture() {
        writeOperations(R"({"|OPERATIONS|VIEW|": 37, "|OPERATIONS|ADD|": 5, "|OPERATIONS|UPDATE|": 0})");
    }

    void writeOperations(const std::string& json) { writeFile(operationsFile(), json); }
    std::string operationsFile() const { return directory_.path() + "/operation-cache.json"; }

    /// A client over `files` as they are now.
    Tesmor::Arkwell::Rbac::AccessControlClient& client() {
        using namespace Tesmor::Arkwell::Rbac;
        files.write();
        operations_ = std::make_unique<OperationCache>(operationsFile());
        client_ = std::make_unique<DiskAccessControlClient>(
            ObjectNamespace(), boost::make_shared<AccessCache>(Manifest("some cache", directory_.path())),
            *operations_);
        return *client_;
    }

    TemporaryDirectory directory_;
    RawCache files{directory_.path()};

private:
    std::unique_ptr<Tesmor::Arkwell::Rbac::OperationCache> operations_;
    std::unique_ptr<Tesmor::Arkwell::Rbac::DiskAccessControlClient> client_;
};

}  // namespace testing_support
