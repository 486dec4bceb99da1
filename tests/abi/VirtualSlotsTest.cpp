// Programs call virtual functions by their places in the table that the compiler makes of a class, so a place is part
// of the binary interface. The first two places are the destructor's: what ends an object, and what deletes it too.

#include <jwt/JWT.h>
#include <jwt/JWTHandler.h>
#include <jwt/RBACDbConnectionMgr.h>
#include <jwt/RBACDbQueryMgr.h>
#include <jwt/ValidatingJwtParser.h>
#include <platform/HttpClient.h>
#include <rbac/AccessControlClient.h>
#include <rbac/BaseAPI.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectRegistrationService.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

using namespace Tesmor::Arkwell;
using namespace Tesmor::Arkwell::Rbac;

namespace {

// A pointer to a virtual member function holds 1 and the offset of its place, by the Itanium C++ ABI.
template <class Function>
std::uintptr_t slotOf(Function function) {
    static_assert(std::is_member_function_pointer_v<Function>);
    std::array<std::uintptr_t, 2> words{};
    static_assert(sizeof words == sizeof function);
    std::memcpy(words.data(), &function, sizeof function);
    EXPECT_EQ(words[0] % 2, 1U) << "not virtual";
    return words[0] / sizeof(void*);
}

std::string demangled(const char* symbol) {
    const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(symbol, nullptr, nullptr, nullptr),
                                                           &std::free);
    return name ? name.get() : symbol;
}

// The functions that a class's table in the library has behind the destructor: their names without their arguments.
std::vector<std::string> functionsOf(const char* mangledName, std::size_t count) {
    const auto* table = static_cast<void* const*>(dlsym(RTLD_DEFAULT, (std::string("_ZTV") + mangledName).c_str()));
    // Before the functions stand the offset to the whole object and the type information.
    constexpr std::size_t FIRST = 2 + 2;
    std::vector<std::string> names;
    for (std::size_t i = 0; table != nullptr && i < count; ++i) {
        Dl_info function{};
        const bool known = dladdr(table[FIRST + i], &function) != 0 && function.dli_sname != nullptr;
        const std::string name = known ? demangled(function.dli_sname) : "unknown";
        names.push_back(name.substr(0, name.find('(')));
    }
    return names;
}

#define EXPECT_SLOT(slot, function) EXPECT_EQ(slotOf(function), slot) << #function

using CreateOfToken = int (AccessControlClient::*)(Tesmor::Dal::DbConnectionManager*, const std::string&,
                                                   const ObjectNamespace&, int,
                                                   boost::shared_ptr<const AccessChecker>&);
using CreateOfRoles = int (AccessControlClient::*)(const std::set<int>&, const ObjectNamespace&, int,
                                                   boost::shared_ptr<const AccessChecker>&);

TEST(VirtualSlotsTest, AccessChecker) {
    EXPECT_SLOT(2U, &AccessChecker::checkAccess);
}

TEST(VirtualSlotsTest, AccessControlClient) {
    EXPECT_SLOT(2U, static_cast<CreateOfToken>(&AccessControlClient::createAccessChecker));
    EXPECT_SLOT(3U, static_cast<CreateOfRoles>(&AccessControlClient::createAccessChecker));
}

TEST(VirtualSlotsTest, HttpClient) {
    EXPECT_SLOT(2U, &AWClientCURL_Base::Put);
    EXPECT_SLOT(3U, &AWClientCURL_Base::Post);
    EXPECT_SLOT(4U, &AWClientCURL_Base::PostFile);
    EXPECT_SLOT(5U, &AWClientCURL_Base::Patch);
    EXPECT_SLOT(6U, &AWClientCURL_Base::Get);
    EXPECT_SLOT(7U, &AWClientCURL_Base::Delete);
    EXPECT_SLOT(8U, &AWClientCURL_Base::setApiVersion);
}

TEST(VirtualSlotsTest, HttpClientFactory) {
    EXPECT_SLOT(2U, &AWClientCURL_BaseFactory::create);
}

TEST(VirtualSlotsTest, RBACJwtParser) {
    EXPECT_SLOT(2U, &RBACJwtParser::parseJwt);
}

TEST(VirtualSlotsTest, RBACQueryMgr) {
    EXPECT_SLOT(2U, &RBACQueryMgr::fetchCollectionCriteria);
    EXPECT_SLOT(3U, &RBACQueryMgr::fetchAzToken);
}

TEST(VirtualSlotsTest, ObjectRegistrationCallback) {
    EXPECT_SLOT(2U, &ObjectRegistrationCallback::process);
    EXPECT_SLOT(3U, &ObjectRegistrationCallback::failed);
}

TEST(VirtualSlotsTest, ObjectUnregistrationCallback) {
    EXPECT_SLOT(2U, &ObjectUnregistrationCallback::process);
    EXPECT_SLOT(3U, &ObjectUnregistrationCallback::failed);
}

TEST(VirtualSlotsTest, BulkObjectRegistrationCallback) {
    EXPECT_SLOT(2U, &BulkObjectRegistrationCallback::process);
    EXPECT_SLOT(3U, &BulkObjectRegistrationCallback::failed);
}

TEST(VirtualSlotsTest, ObjectRegistrationService) {
    EXPECT_SLOT(2U, &ObjectRegistrationService::registerObject);
    EXPECT_SLOT(3U, &ObjectRegistrationService::unregisterObject);
    EXPECT_SLOT(4U, &ObjectRegistrationService::bulkRegisterObjects);
    EXPECT_SLOT(5U, &ObjectRegistrationService::bulkUpdateObjectState);
    EXPECT_SLOT(6U, &ObjectRegistrationService::changeObjectState);
    EXPECT_SLOT(7U, &ObjectRegistrationService::deleteObject);
}

TEST(VirtualSlotsTest, RBACDbConnectionMgrHasADestructor) {
    EXPECT_TRUE(std::has_virtual_destructor_v<RBACDbConnectionMgr>);
}

TEST(VirtualSlotsTest, ClassesThatAreNoInterfacesHaveNone) {
    EXPECT_FALSE(std::is_polymorphic_v<JWT>);
    EXPECT_FALSE(std::is_polymorphic_v<JWTHandler>);
    EXPECT_FALSE(std::is_polymorphic_v<BaseAPI>);
    EXPECT_FALSE(std::is_polymorphic_v<RoleAPI>);
    EXPECT_FALSE(std::is_polymorphic_v<ManagedObjectAPI>);
    EXPECT_FALSE(std::is_polymorphic_v<OperationAPI>);
}

struct ClassTable {
    const char* mangledName;
    std::vector<std::string> functions;
};

std::string nameOf(const ClassTable& table) {
    const std::string name = demangled((std::string("_ZTV") + table.mangledName).c_str());
    return name.substr(std::string("vtable for ").size());
}

void PrintTo(const ClassTable& table, std::ostream* stream) {
    *stream << nameOf(table);
}

class VirtualSlotsOfLibraryTest : public testing::TestWithParam<ClassTable> {};

TEST_P(VirtualSlotsOfLibraryTest, AreWhereProgramsHaveThem) {
    const ClassTable& expected = GetParam();
    std::vector<std::string> functions;
    for (const std::string& function : expected.functions) {
        functions.push_back(nameOf(expected) + "::" + function);
    }
    EXPECT_EQ(functionsOf(expected.mangledName, functions.size()), functions);
}

const std::vector<std::string> CLIENT{"createAccessChecker", "createAccessChecker"};

INSTANTIATE_TEST_SUITE_P(
    , VirtualSlotsOfLibraryTest,
    testing::Values(ClassTable{"N6Tesmor7Arkwell4Rbac21ConstantAccessCheckerILb1EEE", {"checkAccess"}},
                    ClassTable{"N6Tesmor7Arkwell4Rbac21ConstantAccessCheckerILb0EEE", {"checkAccess"}},
                    ClassTable{"N6Tesmor7Arkwell4Rbac17DiskAccessCheckerE", {"checkAccess"}},
                    ClassTable{"N6Tesmor7Arkwell4Rbac23StubAccessControlClientE", CLIENT},
                    ClassTable{"N6Tesmor7Arkwell4Rbac23DiskAccessControlClientE", CLIENT},
                    ClassTable{"12AWClientCURL",
                               {"Put", "Post", "PostFile", "Patch", "Get", "Delete", "setApiVersion"}},
                    ClassTable{"19AWClientCURLFactory", {"create"}},
                    ClassTable{"N6Tesmor7Arkwell19ValidatingJwtParserE", {"parseJwt"}},
                    ClassTable{"N6Tesmor7Arkwell14RBACDbQueryMgrE", {"fetchCollectionCriteria", "fetchAzToken"}},
                    ClassTable{"N6Tesmor7Arkwell4Rbac32DefaultObjectRegistrationServiceE",
                               {"registerObject", "unregisterObject", "bulkRegisterObjects", "bulkUpdateObjectState",
                                "changeObjectState", "deleteObject"}}),
    [](const testing::TestParamInfo<ClassTable>& table) {
        std::string name = nameOf(table.param);
        name.erase(0, name.rfind(':') + 1);
        for (char& character : name) {
            character = std::isalnum(static_cast<unsigned char>(character)) != 0 ? character : '_';
        }
        return name;
    });

}  // namespace
