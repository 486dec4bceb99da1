#include "sandbox/AccessService.h"
#include "sandbox/CacheImageModel.h"
#include "sandbox/PrivateFiles.h"
#include "sandbox/ServiceError.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <cctype>
#include <filesystem>
#include <stdexcept>
#include <string>

// This program's encode_component escapes single bytes only, so that names of more become texts that no namespace has
// by the rules for single bytes.

namespace Rbac = Tesmor::Arkwell::Rbac;
using namespace Tesmor::Arkwell::Sandbox;
using testing::ElementsAre;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::TemporaryDirectory;

std::string Rbac::ObjectNamespace::encode_component(const std::string& component) {
    const bool isPlain = std::isalnum(static_cast<unsigned char>(component[0])) != 0 || component[0] == '_';
    return component.size() != 1 || isPlain ? component : "%3F";
}

namespace {

/// What is said of a cache that has |\xE9\xE9|, whose segment is at `offset`.
std::string refusalAt(const std::string& offset) {
    return "the new cache is not sound: segments at " + offset +
           R"(, object "|\xE9\xE9|": segment E9E97C00 holds the byte E9, which no text does)";
}

AccessModel modelWith(const char* name) {
    AccessModel model;
    model.add({ObjectNamespace(name), true, ObjectState::READY, {{3, 5, GrantScope::OBJECT}}});
    return model;
}

CacheWriterOptions verifying() {
    CacheWriterOptions options;
    options.verify = true;
    return options;
}

template <class Call>
std::string refusalOf(const Call& call) {
    try {
        call();
    } catch (const std::runtime_error& refusal) {
        return refusal.what();
    }
    return "accepted";
}

}  // namespace

TEST(RequireSound, AcceptsASoundImage) {
    EXPECT_NO_THROW(CacheImage::build(modelWith("A")).requireSound());
}

TEST(RequireSound, RefusesADamagedImage) {
    CacheImage image = CacheImage::build(modelWith("A"));
    image.nodes[2].right = 4800;
    EXPECT_EQ(refusalOf([&] { image.requireSound(); }),
              "the new cache is not sound: nodes at 60, object \"|A|\": the right offset 4800 leads beyond the 3 "
              "records of nodes");
}

TEST(VerifiedPublication, OfWhatIsSoundIsMade) {
    const TemporaryDirectory directory;
    EXPECT_EQ(CacheWriter(directory / "cache", verifying()).publish(modelWith("A")).objects, 1U);
}

TEST(VerifiedPublication, OfWhatIsNotSoundTouchesNothing) {
    const TemporaryDirectory directory;
    const CacheWriter writer(directory / "cache", verifying());
    EXPECT_EQ(refusalOf([&] { writer.publish(modelWith("\xE9\xE9")); }), refusalAt("80"));
    EXPECT_FALSE(std::filesystem::exists(directory / "cache"));
}

TEST(VerifiedPublication, IsMadeOnlyWhereItIsWanted) {
    const TemporaryDirectory directory;
    EXPECT_EQ(CacheWriter(directory / "cache").publish(modelWith("\xE9\xE9")).objects, 1U);
}

TEST(VerifiedPublication, OfTheServiceThatIsRefusedHasFailed) {
    const LogCapture log;
    const TemporaryDirectory directory;
    replaceFile(directory / "state.db", "", Readers::OWNER);
    AccessService service(directory / "state.db", directory / "published", verifying());
    const auto before = sandbox_testing::filesIn(directory / "published/access-caches/all");
    try {
        service.change([](StateChange& change) {
            change.tables.objects.add({"|%E9%E9|", "asset"});
            change.touch("|%E9%E9|");
        });
        FAIL() << "it was published";
    } catch (const ServiceError& error) {
        EXPECT_EQ(error.kind().code, 5502);
        EXPECT_THAT(error.details(), ElementsAre(refusalAt("176")));
    }
    EXPECT_EQ(sandbox_testing::filesIn(directory / "published/access-caches/all").segments, before.segments);
    EXPECT_THAT(log.linesAt(16),
                ElementsAre(LogLine{16, "AccessService::change", "Cannot publish: " + refusalAt("176")}));
}
