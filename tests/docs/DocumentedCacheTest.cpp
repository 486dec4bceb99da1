#include "sandbox/CacheWriter.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace Tesmor::Arkwell::Sandbox {
namespace {

using testing_support::readFile;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

constexpr std::int32_t VIEW = 0;
constexpr std::int32_t UPDATE = 2;
const ObjectNamespace FOLDER("A");
const ObjectNamespace OBJECT("A", "host");

/// A byte of a dump; none where the page shows "..".
using Byte = std::optional<unsigned char>;

/// The page with the example, docs/cache-format.md.
class ExamplePage {
public:
    /// The bytes that the page shows of a file.
    std::vector<Byte> dump(const std::string& file) const {
        std::vector<Byte> bytes;
        std::istringstream lines(block(file, "hex"));
        const std::regex form("[0-9a-f]{4}((?: (?:[0-9a-f]{2}|\\.\\.))+)(?:  .*)?");
        for (std::string line; std::getline(lines, line);) {
            std::smatch parts;
            EXPECT_TRUE(std::regex_match(line, parts, form)) << line;
            std::istringstream words(parts[1]);
            for (std::string word; words >> word;) {
                bytes.push_back(word == ".." ? Byte() : static_cast<unsigned char>(std::stoi(word, nullptr, 16)));
            }
        }
        return bytes;
    }

    /// The text of the block that is said to be this file.
    std::string block(const std::string& file, const std::string& language) const {
        const std::string opening = "<!-- is: " + file + " -->\n```" + language + "\n";
        const std::size_t begin = text_.find(opening);
        EXPECT_NE(begin, std::string::npos) << opening;
        const std::size_t first = begin + opening.size();
        return text_.substr(first, text_.find("```", first) - first);
    }

    const std::string& text() const { return text_; }

private:
    std::string text_ = readFile(ARKWELL_DOCS "/cache-format.md");
};

/// The access that the page describes.
AccessModel model() {
    AccessModel access((ObjectNamespace()));
    access.add({FOLDER,
                false,
                ObjectState::READY,
                {{5, VIEW, GrantScope::OBJECT_AND_CHILDREN}, {7, UPDATE, GrantScope::CHILDREN}}});
    access.add({OBJECT, true, ObjectState::READY});
    return access;
}

class DocumentedCacheTest : public testing::Test {
protected:
    /// The page's bytes as a cache on disk.
    std::string cacheOfPage() const {
        std::string folder = temporary_ / "page";
        std::filesystem::create_directory(folder);
        for (const char* file : {"metadata", "objects", "nodes", "segments"}) {
            std::string bytes;
            for (const Byte& byte : page_.dump(file)) {
                bytes += static_cast<char>(byte.value_or(0));
            }
            writeFile(folder + "/" + file, bytes);
        }
        writeFile(folder + "/manifest.json", page_.block("manifest.json", "json"));
        return folder;
    }

    const TemporaryDirectory temporary_;
    const ExamplePage page_{};
};

TEST_F(DocumentedCacheTest, ShowsWhatTheWriterWrites) {
    CacheWriter(temporary_ / "cache").publish(model());
    for (const std::string file : {"metadata", "objects", "nodes", "segments"}) {
        const std::string written = readFile(temporary_ / "cache" + "/" + file);
        const std::vector<Byte> shown = page_.dump(file);
        ASSERT_EQ(shown.size(), written.size()) << file;
        for (std::size_t i = 0; i < shown.size(); ++i) {
            if (shown[i]) {
                EXPECT_EQ(*shown[i], static_cast<unsigned char>(written[i])) << file << " at " << i;
            }
        }
    }
    EXPECT_EQ(page_.block("manifest.json", "json"), readFile(temporary_ / "cache" + "/manifest.json") + "\n");
}

TEST_F(DocumentedCacheTest, LeavesOutOnlyTheTimeOfThePublication) {
    std::vector<std::size_t> open;
    const std::vector<Byte> shown = page_.dump("metadata");
    for (std::size_t i = 0; i < shown.size(); ++i) {
        if (!shown[i]) {
            open.push_back(i);
        }
    }
    EXPECT_EQ(open, (std::vector<std::size_t>{40, 41, 42, 43, 44, 45, 46, 47}));
}

TEST_F(DocumentedCacheTest, ReadsAtEachStepWhatIsThere) {
    std::istringstream lines(page_.text());
    const std::regex form("\\| (\\d+) \\| `(\\w+)` \\| 0x([0-9a-f]+) \\| 0x([0-9a-f]+) \\|.*");
    std::size_t steps = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, form)) {
            continue;
        }
        EXPECT_EQ(std::stoul(parts[1]), ++steps);
        const std::vector<Byte> bytes = page_.dump(parts[2]);
        const std::size_t offset = std::stoul(parts[3], nullptr, 16);
        ASSERT_LE(offset + 4, bytes.size()) << line;
        unsigned long value = 0;
        for (std::size_t i = 4; i-- > 0;) {
            value = value << 8U | *bytes[offset + i];
        }
        EXPECT_EQ(value, std::stoul(parts[4], nullptr, 16)) << line;
    }
    EXPECT_EQ(steps, 20U);
}

TEST_F(DocumentedCacheTest, IsReadAsThePageSays) {
    const Rbac::AccessCache cache(Rbac::Manifest("example", cacheOfPage()));
    const Rbac::AccessCache::Reader reader = cache.lock();
    EXPECT_NE(reader.lookup(OBJECT), nullptr);
    EXPECT_EQ(reader.lookup(ObjectNamespace()), nullptr);
    EXPECT_FALSE(reader.getOperationBit(OBJECT, 5, Rbac::Operation(VIEW)));
    EXPECT_TRUE(reader.getOperationBit(FOLDER, 5, Rbac::Operation(VIEW)));
    EXPECT_TRUE(reader.getChildOperationBit(FOLDER, 5, Rbac::Operation(VIEW)));
    EXPECT_TRUE(reader.getChildOperationBit(FOLDER, 7, Rbac::Operation(UPDATE)));
    EXPECT_FALSE(reader.getOperationBit(FOLDER, 7, Rbac::Operation(UPDATE)));
}

}  // namespace
}  // namespace Tesmor::Arkwell::Sandbox
