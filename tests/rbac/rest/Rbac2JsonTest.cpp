#include "rbac/rest/Rbac2Json.h"
#include "testing/FailingAllocations.h"
#include "testing/JanssonMemory.h"
#include "testing/LogCapture.h"

#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <gmock/gmock.h>
#include <malloc.h>

#include <functional>
#include <list>
#include <memory>
#include <new>
#include <string>

using namespace Tesmor::Arkwell::Rbac;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::JanssonMemory;
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

/// Whether a helper throws a pointer to std::bad_alloc.
template <class Make>
bool throwsAPointer(Make make) {
    try {
        make();
        // NOLINTNEXTLINE(misc-throw-by-value-catch-by-reference): as it is thrown
    } catch (std::bad_alloc* thrown) {
        const std::unique_ptr<std::bad_alloc> owner(thrown);
        return true;
    }
    return false;
}

std::size_t heapInUse() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
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

TEST(Rbac2JsonTest, ThrowsAPointerForAStringThatIsNotUtf8) {
    EXPECT_TRUE(throwsAPointer([] { json_string_shared("\xFF"); }));
}

TEST(Rbac2JsonTest, ThrowsAPointerWhereThereIsNoMemoryForAValue) {
    const JanssonMemory memory(0);
    EXPECT_TRUE(throwsAPointer([] { json_array_shared(); }));
    EXPECT_TRUE(throwsAPointer([] { json_object_shared(); }));
    EXPECT_TRUE(throwsAPointer([] { json_string_shared("a"); }));
}

TEST(Rbac2JsonTest, ReleasesAValueThatNoPointerCanBeMadeFor) {
    struct Helper {
        const char* name;
        int pointers;
        std::function<void()> make;
    };
    const std::string text = R"(["a"])";
    const std::list<ObjectNamespace> list = {ObjectNamespace("A")};
    const Helper helpers[] = {{"json_loads_shared", 1, [&] { json_loads_shared(text); }},
                              {"json_pack_shared", 1, [] { json_pack_shared("{s:s}", "a", "b"); }},
                              {"json_array_shared", 1, [] { json_array_shared(); }},
                              {"json_object_shared", 1, [] { json_object_shared(); }},
                              {"json_string_shared", 1, [&] { json_string_shared(text); }},
                              {"json_namespace_shared", 1, [&] { json_namespace_shared(list.front()); }},
                              {"json_namespaces_shared", 2, [&] { json_namespaces_shared(list); }}};
    for (const Helper& helper : helpers) {
        SCOPED_TRACE(helper.name);
        const JanssonMemory memory;
        const LogCapture log;
        EXPECT_EQ(testing_support::failEachAllocation(helper.make, [] { EXPECT_EQ(JanssonMemory::blocks, 0); }),
                  helper.pointers);
        EXPECT_EQ(JanssonMemory::blocks, 0);
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST(Rbac2JsonTest, ReleasesATextThatNoPointerCanBeMadeFor) {
    const boost::shared_ptr<json_t> document = json_pack_shared("[s]", std::string(1'000'000, 'x').c_str());
    const std::size_t before = heapInUse();
    for (int i = 0; i < 3; ++i) {
        const testing_support::FailingAllocations none(0);
        EXPECT_THROW(json_dumps_shared(document), std::bad_alloc);
    }
    EXPECT_LT(heapInUse(), before + 1'000'000);
}

TEST(Rbac2JsonTest, TakesADocumentThatIsNeitherObjectNorArrayForNoMemory) {
    const LogCapture log;
    EXPECT_THROW(json_dumps_shared(json_string_shared("a")), std::bad_alloc);
    EXPECT_THAT(log.lines(), IsEmpty());
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
