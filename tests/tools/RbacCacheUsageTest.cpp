#include "CommandRun.h"
#include "sandbox/CacheWriter.h"
#include "testing/ChildProcess.h"
#include "testing/ProcessState.h"
#include "testing/RawCache.h"

#include <platform/FileLock.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <thread>

// What all subcommands of rbac-cache have in common.

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testing_support::CacheCommandTest;
using testing_support::ChildProcess;
using testing_support::CommandRun;
using testing_support::runProgram;
using testing_support::writeFile;

namespace {

class RbacCacheUsageTest : public CacheCommandTest {
protected:
    /// That the words are refused, with this message.
    void expectUsageError(const std::vector<std::string>& words, const std::string& message) const {
        const CommandRun result = run(words);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, StartsWith("rbac-cache: " + message));
    }

    /// That the cache is damaged, with this as the first fault.
    void expectDamaged(const std::vector<std::string>& words, const std::string& fault) const {
        expectUnusable(words, cache() + " is damaged: " + fault + ". All faults: rbac-cache verify --cache " + cache());
    }

    /// That the cache, or something else, cannot be used.
    void expectUnusable(const std::vector<std::string>& words, const std::string& message) const {
        EXPECT_EQ(run(words), (CommandRun{3, "", "rbac-cache: " + message + "\n"}));
    }
};

const std::vector<std::string> CHECK{"check", "VIEW", "|ASSETS|", "--roles", "5"};

std::vector<std::string> with(std::vector<std::string> words, const std::vector<std::string>& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

}  // namespace

TEST_F(RbacCacheUsageTest, RefusesCommandLinesThatMakeNoSense) {
    const std::string hint = "\nrbac-cache --help shows what there is.\n";
    EXPECT_EQ(runProgram({RBAC_CACHE}), (CommandRun{2, "", "rbac-cache: A subcommand is required" + hint}));
    EXPECT_EQ(runProgram({RBAC_CACHE, "shw"}),
              (CommandRun{2, "", "rbac-cache: The following argument was not expected: shw" + hint}));
    expectUsageError({"ls", "--colour", "never"}, "The following argument was not expected: --colour" + hint);
    expectUsageError({"check", "VIEW"}, "object is required" + hint);
    expectUsageError({"check", "VIEW", "|ASSETS|"}, "say for whom: either --roles or --token\n");
    expectUsageError({"check", "VIEW", "|ASSETS|", "--roles", "5", "--token", "-"},
                     "say for whom: either --roles or --token\n");
    expectUsageError({"check", "VIEW", "|ASSETS|", "--roles", "5,x"}, "Could not convert: --roles = 5,x" + hint);
    expectUsageError({"ls", "--depth", "-1"}, "--depth: ");
    expectUsageError({"ls", "--color", "green"}, "--color: ");
}

TEST_F(RbacCacheUsageTest, SaysHowObjectsAndOperationsAreWritten) {
    expectUsageError({"ls", "ASSETS"},
                     "\"ASSETS\" is no object; write it as in |ASSETS|db+1|, in quotes for the shell\n");
    expectUsageError({"ls", "|ASSETS"}, "\"|ASSETS\" is no object; ");
    expectUsageError({"ls", "|%G|"}, "\"|%G|\" is no object; ");
    expectUsageError({"who-can", "|VIEW", "|"},
                     "\"|VIEW\" is no operation; write it as in VIEW or |OPERATIONS|VIEW|\n");
}

TEST_F(RbacCacheUsageTest, ShowsNoControlCharactersOfTheCommandLine) {
    expectUsageError({"ls", "\x1B[2Jx\xFFü"}, "\"\\x1B[2Jx\\xFFü\" is no object; ");
    expectUsageError({"\x1B[2J"}, "The following argument was not expected: \\x1B[2J\n");
}

TEST_F(RbacCacheUsageTest, ShowsItsVersion) {
    EXPECT_EQ(runProgram({RBAC_CACHE, "--version"}), (CommandRun{0, "rbac-cache 1.0.0\n", ""}));
}

TEST_F(RbacCacheUsageTest, TakesOptionsBeforeTheArguments) {
    const auto answer = [this](const std::vector<std::string>& words) {
        return runProgram(
            with({RBAC_CACHE}, with({words.front(), "--cache", cache()}, {words.begin() + 1, words.end()})));
    };
    const CommandRun allowed{0, "allowed\n", ""};
    EXPECT_EQ(answer({"check", "--roles", "5", "VIEW", "|ASSETS|"}), allowed);
    EXPECT_EQ(answer({"check", "--roles", "11,5", "VIEW", "|ASSETS|"}), allowed);
    EXPECT_EQ(answer({"check", "--roles", "11", "VIEW", "--roles", "5", "|ASSETS|"}), allowed);
    EXPECT_EQ(answer({"check", "--roles=11,5", "VIEW", "|ASSETS|"}), allowed);
    EXPECT_EQ(answer({"what-can", "--roles", "5", "|ASSETS|"}), (CommandRun{0, "ADD\nVIEW\n", ""}));
    EXPECT_EQ(answer({"list", "--roles", "5,9", "UPDATE", "|ASSETS|web|"}),
              (CommandRun{0, "|ASSETS|web|eu|a%2F|\n", ""}));
    EXPECT_EQ(answer({"list", "UPDATE", "--roles", "5,9", "|ASSETS|web|"}),
              (CommandRun{0, "|ASSETS|web|eu|a%2F|\n", ""}));
}

TEST_F(RbacCacheUsageTest, RefusesWhatIsNoCache) {
    const auto refusal = [](const std::string& message) { return CommandRun{3, "", "rbac-cache: " + message + "\n"}; };
    const auto list = [](const std::string& path) { return runProgram({RBAC_CACHE, "ls", "--cache", path}); };
    const std::string folder = directory_ / "published";
    EXPECT_EQ(list(folder), refusal(folder + " is no access cache: none of the files of one is in it"));
    const std::string missing = directory_ / "none";
    EXPECT_EQ(list(missing), refusal("cannot open " + missing + ": No such file or directory"));
    const std::string file = cache() + "/objects";
    EXPECT_EQ(list(file), refusal("cannot look into " + file + ": Not a directory"));
}

TEST_F(RbacCacheUsageTest, RefusesACacheWithoutOneOfItsFiles) {
    std::filesystem::remove(cache() + "/nodes");
    expectDamaged(CHECK, "nodes, byte 0: cannot be opened: No such file or directory");
    expectUnusable(with(CHECK, {"--trust"}), "cannot open " + cache() + "/nodes: No such file or directory");
    std::filesystem::create_directory(cache() + "/nodes");
    expectDamaged(CHECK, "nodes, byte 0: is no regular file");
    expectUnusable(with(CHECK, {"--trust"}), cache() + "/nodes is no regular file");
}

TEST_F(RbacCacheUsageTest, RefusesACacheWithADamagedManifest) {
    writeFile(cache() + "/manifest.json", "{");
    expectDamaged(CHECK, "manifest.json, byte 0: is no JSON object with a text \"namespace\"");
    expectUnusable(with(CHECK, {"--trust"}),
                   cache() + ": a file cannot be opened or is not valid (status 12): Error loading " + cache() +
                       "/manifest.json at position 1: string or '}' expected near end of file");
    writeFile(cache() + "/manifest.json", R"({"namespace": "ASSETS"})");
    expectDamaged(CHECK, "manifest.json, byte 0: its \"namespace\" is not the text of one");
    expectUnusable(with(CHECK, {"--trust"}), cache() + "/manifest.json names no namespace");
}

TEST_F(RbacCacheUsageTest, ReadsNoManifestThatCannotBeOne) {
    const std::string manifest = cache() + "/manifest.json";
    std::filesystem::resize_file(manifest, (16U << 20U) + 1);
    expectDamaged(CHECK, "manifest.json, byte 0: has 16777217 bytes, and none needs more than 16777216");
    expectUnusable(with(CHECK, {"--trust"}), manifest + " has 16777217 bytes, and none needs more than 16777216");
    std::filesystem::remove(manifest);
    expectDamaged(CHECK, "manifest.json, byte 0: cannot be opened: No such file or directory");
    expectUnusable(with(CHECK, {"--trust"}), "cannot open " + manifest + ": No such file or directory");
    ASSERT_EQ(mkfifo(manifest.c_str(), 0600), 0);
    // Reading a fifo that nobody writes to would not end.
    const auto withinSeconds = [this](const std::vector<std::string>& words) {
        return runProgram(with({"timeout", "20", RBAC_CACHE}, with(words, {"--cache", cache()})));
    };
    EXPECT_EQ(withinSeconds(CHECK),
              (CommandRun{3, "",
                          "rbac-cache: " + cache() +
                              " is damaged: manifest.json, byte 0: is no regular file. All faults: rbac-cache verify "
                              "--cache " +
                              cache() + "\n"}));
    EXPECT_EQ(withinSeconds(with(CHECK, {"--trust"})),
              (CommandRun{3, "", "rbac-cache: " + manifest + " is no regular file\n"}));
}

TEST_F(RbacCacheUsageTest, RefusesACacheWhoseWriterWasInterrupted) {
    std::string metadata = testing_support::readFile(cache() + "/metadata");
    metadata[20] = 1;
    testing_support::overwriteFile(cache() + "/metadata", metadata);
    const std::string fault = "metadata, byte 20: the writing flag is 1: a publication was interrupted";
    expectDamaged(CHECK, fault);
    expectDamaged({"ls"}, fault);
    expectUnusable(with(CHECK, {"--trust"}),
                   cache() +
                       ": a file cannot be opened or is not valid (status 12): A previous write on cache | was "
                       "interrupted. Assuming invalid.");
}

TEST_F(RbacCacheUsageTest, FindsTheOperationsInTheCachesFolderOrAboveIt) {
    const auto operations = [this](const std::string& folder) { return published(folder + "/operation-cache.json"); };
    std::filesystem::rename(operations("."), operations("access-caches"));
    EXPECT_EQ(run(CHECK).status, 0);
    std::filesystem::rename(operations("access-caches"), operations("access-caches/all"));
    EXPECT_EQ(run(CHECK).status, 0);
    EXPECT_EQ(runProgram(with({RBAC_CACHE, "--cache", cache() + "/"}, {})).status, 2);
    EXPECT_EQ(runProgram(with({RBAC_CACHE}, with(CHECK, {"--cache", cache() + "///"}))).status, 0);
    std::filesystem::rename(operations("access-caches/all"), directory_ / "elsewhere");
    expectUnusable(CHECK, "there is no operation-cache.json in " + cache() +
                              " or in the two folders above it; name one with --operations");
    EXPECT_EQ(run(with(CHECK, {"--operations", directory_ / "elsewhere"})).status, 0);
}

TEST_F(RbacCacheUsageTest, RefusesOperationsThatItCannotRead) {
    const std::string file = published("operation-cache.json");
    writeFile(file, "{");
    expectUnusable(CHECK, file +
                              ": a file cannot be read (status 13): Error loading operation cache: string or '}' "
                              "expected near end of file");
    writeFile(file, R"({"VIEW": 1})");
    expectUnusable(CHECK, file + " names an operation by a text that is no namespace");
    writeFile(file, R"({"|OPERATIONS|VIEW|": 2147483648})");
    expectUnusable(CHECK, file + " holds a number that does not fit into 32 bits");
    expectUnusable(with(CHECK, {"--operations", directory_ / "none"}),
                   "cannot open " + (directory_ / "none") + ": No such file or directory");
}

TEST_F(RbacCacheUsageTest, ColoursTheAnswerOnlyWhenItIsToldTo) {
    EXPECT_EQ(run(with(CHECK, {"--color", "always"})).out, "\x1B[32mallowed\x1B[0m\n");
    EXPECT_EQ(run(with(CHECK, {"--color", "auto"})).out, "allowed\n");
    EXPECT_EQ(run(with(CHECK, {"--color", "never"})).out, "allowed\n");
    EXPECT_EQ(run({"check", "UPDATE", "|", "--roles", "5", "--color", "always"}).out, "\x1B[31mdenied\x1B[0m\n");
    EXPECT_THAT(run(with(CHECK, {"--color", "always", "--json"})).out, Not(HasSubstr("\x1B")));
}

TEST_F(RbacCacheUsageTest, ColoursTheAnswerOnATerminalUnlessTheEnvironmentForbidsIt) {
    // script(1) gives the command a terminal.
    const auto onTerminal = [this](const std::map<std::string, std::string>& environment) {
        const std::string command =
            std::string(RBAC_CACHE) + " check VIEW '|ASSETS|' --roles 5 --cache '" + cache() + "'";
        return runProgram({"script", "-qec", command, "/dev/null"}, environment).out;
    };
    EXPECT_EQ(onTerminal({{"TERM", "xterm"}, {"NO_COLOR", ""}}), "\x1B[32mallowed\x1B[0m\r\n");
    EXPECT_EQ(onTerminal({{"TERM", "xterm"}, {"NO_COLOR", "1"}}), "allowed\r\n");
    EXPECT_EQ(onTerminal({{"TERM", "dumb"}, {"NO_COLOR", ""}}), "allowed\r\n");
}

TEST_F(RbacCacheUsageTest, SaysOnATerminalThatItTakesLongAndTakesThatBack) {
    ChildProcess writer([this] {
        const FileLockGuard publishing(FileLockManager::instance().getLock(cache() + "/manifest.json"),
                                       FileLockGuard::EXCLUSIVE, -1, FileLock::DEFAULT_INTERVAL);
        writeFile(directory_ / "locked", "");
        std::this_thread::sleep_for(std::chrono::seconds(4));
        return 0;
    });
    while (!std::filesystem::exists(directory_ / "locked")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const std::string command = std::string(RBAC_CACHE) + " ls --depth 0 --cache '" + cache() + "'";
    const std::string shown = runProgram({"script", "-qec", command, "/dev/null"}, {{"TERM", "dumb"}}).out;
    EXPECT_THAT(shown, StartsWith("\rrbac-cache ls: 1 s\r"));
    EXPECT_THAT(shown, EndsWith("\r\x1B[K|  inherits; 2: VIEW (object and children)\r\n"));
}

TEST_F(RbacCacheUsageTest, ShowsTheLibrarysLogWhenItIsToldTo) {
    EXPECT_EQ(run({"check", "VEIW", "|", "--roles", "5", "--verbose"}).err,
              "[4] MemoryMap: instantiating memory map for " + cache() + "/metadata\n" +
                  "[4] MemoryMap: instantiating memory map for " + cache() + "/objects\n" +
                  "[4] MemoryMap: instantiating memory map for " + cache() + "/nodes\n" +
                  "[4] MemoryMap: instantiating memory map for " + cache() + "/segments\n" +
                  "[8] OperationCache::operator[]: Operation |OPERATIONS|VEIW| not found in cache; reloading from "
                  "disk\n"
                  "[16] OperationCache::operator[]: Operation |OPERATIONS|VEIW| still not found in cache\n"
                  "rbac-cache: there is no operation |OPERATIONS|VEIW|, so it is denied to everybody everywhere\n"
                  "[8] OperationCache::operator[]: Operation |OPERATIONS|VEIW| not found in cache; reloading from "
                  "disk\n"
                  "[16] OperationCache::operator[]: Operation |OPERATIONS|VEIW| still not found in cache\n");
}

TEST_F(RbacCacheUsageTest, SaysThatItsOutputCannotBeWritten) {
    ChildProcess child([&] {
        const int full = open("/dev/full", O_WRONLY);
        dup2(full, STDOUT_FILENO);
        freopen((directory_ / "err").c_str(), "w", stderr);
        execl(RBAC_CACHE, RBAC_CACHE, "ls", "--cache", cache().c_str(), nullptr);
        return 127;
    });
    EXPECT_EQ(child.wait(), 3);
    EXPECT_EQ(testing_support::readFile(directory_ / "err"),
              "rbac-cache: cannot write the output: No space left on device\n");
}

namespace {

/// A cache with output that no pipe holds.
class RbacCacheLongOutputTest : public RbacCacheUsageTest {
protected:
    static constexpr int OBJECTS = 5000;

    RbacCacheLongOutputTest() {
        using namespace Tesmor::Arkwell::Sandbox;
        AccessModel model;
        for (int i = 0; i < OBJECTS; ++i) {
            model.add({ObjectNamespace("ASSETS", "an object with a long name " + std::to_string(OBJECTS + i))});
        }
        CacheWriter(cache()).publish(model);
    }
};

}  // namespace

TEST_F(RbacCacheLongOutputTest, LetsTheServicePublishWhileNobodyReadsItsOutput) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    ChildProcess child([&] {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execl(RBAC_CACHE, RBAC_CACHE, "ls", "--cache", cache().c_str(), nullptr);
        return 127;
    });
    close(ends[1]);
    std::string output(1, ' ');
    ASSERT_EQ(read(ends[0], output.data(), 1), 1);  // it has begun to print, and cannot end
    EXPECT_TRUE(testing_support::fileLockIsFree(cache() + "/manifest.json"));
    std::array<char, 65536> chunk{};
    for (ssize_t count = 0; (count = read(ends[0], chunk.data(), chunk.size())) > 0;) {
        output.append(chunk.data(), static_cast<std::size_t>(count));
    }
    close(ends[0]);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(testing_support::linesOf(output).size(), OBJECTS);
    EXPECT_EQ(output.substr(0, output.find("2|")),
              "|ASSETS|an+object+with+a+long+name+5000|  inherits\n"
              "|ASSETS|an+object+with+a+long+name+5001|  inherits\n"
              "|ASSETS|an+object+with+a+long+name+500");
}

TEST_F(RbacCacheLongOutputTest, HoldsItsOutputBackInTmpWhereTheEnvironmentNamesNoFolder) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const ChildProcess child([&] {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        setenv("TMPDIR", "", 1);
        execl(RBAC_CACHE, RBAC_CACHE, "ls", "--cache", cache().c_str(), nullptr);
        return 127;
    });
    close(ends[1]);
    char first = 0;
    ASSERT_EQ(read(ends[0], &first, 1), 1);  // it has begun to print, and cannot end
    std::vector<std::string> held;
    const std::string descriptors = "/proc/" + std::to_string(child.pid()) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(descriptors)) {
        const std::string target = std::filesystem::read_symlink(entry.path());
        if (target.find("/rbac-cache.") != std::string::npos) {
            held.push_back(target);
        }
    }
    close(ends[0]);
    EXPECT_THAT(held, testing::ElementsAre(StartsWith("/tmp/rbac-cache.")));
}

TEST_F(RbacCacheLongOutputTest, SaysThatItCannotHoldItsOutputBack) {
    const CommandRun result = run({"ls"}, {{"TMPDIR", directory_ / "none"}});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, StartsWith("rbac-cache: cannot make " + (directory_ / "none/rbac-cache.")));
    EXPECT_THAT(result.err, EndsWith(": No such file or directory\n"));
}

TEST_F(RbacCacheLongOutputTest, LeavesNothingInTheFolderForTemporaryFiles) {
    std::filesystem::create_directory(directory_ / "tmp");
    EXPECT_EQ(run({"ls"}, {{"TMPDIR", directory_ / "tmp"}}).status, 0);
    EXPECT_TRUE(std::filesystem::is_empty(directory_ / "tmp"));
}
