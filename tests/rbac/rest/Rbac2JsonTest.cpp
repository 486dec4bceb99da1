#include "rbac/rest/Rbac2Json.h"
#include "testing/LogCapture.h"

#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <gmock/gmock.h>

#include <memory>
#include <new>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::LogCapture;
using testing_support::LogLine;

namespace {

std::string dumped(const boost::shared_ptr<json_t>& document) {
    return json_dumps_shared(document).get();
}

int statusOfLoading(const std::string& text) {
    try {
        json_loads_shared(text);
    } catch (const EC_exception& failure) {
        return failure.status;
    }
    return 0;
}

}  // namespace

TEST(Rbac2JsonTest, ParsesADocument) {
    EXPECT_TRUE(json_is_array(json_loads_shared("[]").get()));
    EXPECT_EQ(dumped(json_loads_shared(R"({ "a" : [ 1, "b" ] })")), R"({"a":[1,"b"]})");
}

TEST(Rbac2JsonTest, ReportsTextThatIsNoDocument) {
    const LogCapture log;
    EXPECT_EQ(statusOfLoading(""), 7610);
    EXPECT_EQ(statusOfLoading("{"), 7610);
    EXPECT_EQ(statusOfLoading("\"text\""), 7610);
    EXPECT_EQ(statusOfLoading("[] []"), 7610);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(LogLine{16, "json_loads_shared", "Error parsing JSON: '[' or '{' expected near end of file"},
                    LogLine{16, "json_loads_shared", "Error parsing JSON: string or '}' expected near end of file"},
                    LogLine{16, "json_loads_shared", "Error parsing JSON: '[' or '{' expected near '\"text\"'"},
                    LogLine{16, "json_loads_shared", "Error parsing JSON: end of file expected near '['"}));
}

TEST(Rbac2JsonTest, SerialisesCompactlyInAscii) {
    EXPECT_EQ(dumped(json_pack_shared("{s:s, s:[i, b]}", "a", "\xC3\xA9", "b", 1, 1)),
              R"({"a":"\u00E9","b":[1,true]})");
}

TEST(Rbac2JsonTest, TakesNoDocumentForNoMemory) {
    const LogCapture log;
    EXPECT_THROW(json_dumps_shared(boost::shared_ptr<json_t>()), std::bad_alloc);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Rbac2JsonTest, TakesAFormatThatCannotBePackedForNoMemory) {
    const LogCapture log;
    EXPECT_THROW(json_pack_shared("{s:s}", "a", static_cast<const char*>(nullptr)), std::bad_alloc);
    EXPECT_THROW(json_pack_shared("{"), std::bad_alloc);
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{16, "json_pack_shared", "Error generating JSON: NULL string"},
                            LogLine{16, "json_pack_shared", "Error generating JSON: Unexpected end of format string"}));
}

TEST(Rbac2JsonTest, MakesAnArrayEvenWhenAskedForAnObject) {
    EXPECT_EQ(dumped(json_array_shared()), "[]");
    EXPECT_EQ(dumped(json_object_shared()), "[]");
}

TEST(Rbac2JsonTest, MakesAString) {
    EXPECT_STREQ(json_string_value(json_string_shared("a \"text\"").get()), "a \"text\"");
}

TEST(Rbac2JsonTest, ThrowsAPointerForAStringThatCannotBeMade) {
    try {
        json_string_shared("\xFF");
        FAIL();
        // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): as it is thrown
    } catch (std::bad_alloc* thrown) {
        const std::unique_ptr<std::bad_alloc> owner(thrown);
        SUCCEED();
    }
}

TEST(Rbac2JsonTest, WritesANamespaceAsItsText) {
    EXPECT_STREQ(json_string_value(json_namespace_shared(ObjectNamespace("ARKWELL", "MANAGEMENT", "JOBS")).get()),
                 "|ARKWELL|MANAGEMENT|JOBS|");
    EXPECT_STREQ(json_string_value(json_namespace_shared(ObjectNamespace()).get()), "|");
}

TEST(Rbac2JsonTest, WritesNamespacesInTheOrderOfTheList) {
    EXPECT_EQ(dumped(json_namespaces_shared({ObjectNamespace("B"), ObjectNamespace("A"), ObjectNamespace("B")})),
              R"(["|B|","|A|","|B|"])");
    EXPECT_EQ(dumped(json_namespaces_shared({})), "[]");
}

TEST(Rbac2JsonTest, LeavesOneReferenceToEachElement) {
    const boost::shared_ptr<json_t> array = json_namespaces_shared({ObjectNamespace("A")});
    EXPECT_EQ(json_array_get(array.get(), 0)->refcount, 1U);
    EXPECT_EQ(array->refcount, 1U);
}
