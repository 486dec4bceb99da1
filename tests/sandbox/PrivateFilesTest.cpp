#include "sandbox/PrivateFiles.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

using namespace Tesmor::Arkwell::Sandbox;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

namespace {

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

template <class Failure, class Call>
std::string messageOf(Call call) {
    try {
        call();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "nothing was thrown";
}

}  // namespace

TEST(PrivateFilesTest, MakesAFolderForItsOwnerOnly) {
    const TemporaryDirectory directory;
    makePrivateFolder(directory / "a/b");
    EXPECT_EQ(modeOf(directory / "a/b"), 0700U);
}

TEST(PrivateFilesTest, TakesAFolderThatIsPrivateAlready) {
    const TemporaryDirectory directory;
    makePrivateFolder(directory / "a");
    makePrivateFolder(directory / "a");
    EXPECT_EQ(modeOf(directory / "a"), 0700U);
}

TEST(PrivateFilesTest, RefusesAFolderThatOthersMayEnter) {
    const TemporaryDirectory directory;
    const std::string path = directory / "a";
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    ASSERT_EQ(chmod(path.c_str(), 0750), 0);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { makePrivateFolder(path); }),
              path + " is open to others than its owner; take their permissions away first");
}

TEST(PrivateFilesTest, RefusesWhateverOthersMayDoSomethingWith) {
    const TemporaryDirectory directory;
    const std::string path = directory / "database";
    writeFile(path, "text");
    for (const mode_t mode : {0640U, 0620U, 0610U, 0604U, 0602U, 0601U}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(messageOf<std::runtime_error>([&] { requirePrivate(path); }),
                  path + " is open to others than its owner; take their permissions away first");
    }
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_NO_THROW(requirePrivate(path));
    EXPECT_EQ(messageOf<std::system_error>([&] { requirePrivate(directory / "none"); }),
              "cannot look at " + (directory / "none") + ": No such file or directory");
}

TEST(PrivateFilesTest, WritesASecretForItsOwnerOnly) {
    const TemporaryDirectory directory;
    replaceFile(directory / "a/secret", "text", Readers::OWNER);
    EXPECT_EQ(modeOf(directory / "a/secret"), 0600U);
    EXPECT_EQ(readPrivateFile(directory / "a/secret"), "text");
}

TEST(PrivateFilesTest, WritesAFileForEverybody) {
    const TemporaryDirectory directory;
    replaceFile(directory / "file", "text", Readers::EVERYBODY);
    EXPECT_EQ(modeOf(directory / "file"), 0644U);
}

TEST(PrivateFilesTest, ReplacesAFileThatWasOpenToOthers) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "before");
    ASSERT_EQ(chmod((directory / "file").c_str(), 0666), 0);
    replaceFile(directory / "file", "after", Readers::OWNER);
    EXPECT_EQ(modeOf(directory / "file"), 0600U);
    EXPECT_EQ(readPrivateFile(directory / "file"), "after");
}

TEST(PrivateFilesTest, WritesAFileInTheWorkingFolder) {
    const TemporaryDirectory directory;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory.path());
    EXPECT_NO_THROW(replaceFile("file", "text", Readers::OWNER));
    std::filesystem::current_path(before);
    EXPECT_EQ(readPrivateFile(directory / "file"), "text");
}

TEST(PrivateFilesTest, RefusesASecretThatOthersMayRead) {
    const TemporaryDirectory directory;
    writeFile(directory / "secret", "text");
    for (const mode_t mode : {0640U, 0604U, 0620U}) {
        ASSERT_EQ(chmod((directory / "secret").c_str(), mode), 0);
        EXPECT_EQ(messageOf<std::runtime_error>([&] { readPrivateFile(directory / "secret"); }),
                  directory / "secret" + " is open to others than its owner; take their permissions away first");
    }
}

TEST(PrivateFilesTest, NamesAFileThatIsMissing) {
    const TemporaryDirectory directory;
    EXPECT_EQ(messageOf<std::system_error>([&] { readPrivateFile(directory / "none"); }),
              "cannot read " + (directory / "none") + ": No such file or directory");
}
