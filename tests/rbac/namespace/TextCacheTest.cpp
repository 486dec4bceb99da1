#include <rbac/ObjectNamespace.h>

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// This program puts its own encode_component in front of the library's, to see when texts are computed.

using Tesmor::Arkwell::Rbac::ObjectNamespace;
namespace root_namespaces = Tesmor::Arkwell::Rbac::root_namespaces;
namespace operations = root_namespaces::operations;

namespace {

std::atomic<int> encoded{0};

/// How many components are encoded while `run` runs.
template <class Run>
int encodedDuring(const Run& run) {
    const int before = encoded;
    run();
    return encoded - before;
}

std::vector<std::string> textsOfConstants() {
    const std::vector<const ObjectNamespace*> constants = {&root_namespaces::ARKWELL,
                                                           &root_namespaces::SECURITY,
                                                           &root_namespaces::MANAGE,
                                                           &root_namespaces::PROTECTION,
                                                           &root_namespaces::STORAGE,
                                                           &root_namespaces::DEPLOYMENT,
                                                           &root_namespaces::OBJECT_TYPES,
                                                           &root_namespaces::ASSETS,
                                                           &operations::VIEW,
                                                           &operations::ADD,
                                                           &operations::UPDATE,
                                                           &operations::DELETE_NS,
                                                           &operations::MANAGE_ACCESS};
    std::vector<std::string> texts(constants.size());
    std::transform(constants.begin(), constants.end(), texts.begin(),
                   [](const ObjectNamespace* ns) { return ns->str(); });
    return texts;
}

const std::vector<std::string> EXPECTED = {"|ARKWELL|",
                                           "|SECURITY|",
                                           "|MANAGE|",
                                           "|PROTECTION|",
                                           "|STORAGE|",
                                           "|DEPLOYMENT|",
                                           "|OBJECT_TYPES|",
                                           "|ASSETS|",
                                           "|OPERATIONS|VIEW|",
                                           "|OPERATIONS|ADD|",
                                           "|OPERATIONS|UPDATE|",
                                           "|OPERATIONS|DELETE|",
                                           "|OPERATIONS|MANAGE_ACCESS|"};

// An initialiser of the program, which runs before main().
const std::vector<std::string> TEXTS_BEFORE_MAIN = textsOfConstants();

}  // namespace

std::string Tesmor::Arkwell::Rbac::ObjectNamespace::encode_component(const std::string& component) {
    ++encoded;
    return component;
}

TEST(TextCache, TextIsComputedOnce) {
    const ObjectNamespace ns("A", "B");
    EXPECT_EQ(encodedDuring([&ns] { ns.str(); }), 2);
    EXPECT_EQ(encodedDuring([&ns] { ns.str(); }), 0);
    EXPECT_EQ(encodedDuring([&ns] { ns.toLogStr(); }), 0);
    EXPECT_EQ(encodedDuring([&ns] { boost::lexical_cast<std::string>(ns); }), 0);
}

TEST(TextCache, NothingIsComputedBeforeItIsAskedFor) {
    EXPECT_EQ(encodedDuring([] {
                  const ObjectNamespace ns("A", "B");
                  const ObjectNamespace copy = ns;  // NOLINT(performance-unnecessary-copy-initialization)
                  EXPECT_TRUE(copy == ns);
                  EXPECT_FALSE(copy < ns);
                  EXPECT_TRUE(ns.is_ancestor_of(copy | "C"));
                  EXPECT_TRUE(ns.parentNamespace().is_initialized());
                  EXPECT_EQ(boost::lexical_cast<ObjectNamespace>("|A|B|"), ns);
              }),
              0);
}

TEST(TextCache, CopyTakesTheTextAlong) {
    const ObjectNamespace ns("A", "B");
    ns.str();
    const ObjectNamespace copy = ns;  // NOLINT(performance-unnecessary-copy-initialization)
    ObjectNamespace assigned("C");
    assigned = ns;
    EXPECT_EQ(encodedDuring([&copy] { EXPECT_EQ(copy.str(), "|A|B|"); }), 0);
    EXPECT_EQ(encodedDuring([&assigned] { EXPECT_EQ(assigned.str(), "|A|B|"); }), 0);
}

TEST(TextCache, MoveTakesTheTextAlong) {
    ObjectNamespace ns("A", "B");
    ns.str();
    const ObjectNamespace moved = std::move(ns);
    EXPECT_EQ(encodedDuring([&moved] { EXPECT_EQ(moved.str(), "|A|B|"); }), 0);
}

TEST(TextCache, ChangedComponentsMeanANewText) {
    const ObjectNamespace ns("A", "B");
    ns.str();
    EXPECT_EQ(encodedDuring([&ns] { EXPECT_EQ((ns | "C").str(), "|A|B|C|"); }), 3);
    EXPECT_EQ(encodedDuring([&ns] { EXPECT_EQ((ns | ObjectNamespace("C", "D")).str(), "|A|B|C|D|"); }), 4);
    EXPECT_EQ(encodedDuring([&ns] { EXPECT_EQ(ns.parentNamespace()->str(), "|A|"); }), 1);
}

TEST(TextCache, ConstantsAreReadyForTheInitialisersOfPrograms) {
    EXPECT_EQ(TEXTS_BEFORE_MAIN, EXPECTED);
}

TEST(TextCache, ConstantsHaveTheirTextsFromTheStart) {
    // The texts of eight roots and, with two components each, of five operations; nobody computes them again.
    EXPECT_GE(encoded, 18);
    EXPECT_EQ(encodedDuring([] { EXPECT_EQ(textsOfConstants(), EXPECTED); }), 0);
}

TEST(TextCache, ThreadsShareTheConstants) {
    constexpr int THREADS = 8;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    std::atomic<int> right{0};
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&right] { right += textsOfConstants() == EXPECTED ? 1 : 0; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, THREADS);
}
