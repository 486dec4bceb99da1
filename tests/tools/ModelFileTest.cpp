#include "sandbox/CacheWriter.h"
#include "testing/TemporaryDirectory.h"
#include "tools/AccessDiff.h"
#include "tools/ModelFile.h"

#include <rbac/EC_exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::OperationCache;
using Tesmor::Arkwell::Sandbox::AccessModel;
using Tesmor::Arkwell::Sandbox::Grant;
using Tesmor::Arkwell::Sandbox::writeOperationCache;
using Tesmor::Arkwell::Tools::AccessChange;
using Tesmor::Arkwell::Tools::diffAccess;
using Tesmor::Arkwell::Tools::DiffForm;
using Tesmor::Arkwell::Tools::ModelCache;
using Tesmor::Arkwell::Tools::readModelFile;
using testing::ElementsAre;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

namespace {

/// Such as "|A| inherits 5:0 children".
std::string lineOf(const AccessModel& model, std::size_t index) {
    static const char* const SCOPES[] = {" object", " children", " both"};
    const AccessModel::Entry entry = model.entry(index);
    std::string line = std::string(entry.text) + (entry.inherit ? " inherits" : " stops");
    for (const Grant& grant : model.grants(entry.grantList)) {
        line += " " + std::to_string(grant.roleId) + ":" + std::to_string(grant.operationBit) +
                SCOPES[static_cast<int>(grant.scope)];
    }
    return line;
}

class ModelFileTest : public testing::Test {
protected:
    ModelFileTest() {
        writeOperationCache(directory_ / "operations.json", {{ObjectNamespace("OPERATIONS", "VIEW"), 0},
                                                             {ObjectNamespace("OPERATIONS", "UPDATE"), 37}});
    }

    AccessModel read(const std::string& contents) {
        writeFile(path_, contents);
        return readModelFile(path_, operations_);
    }

    std::vector<std::string> linesOf(const std::string& contents) {
        const AccessModel model = read(contents);
        std::vector<std::string> lines;
        for (std::size_t i = 0; i < model.objectCount(); ++i) {
            lines.push_back(lineOf(model, i));
        }
        return lines;
    }

    /// What is said after the file's name.
    std::string refusalOf(const std::string& contents) {
        try {
            read(contents);
        } catch (const std::invalid_argument& refusal) {
            const std::string text = refusal.what();
            return text.compare(0, path_.size(), path_) == 0 ? text.substr(path_.size()) : "without the name: " + text;
        }
        return "none";
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_ / "model.json";
    OperationCache operations_{directory_ / "operations.json"};
};

}  // namespace

TEST_F(ModelFileTest, ReadsADocument) {
    EXPECT_THAT(linesOf(R"({
  "namespace": "|ASSETS|",
  "objects": [
    {"namespace": "|ASSETS|db|", "inherit": true, "accessDefinitions": [
      {"roleId": 2, "propagation": "OBJECT_AND_CHILDREN", "operations": ["|OPERATIONS|VIEW|", "|OPERATIONS|UPDATE|"]},
      {"roleId": -3, "propagation": "OBJECT", "operations": ["|OPERATIONS|VIEW|"]},
      {"roleId": 4, "propagation": "CHILDREN", "operations": ["|OPERATIONS|VIEW|"]}]},
    {"namespace": "|ASSETS|", "inherit": false}
  ]
})"),
                ElementsAre("|ASSETS|db| inherits -3:0 object 2:0 both 2:37 both 4:0 children", "|ASSETS| stops"));
}

TEST_F(ModelFileTest, ReadsADocumentOfOneLine) {
    EXPECT_THAT(linesOf(R"({"namespace": "|", "objects": [{"namespace": "|A|", "inherit": true}]})"),
                ElementsAre("|A| inherits"));
}

TEST_F(ModelFileTest, TheDocumentsNamespaceIsWhatTheCacheCovers) {
    EXPECT_EQ(read(R"({"namespace": "|ASSETS|", "objects": []})").scope, ObjectNamespace("ASSETS"));
}

TEST_F(ModelFileTest, ADocumentWithoutANamespaceCoversEverything) {
    EXPECT_EQ(read(R"({"objects": []})").scope, ObjectNamespace());
}

TEST_F(ModelFileTest, ReadsOneObjectALine) {
    EXPECT_THAT(
        linesOf(
            R"({"namespace": "|A|", "inherit": true, "accessDefinitions": [{"roleId": 2, "propagation": "OBJECT", "operations": ["|OPERATIONS|VIEW|"]}]})"
            "\n\n"
            R"({"namespace": "|A|B|", "inherit": false, "accessDefinitions": []})"
            "\r\n"),
        ElementsAre("|A| inherits 2:0 object", "|A|B| stops"));
}

TEST_F(ModelFileTest, AnOperationMayBeGivenByItsNumber) {
    EXPECT_THAT(linesOf(R"({"namespace": "|A|", "inherit": true, "accessDefinitions": [)"
                        R"({"roleId": 2, "propagation": "OBJECT", "operations": [99]}]})"),
                ElementsAre("|A| inherits 2:99 object"));
}

TEST_F(ModelFileTest, RefusesADocumentThatIsNoJson) {
    EXPECT_EQ(refusalOf("{\"objects\": [\n  {\"namespace\" \"|A|\"}]}"),
              ", line 2, column 20: ':' expected near '\"|A|\"'");
}

TEST_F(ModelFileTest, RefusesALineThatIsNoJson) {
    EXPECT_EQ(refusalOf("{\"namespace\": \"|A|\", \"inherit\": true}\n{\"namespace\": \"|B|\", \"inherit\": tru}\n"),
              ", line 2, column 35: invalid token near 'tru'");
}

TEST_F(ModelFileTest, AnEmptyFileHoldsNoObjects) {
    const AccessModel model = read("");
    EXPECT_EQ(model.objectCount(), 0U);
    EXPECT_EQ(model.scope, ObjectNamespace());
}

TEST_F(ModelFileTest, AFileOfBlankLinesHoldsNoObjects) {
    EXPECT_EQ(read("\n \t\r\n  ").objectCount(), 0U);
}

TEST_F(ModelFileTest, ReadsOneObjectALineAlsoBehindBlankLines) {
    const std::string objects = "\n \r\n{\"namespace\": \"|A|\", \"inherit\": true}\n";
    EXPECT_THAT(linesOf(objects + "{\"namespace\": \"|B|\", \"inherit\": true}\n"),
                ElementsAre("|A| inherits", "|B| inherits"));
    EXPECT_EQ(refusalOf(objects + "{\"namespace\": \"|B|\", \"inherit\": tru}\n"),
              ", line 4, column 35: invalid token near 'tru'");
}

TEST_F(ModelFileTest, CountsBlankLinesBeforeADocument) {
    EXPECT_EQ(refusalOf("\n\n{\"objects\": [\n  {\"namespace\" \"|A|\"}]}"),
              ", line 4, column 20: ':' expected near '\"|A|\"'");
}

TEST_F(ModelFileTest, RefusesADocumentWhoseObjectsAreNoList) {
    EXPECT_EQ(refusalOf(R"({"objects": {}})"), ": objects must be an array");
}

TEST_F(ModelFileTest, RefusesAMemberOfTheDocumentThatItDoesNotKnow) {
    EXPECT_EQ(refusalOf(R"({"objects": [], "roles": []})"), R"(: the document has a member "roles" that is not known)");
}

TEST_F(ModelFileTest, RefusesAMemberOfAnObjectThatItDoesNotKnow) {
    EXPECT_EQ(refusalOf(R"({"objects": [{"namespace": "|A|", "inherits": true}]})"),
              R"(: objects[0] has a member "inherits" that is not known)");
}

TEST_F(ModelFileTest, RefusesAMemberThatIsThereTwice) {
    EXPECT_EQ(refusalOf(R"({"namespace": "|A|", "inherit": true, "inherit": false})"),
              ", line 1, column 47: duplicate object key near '\"inherit\"'");
}

TEST_F(ModelFileTest, RefusesAnObjectWithoutANamespace) {
    EXPECT_EQ(refusalOf(R"({"objects": [{"inherit": true}]})"), ": objects[0].namespace is missing");
}

TEST_F(ModelFileTest, RefusesANameThatIsNoNamespace) {
    EXPECT_EQ(refusalOf(R"({"objects": [{"namespace": "A|B", "inherit": true}]})"),
              ": objects[0].namespace must be a namespace: A|B");
}

TEST_F(ModelFileTest, RefusesAnObjectThatDoesNotSayWhetherItInherits) {
    EXPECT_EQ(refusalOf(R"({"objects": [{"namespace": "|A|"}]})"), ", object |A|: objects[0].inherit is missing");
}

TEST_F(ModelFileTest, RefusesAnInheritThatIsNoTruthValue) {
    EXPECT_EQ(refusalOf(R"({"namespace": "|A|", "inherit": 1})"),
              ", line 1, object |A|: inherit must be true or false");
}

TEST_F(ModelFileTest, RefusesARoleThatIsNoNumber) {
    EXPECT_EQ(refusalOf(R"({"namespace": "|A|", "inherit": true, "accessDefinitions": [)"
                        R"({"roleId": 2147483648, "propagation": "OBJECT", "operations": []}]})"),
              ", line 1, object |A|: accessDefinitions[0].roleId must be an integer of -2147483648 to 2147483647");
}

TEST_F(ModelFileTest, RefusesAnUnknownPropagation) {
    EXPECT_EQ(refusalOf(R"({"objects": [{"namespace": "|A|", "inherit": true, "accessDefinitions": [)"
                        R"({"roleId": 2, "propagation": "ALL", "operations": []}]}]})"),
              ", object |A|: objects[0].accessDefinitions[0].propagation must be OBJECT, CHILDREN or "
              "OBJECT_AND_CHILDREN");
}

TEST_F(ModelFileTest, RefusesAnUnknownOperation) {
    EXPECT_EQ(refusalOf("{\"namespace\": \"|A|\", \"inherit\": true}\n"
                        R"({"namespace": "|B|", "inherit": true, "accessDefinitions": [{"roleId": 2, )"
                        R"("propagation": "OBJECT", "operations": ["|OPERATIONS|VIEW|", "|OPERATIONS|FLY|"]}]})"),
              ", line 2, object |B|: accessDefinitions[0].operations[1] must be an operation that is known, which "
              "|OPERATIONS|FLY| is not");
}

TEST_F(ModelFileTest, RefusesANegativeOperationNumber) {
    EXPECT_EQ(refusalOf(R"({"namespace": "|A|", "inherit": true, "accessDefinitions": [)"
                        R"({"roleId": 2, "propagation": "OBJECT", "operations": [-1]}]})"),
              ", line 1, object |A|: accessDefinitions[0].operations[0] must be an integer of 0 to 2147483647");
}

TEST_F(ModelFileTest, RefusesAnObjectThatIsThereTwice) {
    EXPECT_EQ(
        refusalOf(R"({"objects": [{"namespace": "|A|", "inherit": true}, {"namespace": "|A|", "inherit": true}]})"),
        ", object |A|: objects[1] speaks of an object for the second time");
}

TEST_F(ModelFileTest, AFileThatIsNotThereIsASystemError) {
    try {
        readModelFile(directory_ / "none.json", operations_);
        FAIL();
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code(), std::errc::no_such_file_or_directory);
        EXPECT_STREQ(failure.what(), (directory_ / "none.json: No such file or directory").c_str());
    }
}

TEST_F(ModelFileTest, AFolderIsASystemError) {
    EXPECT_THROW(readModelFile(directory_.path(), operations_), std::system_error);
}

TEST_F(ModelFileTest, WithoutAnOperationCacheOperationsCannotBeNamed) {
    OperationCache missing(directory_ / "missing.json");
    writeFile(path_, R"({"namespace": "|A|", "inherit": true, "accessDefinitions": [)"
                     R"({"roleId": 2, "propagation": "OBJECT", "operations": ["|OPERATIONS|VIEW|"]}]})");
    try {
        readModelFile(path_, missing);
        FAIL();
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 13);
    }
}

TEST_F(ModelFileTest, AModelCacheAnswersAsTheModelSays) {
    const ModelCache before(read(R"({"namespace": "|A|", "inherit": true})"));
    const ModelCache after(read(R"({"namespace": "|A|", "inherit": true, "accessDefinitions": [)"
                                R"({"roleId": 2, "propagation": "OBJECT", "operations": ["|OPERATIONS|UPDATE|"]}]})"));
    std::vector<std::string> changes;
    diffAccess(before.cache(), after.cache(), DiffForm::EVERY_OBJECT, [&](const AccessChange& change) {
        changes.push_back(std::to_string(change.roleId) + ":" + std::to_string(change.operationBit) + " " +
                          std::string(change.objectText));
    });
    EXPECT_THAT(changes, ElementsAre("2:37 |A|"));
}

TEST_F(ModelFileTest, AModelCacheIsPrivateAndLeavesNothingBehind) {
    std::string folder;
    {
        const ModelCache cache(read(R"({"namespace": "|A|", "inherit": true})"));
        folder = std::filesystem::path(cache.cache().manifest_filename()).parent_path();
        struct stat status {};
        ASSERT_EQ(stat(folder.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0700U);
    }
    EXPECT_FALSE(std::filesystem::exists(folder));
}
