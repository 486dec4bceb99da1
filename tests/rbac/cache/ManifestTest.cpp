#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/EC_exception.h>

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>
#include <jansson.h>

#include <filesystem>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using testing_support::LogCapture;
using testing_support::LogLine;
using testing_support::openDescriptorCount;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

namespace {

class ManifestTest : public testing::Test {
protected:
    void write(const std::string& contents) const { writeFile(path_, contents); }

    Manifest load() const { return {"some cache", directory_.path()}; }

    ObjectNamespace loadedNamespace(const std::string& contents) const {
        write(contents);
        return load().objectNamespace();
    }

    /// Loads the manifest, which has to fail with status 12, and checks the one
    /// line that is logged.
    void expectFailure(const std::string& message) {
        log_.clear();
        try {
            load();
            FAIL() << "the manifest was accepted";
        } catch (const EC_exception& failure) {
            EXPECT_EQ(failure.status, 12);
            EXPECT_EQ(failure.what(), getECmsg(12));
        }
        EXPECT_EQ(log_.lines(), (std::vector<LogLine>{{16, "Manifest constructor", message}}));
    }

    /// The message for the file as it is now, with what the parser says about it.
    std::string parserMessage() const {
        json_error_t error{};
        EXPECT_EQ(json_load_file(path_.c_str(), 0, &error), nullptr);
        return "Error loading " + path_ + " at position " + std::to_string(error.position) + ": " + error.text;
    }

    std::string unpackMessage(const std::string& text) const { return "Error loading " + path_ + ": " + text; }

    TemporaryDirectory directory_;
    std::string path_ = directory_ / "manifest.json";
    LogCapture log_;
};

}  // namespace

TEST_F(ManifestTest, HoldsNamespaceNameDirectoryAndPath) {
    write(R"({"namespace": "|ARKWELL|SECURITY|"})");
    const Manifest manifest("the name", directory_.path());
    EXPECT_EQ(manifest.objectNamespace(), ObjectNamespace("ARKWELL", "SECURITY"));
    EXPECT_EQ(manifest.name(), "the name");
    EXPECT_EQ(manifest.directory(), directory_.path());
    EXPECT_EQ(manifest.path(), directory_.path() + "/manifest.json");
}

TEST_F(ManifestTest, SuccessLogsNothing) {
    write(R"({"namespace": "|"})");
    load();
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(ManifestTest, NameIsKeptAsItIs) {
    write(R"({"namespace": "|"})");
    for (const char* name : {"", "../x", "a b|c%"}) {
        EXPECT_EQ(Manifest(name, directory_.path()).name(), name);
    }
}

TEST_F(ManifestTest, RootNamespace) {
    const ObjectNamespace ns = loadedNamespace(R"({"namespace": "|"})");
    EXPECT_TRUE(ns.is_root());
    EXPECT_EQ(ns.str(), "|");
}

TEST_F(ManifestTest, NamespaceIsDecoded) {
    EXPECT_EQ(loadedNamespace(R"({"namespace": "|a+b%7Cc||%e9|"})"), ObjectNamespace("a b|c", "", "\xE9"));
}

TEST_F(ManifestTest, NamespaceHasItsCanonicalText) {
    EXPECT_EQ(loadedNamespace(R"({"namespace": "|a%7cb|%41|"})").str(), "|a%7Cb|A|");
}

TEST_F(ManifestTest, OtherMembersAreIgnored) {
    EXPECT_EQ(loadedNamespace(R"({"version": 3, "namespace": "|A|", "more": {"namespace": 7}, "list": [null]})"),
              ObjectNamespace("A"));
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(ManifestTest, DirectoryWithATrailingSlashGetsASecondOne) {
    write(R"({"namespace": "|A|"})");
    const Manifest manifest("name", directory_.path() + "/");
    EXPECT_EQ(manifest.directory(), directory_.path() + "/");
    EXPECT_EQ(manifest.path(), directory_.path() + "//manifest.json");
    EXPECT_EQ(manifest.objectNamespace(), ObjectNamespace("A"));
}

TEST_F(ManifestTest, IsAValue) {
    write(R"({"namespace": "|A|"})");
    const Manifest original = load();
    write(R"({"namespace": "|B|"})");
    Manifest copy = load();
    EXPECT_EQ(copy.objectNamespace(), ObjectNamespace("B"));
    copy = original;
    const Manifest second(copy);
    EXPECT_EQ(second.objectNamespace(), ObjectNamespace("A"));
    EXPECT_EQ(second.name(), "some cache");
    EXPECT_EQ(second.directory(), directory_.path());
    EXPECT_EQ(second.path(), path_);
}

TEST_F(ManifestTest, MissingFileIsInvalid) {
    expectFailure("Error loading " + path_ + " at position 0: unable to open " + path_ + ": No such file or directory");
}

TEST_F(ManifestTest, MissingDirectoryIsInvalid) {
    const std::string missing = directory_ / "missing";
    EXPECT_THROW(Manifest("name", missing), EC_exception);
    const std::string path = missing + "/manifest.json";
    EXPECT_EQ(log_.lines(), (std::vector<LogLine>{{16, "Manifest constructor",
                                                   "Error loading " + path + " at position 0: unable to open " + path +
                                                       ": No such file or directory"}}));
}

TEST_F(ManifestTest, DirectoryInPlaceOfTheFileIsInvalid) {
    std::filesystem::create_directory(path_);
    expectFailure(parserMessage());
}

TEST_F(ManifestTest, FileThatIsNotJsonIsInvalid) {
    write(R"({"namespace": oops})");
    expectFailure("Error loading " + path_ + " at position 18: invalid token near 'oops'");
}

TEST_F(ManifestTest, EveryKindOfDamageIsReportedAsTheParserSeesIt) {
    for (const char* text : {"", " ", "{", R"({"namespace": "|A|")", R"({"namespace": "|A|"} x)", R"("|A|")", "7",
                             R"({"namespace": "|A)", R"({"namespace": "|\u0000|"})", "{\"namespace\": \"|\xE9|\"}"}) {
        write(text);
        expectFailure(parserMessage());
    }
}

TEST_F(ManifestTest, EmptyObjectIsInvalid) {
    write("{}");
    expectFailure(unpackMessage("Object item not found: namespace"));
}

TEST_F(ManifestTest, KeyIsCaseSensitive) {
    write(R"({"Namespace": "|A|"})");
    expectFailure(unpackMessage("Object item not found: namespace"));
}

TEST_F(ManifestTest, NumberIsNoNamespace) {
    write(R"({"namespace": 7})");
    expectFailure(unpackMessage("Expected string, got integer"));
}

TEST_F(ManifestTest, NullIsNoNamespace) {
    write(R"({"namespace": null})");
    expectFailure(unpackMessage("Expected string, got null"));
}

TEST_F(ManifestTest, ObjectIsNoNamespace) {
    write(R"({"namespace": {"namespace": "|A|"}})");
    expectFailure(unpackMessage("Expected string, got object"));
}

TEST_F(ManifestTest, ArrayIsNoManifest) {
    write(R"(["namespace", "|A|"])");
    expectFailure(unpackMessage("Expected object, got array"));
}

TEST_F(ManifestTest, PercentSignsInThePathAreLoggedAsTheyAre) {
    const std::string directory = directory_ / "100%s%n";
    const std::string path = directory + "/manifest.json";
    writeFile(path, "{}");
    EXPECT_THROW(Manifest("name", directory), EC_exception);
    EXPECT_EQ(log_.lines(), (std::vector<LogLine>{{16, "Manifest constructor",
                                                   "Error loading " + path + ": Object item not found: namespace"}}));
}

TEST_F(ManifestTest, TextThatIsNoNamespacePassesOnTheFailedConversion) {
    for (const char* text : {"", "A", "|A", "A|", " |A|", "|A| ", "|A|\\n", "|%4|", "|%zz|"}) {
        write(R"({"namespace": ")" + std::string(text) + "\"}");
        EXPECT_THROW(load(), boost::bad_lexical_cast) << text;
    }
    EXPECT_EQ(log_.lines(), std::vector<LogLine>());
}

TEST_F(ManifestTest, NoDescriptorIsLeftOpen) {
    const int before = openDescriptorCount();
    EXPECT_THROW(load(), EC_exception);
    for (const char* contents : {"damaged", "{}", R"({"namespace": 7})", R"({"namespace": "A"})"}) {
        write(contents);
        EXPECT_ANY_THROW(load());
    }
    write(R"({"namespace": "|A|"})");
    const Manifest manifest = load();
    EXPECT_EQ(openDescriptorCount(), before);
}
