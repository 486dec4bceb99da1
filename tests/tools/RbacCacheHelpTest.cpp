#include "CommandRun.h"

#include <gmock/gmock.h>

#include <regex>
#include <set>

// What people are told of rbac-cache: its help, its manual page, and what their shell completes.

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;
using testing_support::CacheCommandTest;
using testing_support::CommandRun;
using testing_support::linesOf;
using testing_support::readFile;
using testing_support::runProgram;

namespace {

constexpr char MANUAL[] = RBAC_CACHE_SOURCES "/rbac-cache.1";
constexpr char COMPLETION[] = RBAC_CACHE_SOURCES "/rbac-cache.bash";

std::string helpOf(const std::vector<std::string>& words) {
    std::vector<std::string> command{RBAC_CACHE};
    command.insert(command.end(), words.begin(), words.end());
    command.emplace_back("--help");
    const CommandRun result = runProgram(command);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return result.out;
}

/// What the pattern's parentheses match in each line that it matches.
std::set<std::string> found(const std::string& text, const std::string& pattern) {
    std::set<std::string> names;
    for (const std::string& line : linesOf(text)) {
        std::smatch match;
        if (std::regex_search(line, match, std::regex(pattern))) {
            names.insert(match[1]);
        }
    }
    return names;
}

std::set<std::string> subcommands() {
    const std::string help = helpOf({});
    return found(help.substr(help.find("Subcommands:")), "^  ([a-z-]+) ");
}

/// Its long options.
std::set<std::string> optionsOf(const std::string& subcommand) {
    return found(helpOf({subcommand}), "^  (?:-.,)?(--[a-z-]+)");
}

class RbacCacheHelpTest : public CacheCommandTest {
protected:
    /// What the shell offers for the last of the words, after "rbac-cache".
    std::vector<std::string> complete(const std::vector<std::string>& words) const {
        std::string line;
        for (const std::string& word : words) {
            line += " " + quoted(word);
        }
        const std::string script = "source " + quoted(COMPLETION) + "; COMP_WORDS=(" + quoted(RBAC_CACHE) + line +
                                   "); COMP_CWORD=" + std::to_string(words.size()) +
                                   "; _rbac_cache; printf '%s\\n' \"${COMPREPLY[@]}\"";
        const CommandRun result = runProgram({"bash", "--norc", "-c", script});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        std::vector<std::string> offered = linesOf(result.out);
        if (offered == std::vector<std::string>{""}) {
            offered.clear();
        }
        return offered;
    }

private:
    static std::string quoted(const std::string& word) {
        return "'" + std::regex_replace(word, std::regex("'"), "'\\''") + "'";
    }
};

}  // namespace

TEST_F(RbacCacheHelpTest, ShowsTheSubcommandsAndTheExitCodes) {
    EXPECT_THAT(subcommands(), Contains("explain"));
    EXPECT_THAT(helpOf({}), HasSubstr("\nExit codes:\n"
                                      "  0  yes; or the list, which may be empty\n"
                                      "  1  check, explain: denied; diff: there are differences; verify: there are "
                                      "faults\n"
                                      "  2  the command line makes no sense\n"
                                      "  3  the cache or another file cannot be used\n"));
}

TEST_F(RbacCacheHelpTest, ShowsExamplesOfEachSubcommand) {
    for (const std::string& subcommand : subcommands()) {
        EXPECT_THAT(helpOf({subcommand}), HasSubstr("\nExamples:\n  rbac-cache " + subcommand));
    }
}

TEST_F(RbacCacheHelpTest, OffersJsonWithEachSubcommand) {
    for (const std::string& subcommand : subcommands()) {
        EXPECT_THAT(optionsOf(subcommand), AllOf(Contains("--json"), Contains("--color"))) << subcommand;
    }
}

TEST_F(RbacCacheHelpTest, DescribesEachSubcommandAndOptionInTheManual) {
    // In its source, a hyphen that is not to become a dash has a backslash before it.
    const std::string manual = std::regex_replace(readFile(MANUAL), std::regex(R"(\\-)"), "-");
    const auto heading = [](const std::string& name) {
        return testing::ContainsRegex("\n\\.(B|BI|BR) [^\n]*" + name + "([ \"\n])");
    };
    for (const std::string& subcommand : subcommands()) {
        EXPECT_THAT(manual, heading(subcommand));
        for (const std::string& option : optionsOf(subcommand)) {
            EXPECT_THAT(manual, heading(option)) << subcommand;
        }
    }
}

TEST_F(RbacCacheHelpTest, HasAManualThatIsSetWithoutWarnings) {
    EXPECT_EQ(runProgram({"groff", "-man", "-ww", "-z", MANUAL}), (CommandRun{0, "", ""}));
}

TEST_F(RbacCacheHelpTest, IsCompletedByTheShell) {
    const CommandRun result =
        runProgram({"bash", "--norc", "-c", "source " + std::string(COMPLETION) + "; complete -p rbac-cache"});
    EXPECT_EQ(result, (CommandRun{0, "complete -F _rbac_cache rbac-cache\n", ""}));
}

TEST_F(RbacCacheHelpTest, CompletesSubcommands) {
    std::set<std::string> all = subcommands();
    all.insert({"--help", "--version"});
    EXPECT_THAT(complete({""}), UnorderedElementsAreArray(all));
    EXPECT_THAT(complete({"wh"}), ElementsAre("who-can", "what-can"));
}

TEST_F(RbacCacheHelpTest, CompletesTheOptionsOfEachSubcommand) {
    for (const std::string& subcommand : subcommands()) {
        EXPECT_THAT(complete({subcommand, "-"}), UnorderedElementsAreArray(optionsOf(subcommand))) << subcommand;
    }
    EXPECT_THAT(complete({"ls", "--d"}), ElementsAre("--depth"));
    EXPECT_THAT(complete({"ls", "--color", "a"}), ElementsAre("auto", "always"));
}

TEST_F(RbacCacheHelpTest, CompletesOperations) {
    EXPECT_THAT(complete({"check", "--cache", cache(), ""}), ElementsAre("ADD", "UPDATE", "VIEW"));
    EXPECT_THAT(complete({"who-can", "--cache", cache(), "V"}), ElementsAre("VIEW"));
}

TEST_F(RbacCacheHelpTest, CompletesAfterAnOptionWithAnEqualsSign) {
    // Readline splits a word at the sign.
    EXPECT_THAT(complete({"who-can", "--cache", "=", cache(), ""}), ElementsAre("ADD", "UPDATE", "VIEW"));
    EXPECT_THAT(complete({"who-can", "--cache", "=", cache(), "VIEW", "'|S"}), ElementsAre("|STORAGE|"));
    EXPECT_THAT(complete({"who-can", "--cache=" + cache(), ""}), ElementsAre("ADD", "UPDATE", "VIEW"));
    EXPECT_THAT(complete({"ls", "--cache", "=", directory_ / "p"}), ElementsAre(directory_ / "published"));
    EXPECT_THAT(complete({"ls", "--color", "="}), ElementsAre("auto", "always", "never"));
}

TEST_F(RbacCacheHelpTest, CompletesObjectsLevelByLevel) {
    EXPECT_THAT(complete({"ls", "--cache", cache(), ""}), ElementsAre("'|ASSETS|", "'|STORAGE|"));
    EXPECT_THAT(complete({"check", "--cache", cache(), "VIEW", "'|ASSETS|d"}), ElementsAre("|ASSETS|db+1|"));
    EXPECT_THAT(complete({"ls", "--cache", cache(), "'|ASSETS|"}), ElementsAre("|ASSETS|db+1|", "|ASSETS|web|"));
    EXPECT_THAT(complete({"tree", "--cache", cache(), "\"|S"}), ElementsAre("|STORAGE|"));
    EXPECT_THAT(complete({"ls", "--cache", directory_ / "none", ""}), IsEmpty());
}

TEST_F(RbacCacheHelpTest, CompletesFiles) {
    testing_support::writeFile(directory_ / "page.html", "");
    EXPECT_THAT(complete({"diff", directory_ / "pa"}), ElementsAre(directory_ / "page.html"));
    EXPECT_THAT(complete({"ls", "--operations", directory_ / "pa"}), ElementsAre(directory_ / "page.html"));
    EXPECT_THAT(complete({"ls", "--cache", directory_ / "p"}), ElementsAre(directory_ / "published"));
}
