#include "ApiFixture.h"
#include "rbac/rest/Rbac2Curl.h"

#include <platform/Text.h>
#include <rbac/AccessControlClient.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <string>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::LogLine;

// The platform's encoder, replaced by one that fails, as a program may put its own in front of it.
int percentEncodeUriPart(const std::string& /*text*/, std::string& /*encoded*/) {
    return 77;
}

namespace {

class EncodeUriPartTest : public ApiFixture {
protected:
    static std::string refused(const std::string& text) {
        return "77 [rbac2_encode_uri_part] Failed to encode. str=" + text + ", status=77";
    }
};

}  // namespace

TEST_F(EncodeUriPartTest, ReportsTheStatusOfTheEncoder) {
    EXPECT_EQ(outcomeOf([] { encode_uri_part("a b"); }), refused("a b"));
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogLine{16, "rbac2_encode_uri_part", "Failed to encode. str=a b, status=77"}));
}

TEST_F(EncodeUriPartTest, AsksForNoListWithAFilterThatCannotBeEncoded) {
    EXPECT_EQ(outcomeOf([this] { RoleAPI(http_).get_roles("f"); }), refused("f"));
    EXPECT_EQ(outcomeOf([this] { OperationAPI(http_).get_operations("f"); }), refused("f"));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(EncodeUriPartTest, AsksForNoObjectWhoseNamespaceCannotBeEncoded) {
    EXPECT_EQ(outcomeOf([this] { ManagedObjectAPI(http_).get_object(ObjectNamespace("A")); }), refused("|A|"));
    EXPECT_THAT(http_->requests(), IsEmpty());
}

TEST_F(EncodeUriPartTest, MakesNoClientOfAScopeThatCannotBeEncoded) {
    settings_.replace(R"({"accessEnforcement":"gen1"})");
    boost::shared_ptr<AccessControlClient> client;
    ASSERT_EQ(AccessControlClient::create(ObjectNamespace("A"), client), 0);
    const boost::shared_ptr<AccessControlClient> before = client;
    settings_.replace(R"({"primaryServer":"primary.example","accessEnforcement":"gen2"})");
    log_.clear();
    EXPECT_EQ(AccessControlClient::create(ObjectNamespace("A"), client), 77);
    EXPECT_EQ(client, before);
    EXPECT_THAT(log_.lines(), ElementsAre(LogLine{2, "AccessControlClient::create", "Gen2 enforcement."},
                                          LogLine{4, "AccessControlClient::create", "Requesting cache for |A|"}));
}
