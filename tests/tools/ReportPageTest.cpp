#include "Browser.h"
#include "rbac/enforcement/AccessWalk.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"
#include "tools/ReportPage.h"

#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::DiskAccessChecker;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using Tesmor::Arkwell::Rbac::Operation;
using Tesmor::Arkwell::Rbac::detail::CacheAccess;
using Tesmor::Arkwell::Rbac::detail::PathRecord;
using Tesmor::Arkwell::Rbac::detail::RoleTree;
using Tesmor::Arkwell::Rbac::detail::StepOutcome;
using Tesmor::Arkwell::Rbac::detail::walkAccess;
using Tesmor::Arkwell::Tools::ReportHeader;
using Tesmor::Arkwell::Tools::ReportPage;
using Tesmor::Arkwell::Tools::RoleRights;
using testing_support::Grants;
using testing_support::RawCache;
using testing_support::runBesidePage;
using testing_support::TemporaryDirectory;

namespace {

constexpr std::int32_t VIEW = 0;
constexpr std::int32_t ADD = 37;
constexpr int READER = 5;
constexpr int WRITER = 9;
constexpr bool INHERITS = true;
constexpr bool STANDS_ALONE = false;
const Grants NOTHING;

ReportHeader header() {
    ReportHeader header;
    header.scope = "|";
    header.operations = {{VIEW, "|OPERATIONS|VIEW|"}, {ADD, "|OPERATIONS|ADD|"}};
    header.roles = {{READER, "readers"}, {WRITER, "writers"}};
    return header;
}

std::string written(const ReportPage& page) {
    std::ostringstream out;
    page.write(out);
    return out.str();
}

struct Object {
    bool inherits;
    Grants own;
    Grants child;
};
using Objects = std::map<std::string, Object>;  // by text

std::vector<RoleRights> rightsOf(const Grants& grants) {
    std::vector<RoleRights> rights;
    for (const auto& grant : grants) {
        rights.push_back({grant.role, grant.operations});
    }
    return rights;
}

ReportPage pageOf(const Objects& objects, const ReportHeader& header = ::header()) {
    ReportPage page(header);
    for (const auto& [text, object] : objects) {
        page.addObject(text, object.inherits, page.addTree(rightsOf(object.own)), page.addTree(rightsOf(object.child)));
    }
    return page;
}

/// The same objects in an access cache.
class CacheOf {
public:
    explicit CacheOf(const Objects& objects) {
        RawCache files(directory_.path());
        for (const auto& [text, object] : objects) {
            files.put(text, object.inherits ? 1 : 0, object.own, object.child);
        }
        files.write();
        cache_ = boost::make_shared<const AccessCache>(Manifest("all", directory_.path()));
    }

    bool allows(const std::set<int>& roles, std::int32_t operation, const std::string& text) const {
        return DiskAccessChecker(cache_, roles, Operation(operation), 0)
            .checkAccess(boost::lexical_cast<ObjectNamespace>(text.c_str()));
    }

    /// The namespaces that are asked for the object, each with what it says.
    std::string walk(const std::vector<int>& roles, std::int32_t operation, const std::string& text) const {
        const AccessCache::Reader reader = cache_->lock();
        std::string steps;
        walkAccess(CacheAccess::view(reader), text, {roles, operation},
                   [&](const PathRecord& step, RoleTree, StepOutcome outcome) {
                       static const std::map<StepOutcome, std::string> SAID{{StepOutcome::GRANTED, "granted"},
                                                                            {StepOutcome::STOPPED, "stopped"},
                                                                            {StepOutcome::PASSED_ON, ""}};
                       steps += " " + text.substr(0, step.textLength) + SAID.at(outcome);
                   });
        return steps;
    }

private:
    TemporaryDirectory directory_;
    boost::shared_ptr<const AccessCache> cache_;
};

/// A cache in which nothing is like anything else: absent ancestors, bytes that are escaped, names that begin alike.
Objects randomObjects(unsigned seed, std::size_t count) {
    static const std::vector<std::string> COMPONENTS{"A", "AB", "A.B", "A|B", "\xC3\xA9", "\xE9", "a b", "", "%41"};
    std::mt19937 engine(seed);
    const auto below = [&engine](std::size_t limit) { return engine() % limit; };
    const auto rights = [&below] {
        static const std::vector<std::int32_t> ROLES{-3, 1, 2, 3, READER, WRITER};
        static const std::vector<std::int32_t> BITS{VIEW, 1, 31, 32, ADD};
        std::map<std::int32_t, std::set<std::int32_t>> chosen;
        for (std::size_t i = below(4); i > 0; --i) {
            chosen[ROLES[below(ROLES.size())]].insert(BITS[below(BITS.size())]);
        }
        Grants grants;
        for (const auto& [role, bits] : chosen) {
            grants.push_back({role, {bits.begin(), bits.end()}});
        }
        return grants;
    };
    Objects objects;
    while (objects.size() < count) {
        ObjectNamespace name;
        for (std::size_t i = below(5); i > 0; --i) {
            name = name | COMPONENTS[below(COMPONENTS.size())];
        }
        objects[name.str()] = {below(3) != 0, rights(), rights()};
    }
    return objects;
}

/// The objects and every namespace on the way to them.
std::set<std::string> nodesOf(const Objects& objects) {
    std::set<std::string> nodes{"|"};
    for (const auto& [text, object] : objects) {
        for (std::size_t bar = text.find('|', 1); bar != std::string::npos; bar = text.find('|', bar + 1)) {
            nodes.insert(text.substr(0, bar + 1));
        }
    }
    return nodes;
}

struct Question {
    std::set<int> roles;
    std::int32_t operation;
};

const std::vector<Question> QUESTIONS{
    {{READER}, VIEW}, {{WRITER}, ADD}, {{-3, 1, 2}, 31}, {{1, 2, 3, READER, WRITER}, 32},
    {{77}, VIEW},     {{}, VIEW},      {{3}, 1}};

std::string listed(const std::set<int>& roles) {
    std::string list;
    for (const int role : roles) {
        list += (list.empty() ? "" : ",") + std::to_string(role);
    }
    return list;
}

/// A script that asks every question in turn and adds what `perQuestion` makes of each.
std::string askAll(const std::string& perQuestion) {
    std::string script = "find('#open-all').click();\nconst lines = [];\n";
    const std::map<std::int32_t, std::string> names = header().operations;
    for (const Question& question : QUESTIONS) {
        const auto name = names.find(question.operation);
        const std::string key = name == names.end() ? std::to_string(question.operation) : name->second;
        script += "{\nchoose([" + listed(question.roles) + "], '";
        script += key + "');\n";
        script += perQuestion + "}\n";
    }
    return script + "return lines.join('\\n');";
}

constexpr int ROOM_FOR_ALL_ROWS = 12000;

/// A small cache for explanations. The folder is in no record.
Objects office() {
    return {{"|A|", {STANDS_ALONE, {{READER, {VIEW}}}, {{READER, {VIEW}}, {WRITER, {VIEW, ADD}}}}},
            {"|A|folder|file|", {INHERITS, {{WRITER, {ADD}}}, NOTHING}},
            {"|A|folder|secret|", {STANDS_ALONE, NOTHING, NOTHING}},
            {"|B|", {INHERITS, NOTHING, NOTHING}}};
}

std::string explained(const std::string& fragment) {
    return runBesidePage(pageOf(office()), "return steps().join('\\n');", {fragment});
}

}  // namespace

TEST(ReportPage, AnswersAsACheckerOverTheCacheDoes) {
    const Objects objects = randomObjects(1, 120);
    const CacheOf cache(objects);
    std::string expected;
    for (const Question& question : QUESTIONS) {
        for (const std::string& text : nodesOf(objects)) {
            expected += text + (cache.allows(question.roles, question.operation, text) ? " yes\n" : " no\n");
        }
    }
    const std::string answers = runBesidePage(
        pageOf(objects),
        askAll("lines.push(...rows().map((row) => row.text + (row.answer === 'Denied' ? ' no' : ' yes')).sort());\n"),
        {"", ROOM_FOR_ALL_ROWS});
    EXPECT_EQ(answers + "\n", expected);
}

TEST(ReportPage, ExplainsTheWalkThatACheckerTakes) {
    const Objects objects = randomObjects(2, 50);
    const CacheOf cache(objects);
    std::string expected;
    for (const Question& question : QUESTIONS) {
        const std::vector<int> roles(question.roles.begin(), question.roles.end());
        for (const std::string& text : nodesOf(objects)) {
            const std::string steps = cache.walk(roles, question.operation, text);
            const bool isGranted = steps.size() > 7 && steps.substr(steps.size() - 7) == "granted";
            const bool isOwn = steps == " " + text + "granted";
            expected += text;
            expected += isOwn ? " Allowed by own right:" : isGranted ? " Allowed from above:" : " Denied:";
            expected += steps + "\n";
        }
    }
    const std::string walks = runBesidePage(pageOf(objects), askAll(R"js(
        press("Home");
        const walks = [];
        for (let last = ""; last !== find("#asked .text").textContent; press("ArrowDown")) {
            last = find("#asked .text").textContent;
            const asked = all("#steps li:not(.absent)").filter((step) => step.querySelector("button"));
            const said = asked.map((step) => " " + step.querySelector("button").textContent + step.className);
            walks.push(last + " " + find("#verdict").lastChild.textContent + ":" + said.join(""));
        }
        lines.push(...walks.sort());
    )js"));
    EXPECT_EQ(walks + "\n", expected);
}

TEST(ReportPage, ExplainsARightOnTheObjectItself) {
    EXPECT_EQ(explained("#roles=5,9&operation=%7COPERATIONS%7CADD%7C&object=|A|folder|file|"),
              "Allowed by own right\n"
              "|A|folder|file|\n"
              "ADD for role 5 (readers) and role 9 (writers)\n"
              "|A|folder|file|\n"
              "Rights on the object itself: granted by role 9 (writers).\n"
              "Inherits: yes.\n"
              "Granted here, so the walk ends: allowed.");
}

TEST(ReportPage, ExplainsARightFromAbovePastWhatIsNotInTheCache) {
    EXPECT_EQ(explained("#roles=5,9&operation=%7COPERATIONS%7CVIEW%7C&object=|A|folder|file|"),
              "Allowed from above\n"
              "|A|folder|file|\n"
              "VIEW for role 5 (readers) and role 9 (writers)\n"
              "|A|folder|file|\n"
              "Rights on the object itself: none of the roles holds it.\n"
              "Inherits: yes.\n"
              "Nothing is granted, so the next namespace above is asked.\n"
              "|A|folder|\n"
              "Not in the cache, so it is passed over.\n"
              "|A|\n"
              "Rights on what is below it: granted by role 5 (readers) and role 9 (writers).\n"
              "Inherits: no.\n"
              "Granted here, so the walk ends: allowed.");
}

TEST(ReportPage, ExplainsAWalkThatEndsWhereNothingIsInherited) {
    EXPECT_EQ(explained("#roles=5&operation=%7COPERATIONS%7CVIEW%7C&object=|A|folder|secret|"),
              "Denied\n"
              "|A|folder|secret|\n"
              "VIEW for role 5 (readers)\n"
              "|A|folder|secret|\n"
              "Rights on the object itself: none of the roles holds it.\n"
              "Inherits: no.\n"
              "Nothing is granted and nothing is inherited, so the walk ends: denied.");
}

TEST(ReportPage, ExplainsAWalkBeyondTheRoot) {
    EXPECT_EQ(explained("#roles=&operation=%7COPERATIONS%7CVIEW%7C&object=|B|"),
              "Denied\n"
              "|B|\n"
              "VIEW for nobody: no role is chosen\n"
              "|B|\n"
              "Rights on the object itself: none of the roles holds it.\n"
              "Inherits: yes.\n"
              "Nothing is granted, so the next namespace above is asked.\n"
              "|\n"
              "Not in the cache, so it is passed over.\n"
              "Above the root there is nothing left to ask: denied.");
}

TEST(ReportPage, LetsRole0DoEverything) {
    EXPECT_EQ(explained("#roles=0,5&operation=%7COPERATIONS%7CADD%7C&object=|A|folder|secret|"),
              "Allowed by role 0\n"
              "|A|folder|secret|\n"
              "ADD for role 0 and role 5 (readers)\n"
              "Role 0 may do everything: the cache is not asked.");
}

TEST(ReportPage, DeniesAnUnknownOperationToRole0Too) {
    EXPECT_EQ(explained("#roles=0&operation=%7COPERATIONS%7CPLAY%7C&object=|A|"),
              "Denied\n"
              "|A|\n"
              "|OPERATIONS|PLAY| for role 0\n"
              "The operation is not known, so it is denied everywhere.");
}

TEST(ReportPage, SaysThatAnObjectIsNotInTheReport) {
    EXPECT_EQ(explained("#roles=5&operation=%7COPERATIONS%7CVIEW%7C&object=|A|folder|none|"),
              "Not in this report\n|A|folder|none|");
}

TEST(ReportPage, ShowsNamespacesWithoutARecordAsSuch) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        find("#open-all").click();
        return rows().map((row) => [row.label, ...row.tags].join("; ")).join("\n");
    )js"),
              "| (root); not in the cache\n"
              "A; does not inherit\n"
              "folder; not in the cache\n"
              "file\n"
              "secret; does not inherit\n"
              "B");
}

TEST(ReportPage, CountsWhatIsAllowedBelowEachNamespace) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        choose([5], "|OPERATIONS|VIEW|");
        return [...all(".share"), ...all("#answers button:not([hidden])")].map((part) => part.textContent).join("\n");
    )js"),
              "2 of 4 allowed\n2 of 3 allowed\n\u27131allowed by own right\n\u21911allowed from above\n\u27152denied");
}

TEST(ReportPage, SortsNamesAsPeopleDo) {
    // By their texts "a.b" and "a-b" come before "a".
    const Object any{INHERITS, NOTHING, NOTHING};
    EXPECT_EQ(runBesidePage(pageOf({{"|a|", any}, {"|a.b|", any}, {"|a-b|", any}, {"|a|c|", any}}), R"js(
        find("#open-all").click();
        return rows().map((row) => row.text).join("\n");
    )js"),
              "|\n|a|\n|a|c|\n|a-b|\n|a.b|");
}

TEST(ReportPage, ShowsHostileNamesAsTextAndRunsNothing) {
    const std::string hostile = "</script><!--<script><img src=x onerror=\"window.ran=1\">'\"\\%3C\xC3\xA9&amp;";
    const std::string object = (ObjectNamespace("A") | hostile).str();
    ReportHeader header;
    header.scope = hostile;
    header.operations = {{VIEW, hostile}};
    header.roles = {{READER, hostile}};
    const Objects objects{{object, {INHERITS, {{READER, {VIEW}}}, NOTHING}}};
    EXPECT_EQ(runBesidePage(pageOf(objects, header),
                            R"js(
        find("#open-all").click();
        all(".row")[2].click();
        const spoilt = window.ran !== undefined || all("img").length > 0 || all("script").length !== 2;
        return [spoilt, all(".row .name")[2].textContent, all("#roles span")[2].textContent,
                find("#operation").textContent].join("\n");
    )js"),
              "false\n" + hostile + "\n" + hostile + "\n" + hostile);
}

TEST(ReportPage, DoesNotDecodeNamesThatAreNoTextOrTurnTextAbout) {
    const Object any{INHERITS, NOTHING, NOTHING};
    const std::string rightToLeft =
        "\xE2\x80" + std::string(1, '\xAE');  // apart, lest this line be turned about itself
    const std::vector<std::string> names{"\xE9", "a\nb", "a" + rightToLeft + "."};
    Objects objects{{"|%41|", any}, {"|a\x01<|", any}, {"||", any}};
    for (const std::string& name : names) {
        objects[ObjectNamespace(name).str()] = any;
    }
    EXPECT_EQ(runBesidePage(pageOf(objects), "return rows().slice(1).map((row) => row.label).join('\\n');"),
              "%41\n%E9\n(empty)\na%01<\na%0Ab\na%E2%80%AE.");
}

TEST(ReportPage, LoadsNothing) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        await wait();
        return [rows().length, window.performance.getEntriesByType("resource")];
    )js"),
              "[3,[]]");
}

TEST(ReportPage, ForbidsItselfToLoadAndToRunAnythingElse) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        const refused = [];
        const page = window.document;
        page.addEventListener("securitypolicyviolation", (event) => refused.push(event.violatedDirective));
        const add = (tag, attributes) => page.body.append(Object.assign(page.createElement(tag), attributes));
        add("script", { textContent: "window.ran = true;" });
        add("script", { src: "file:///none.js" });
        add("style", { textContent: "body { color: red; }" });
        add("img", { src: "http://127.0.0.1:9/none.png" });
        add("iframe", { src: "http://127.0.0.1:9/" });
        window.fetch("http://127.0.0.1:9/").catch(() => {});
        await wait();
        return [window.ran === undefined, ...refused.sort()];
    )js"),
              R"js([true,"connect-src","frame-src","img-src","script-src-elem","script-src-elem","style-src-elem"])js");
}

TEST(ReportPage, FindsNamesInAnyCaseAndOpensTheWayToThem) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        type(find("#find"), "SEC");
        return [find("#found").textContent, ...rows().map((row) => row.text)].join("\n");
    )js"),
              "1 found\n|\n|A|\n|A|folder|\n|A|folder|secret|");
}

TEST(ReportPage, FindsPartsOfTexts) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        type(find("#find"), "|a|folder|f");
        return [find("#found").textContent, ...rows().map((row) => row.text)].join("\n");
    )js"),
              "1 found\n|\n|A|\n|A|folder|\n|A|folder|file|");
}

TEST(ReportPage, ShowsOnlyTheAnswersThatAreAskedFor) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        choose([5], "|OPERATIONS|VIEW|");
        all("#answers button")[1].click();
        return rows().map((row) => row.text).join("\n");
    )js"),
              "|\n|A|\n|A|folder|\n|A|folder|file|");
}

TEST(ReportPage, FollowsTheKeys) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        const lines = [];
        for (const key of ["ArrowDown", "ArrowDown", "ArrowRight", "ArrowRight", "Enter", "ArrowDown", "ArrowDown",
                           "ArrowLeft", "ArrowLeft", "End", "Home", "PageDown", "ArrowUp"]) {
            press(key);
            lines.push(key + " " + rows().find((row) => row.isSelected).text + " of " + rows().length);
        }
        return lines.join("\n");
    )js"),
              "ArrowDown | of 3\n"
              "ArrowDown |A| of 3\n"
              "ArrowRight |A| of 4\n"
              "ArrowRight |A|folder| of 4\n"
              "Enter |A|folder| of 6\n"
              "ArrowDown |A|folder|file| of 6\n"
              "ArrowDown |A|folder|secret| of 6\n"
              "ArrowLeft |A|folder| of 6\n"
              "ArrowLeft |A|folder| of 4\n"
              "End |B| of 4\n"
              "Home | of 4\n"
              "PageDown |B| of 4\n"
              "ArrowUp |A|folder| of 4");
}

TEST(ReportPage, KeepsTheViewInItsLink) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        choose([5, 77], "|OPERATIONS|ADD|");
        find("#open-all").click();
        all(".row")[3].click();
        await wait();
        return window.location.hash;
    )js"),
              "#roles=5,77&operation=%7COPERATIONS%7CADD%7C&object=%7CA%7Cfolder%7Cfile%7C");
}

TEST(ReportPage, RestoresTheViewFromALink) {
    EXPECT_EQ(runBesidePage(pageOf(office()), R"js(
        const view = () => [find("#operation").value, all("#chosen button").map((chip) => chip.ariaLabel).join(", "),
                            rows().filter((row) => row.isSelected).map((row) => row.text).join()];
        const first = view();
        window.location.hash = "#roles=9&operation=%7COPERATIONS%7CVIEW%7C&object=|B|";
        await wait();
        return [...first, ...view()].join("\n");
    )js",
                            {"#roles=5,-7&operation=%7COPERATIONS%7CADD%7C&object=%7CA%7Cfolder%7Csecret%7C"}),
              "|OPERATIONS|ADD|\nDrop role -7, Drop role 5 (readers)\n|A|folder|secret|\n"
              "|OPERATIONS|VIEW|\nDrop role 9 (writers)\n|B|");
}

TEST(ReportPage, ReadsAPlusInALinkAsItself) {
    EXPECT_EQ(runBesidePage(pageOf({{"|a+b|", {INHERITS, NOTHING, NOTHING}}}),
                            "return rows().find((row) => row.isSelected).label;", {"#object=|a+b|"}),
              "a b");
}

TEST(ReportPage, ListsAllRightsAtAnObject) {
    EXPECT_EQ(runBesidePage(pageOf({{"|A|", {INHERITS, {{READER, {VIEW, 31}}, {77, {ADD}}}, NOTHING}}}), R"js(
        find("#rights").open = true;
        await wait();
        return all("#tables caption, #tables td").map((cell) => cell.textContent).join("\n");
    )js",
                            {"#object=|A|"}),
              "On the object itself\nrole 5 (readers)\nVIEW, operation 31\nrole 77\nADD\n"
              "On what is below it: nobody has any");
}

TEST(ReportPage, PrintsRowsThatAreOutOfView) {
    EXPECT_EQ(runBesidePage(pageOf(randomObjects(3, 120)), R"js(
        find("#open-all").click();
        const seen = rows().length;
        window.dispatchEvent(new Event("beforeprint"));
        const printed = rows().length;
        window.dispatchEvent(new Event("afterprint"));
        return [seen < printed, printed, rows().length === seen];
    )js"),
              "[true," + std::to_string(nodesOf(randomObjects(3, 120)).size()) + ",true]");
}

TEST(ReportPage, StaysSmallWithAHundredThousandObjects) {
    ReportPage page(header());
    const std::size_t all = page.addTree({{READER, {VIEW}}, {WRITER, {VIEW, ADD}}});
    const std::size_t few = page.addTree({{WRITER, {ADD}}});
    for (int folder = 10000; folder < 11000; ++folder) {
        for (int file = 100; file < 200; ++file) {
            const std::string text = "|ASSETS|folder" + std::to_string(folder) + "|file" + std::to_string(file);
            const bool isOdd = file % 2 != 0;
            page.addObject(text + "|", file % 10 != 0, isOdd ? all : ReportPage::NO_RIGHTS, few);
        }
    }
    EXPECT_LT(written(page).size(), 5'000'000U);
    const std::string result = runBesidePage(page, R"js(
        const times = [];
        const timed = (what, action) => {
            const begin = performance.now();
            action();
            times.push(what + " " + Math.round(performance.now() - begin) + " ms");
        };
        const loaded = window.performance.getEntriesByType("navigation")[0].domComplete;
        timed("open all", () => find("#open-all").click());
        const isSmall = rows().length < 60;
        timed("find", () => type(find("#find"), "file15"));
        const found = find("#found").textContent;
        timed("find in texts", () => type(find("#find"), "r10000|file1"));
        timed("show all", () => type(find("#find"), ""));
        timed("role", () => find('#roles input[value="9"]').click());
        timed("operation", () => choose([9], "|OPERATIONS|ADD|"));
        const count = find("#answers b").textContent;
        press("Home");
        timed("end", () => press("End"));
        const last = rows().at(-1).text;
        return [isSmall, found, count, last, "loaded in " + Math.round(loaded) + " ms, " + times.join(", ")]
            .join("\n");
    )js",
                                             {"#roles=5", 900, false});
    const std::size_t figures = result.rfind('\n');
    EXPECT_EQ(result.substr(0, figures), "true\n10,000 found\n50,000\n|ASSETS|folder10999|file199|");
    std::cout << "100,000 objects, " << written(page).size() << " bytes: " << result.substr(figures + 1) << "\n";
}

TEST(ReportPage, StatesTheFactsOfTheCache) {
    ReportHeader header = ::header();
    header.publishedAt = std::chrono::system_clock::time_point(std::chrono::milliseconds(1'795'253'408'123));
    header.publication = 1234;
    header.grantCount = 56;
    EXPECT_EQ(runBesidePage(pageOf(office(), header), R"js(return find("#facts").innerText.replace(/\n+/g, " ");)js"),
              "Scope | Written 2026-11-21 09:30:08.123Z Publication 1,234 Objects 4 Access definitions 56");
}

TEST(ReportPage, ShowsACacheWithoutObjects) {
    EXPECT_EQ(
        runBesidePage(ReportPage(ReportHeader{}), "return rows();"),
        R"js([{"text":"|","label":"| (root)","answer":"Denied","tags":["not in the cache"],"isSelected":false}])js");
}

TEST(ReportPage, StoresEqualTreesOnce) {
    ReportPage page(header());
    const std::size_t first = page.addTree({{READER, {VIEW, ADD}}});
    EXPECT_NE(page.addTree({{READER, {VIEW}}}), first);
    EXPECT_EQ(page.addTree({{READER, {VIEW, ADD}}}), first);
    EXPECT_EQ(page.addTree({}), ReportPage::NO_RIGHTS);
}

TEST(ReportPage, IsWrittenTheSameEachTime) {
    EXPECT_EQ(written(pageOf(office())), written(pageOf(office())));
}

TEST(ReportPage, RefusesATextThatIsNoNamespace) {
    ReportPage page(header());
    for (const char* const text : {"", "A|", "|A"}) {
        try {
            page.addObject(text, INHERITS, ReportPage::NO_RIGHTS, ReportPage::NO_RIGHTS);
            FAIL() << text;
        } catch (const std::invalid_argument& failure) {
            EXPECT_STREQ(failure.what(), "not the text of a namespace");
        }
    }
}

TEST(ReportPage, RefusesObjectsOutOfOrder) {
    ReportPage page(header());
    page.addObject("|B|", INHERITS, ReportPage::NO_RIGHTS, ReportPage::NO_RIGHTS);
    for (const char* const text : {"|A|", "|B|", "|"}) {
        try {
            page.addObject(text, INHERITS, ReportPage::NO_RIGHTS, ReportPage::NO_RIGHTS);
            FAIL() << text;
        } catch (const std::invalid_argument& failure) {
            EXPECT_STREQ(failure.what(), "the objects are not in the order of their texts");
        }
    }
}

TEST(ReportPage, RefusesATreeThatIsNotThere) {
    ReportPage page(header());
    EXPECT_THROW(page.addObject("|A|", INHERITS, 1, ReportPage::NO_RIGHTS), std::out_of_range);
    EXPECT_THROW(page.addObject("|A|", INHERITS, ReportPage::NO_RIGHTS, 1), std::out_of_range);
}
