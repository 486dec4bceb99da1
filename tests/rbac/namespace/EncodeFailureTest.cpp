#include "../../../rbac/rest/Rbac2Json.h"
#include "platform/SettingsFixture.h"
#include "testing/LogCapture.h"
#include "testing/ScriptedHttp.h"

#include <rbac/AccessControlClient.h>
#include <rbac/EC_exception.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectNamespace.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <sstream>
#include <stdexcept>
#include <string>

// This program puts its own encode_component in front of the library's, and lets it fail.

using Tesmor::Arkwell::Rbac::AccessControlClient;
using Tesmor::Arkwell::Rbac::namespaceToString;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using testing_support::LogCapture;
using testing_support::LogLine;
namespace root_namespaces = Tesmor::Arkwell::Rbac::root_namespaces;

namespace {

enum class Failure { NONE, STATUS, OTHER };

// It fails from the start, so the library is loaded with it failing.
Failure failure = Failure::STATUS;
std::string failing;  // only this component fails; empty: every one
bool loaded = false;
bool calledWhileLoading = false;

class EncodeFailure : public testing::Test {
protected:
    void SetUp() override { letFail(Failure::NONE); }
    void TearDown() override { letFail(Failure::NONE); }

    static void letFail(Failure kind, const std::string& component = "") {
        failure = kind;
        failing = component;
    }

    /// A namespace that has latched the text of failure.
    static ObjectNamespace latched() {
        letFail(Failure::STATUS);
        ObjectNamespace ns("A", "B");
        ns.toLogStr();
        letFail(Failure::NONE);
        return ns;
    }
};

}  // namespace

std::string Tesmor::Arkwell::Rbac::ObjectNamespace::encode_component(const std::string& component) {
    calledWhileLoading = calledWhileLoading || !loaded;
    // The library is loaded before this program's own strings are made.
    if (failure != Failure::NONE && (!loaded || failing.empty() || failing == component)) {
        if (failure == Failure::STATUS) {
            throw EC_exception(4711);
        }
        throw std::runtime_error("no text today");
    }
    return "<" + component + ">";
}

namespace {

// Runs with this program's other initialisers: after the library's, before any test.
const bool LOADED = (loaded = true);

}  // namespace

TEST_F(EncodeFailure, ProgramsFunctionIsTheOneThatTheLibraryCalls) {
    EXPECT_EQ(ObjectNamespace("A", "B").str(), "|<A>|<B>|");
}

TEST_F(EncodeFailure, LibraryLoadsAndItsConstantsAreGood) {
    ASSERT_TRUE(LOADED);
    ASSERT_TRUE(calledWhileLoading);
    EXPECT_EQ(root_namespaces::ARKWELL, ObjectNamespace("ARKWELL"));
    EXPECT_EQ(root_namespaces::operations::DELETE_NS, ObjectNamespace("OPERATIONS", "DELETE"));
}

TEST_F(EncodeFailure, ConstantGetsItsTextWhenThatIsPossibleAgain) {
    letFail(Failure::STATUS);
    EXPECT_THROW(root_namespaces::STORAGE.str(), EC_exception);
    letFail(Failure::NONE);
    EXPECT_EQ(root_namespaces::STORAGE.str(), "|<STORAGE>|");
}

TEST_F(EncodeFailure, StrPassesTheFailureOn) {
    letFail(Failure::STATUS);
    const ObjectNamespace ns("A");
    try {
        ns.str();
        FAIL() << "str() made a text";
    } catch (const EC_exception& thrown) {
        EXPECT_EQ(thrown.status, 4711);
    }
}

TEST_F(EncodeFailure, StrLeavesNoHalfText) {
    const ObjectNamespace ns("A", "B");
    letFail(Failure::STATUS, "B");
    EXPECT_THROW(ns.str(), EC_exception);
    letFail(Failure::NONE);
    EXPECT_EQ(ns.str(), "|<A>|<B>|");
}

TEST_F(EncodeFailure, ComputedTextIsServedAllTheSame) {
    const ObjectNamespace ns("A");
    ASSERT_EQ(ns.str(), "|<A>|");
    letFail(Failure::STATUS);
    EXPECT_EQ(ns.str(), "|<A>|");
    EXPECT_EQ(ns.toLogStr(), "|<A>|");
}

TEST_F(EncodeFailure, RootNeedsNoEncoding) {
    letFail(Failure::STATUS);
    EXPECT_EQ(ObjectNamespace().str(), "|");
    EXPECT_EQ(ObjectNamespace().toLogStr(), "|");
}

TEST_F(EncodeFailure, LogTextSaysThatTheConversionFailed) {
    letFail(Failure::STATUS);
    EXPECT_EQ(ObjectNamespace("A").toLogStr(), "[conversion failed]");
}

TEST_F(EncodeFailure, LogTextLatches) {
    const ObjectNamespace ns = latched();
    EXPECT_EQ(ns.toLogStr(), "[conversion failed]");
    EXPECT_EQ(ns.str(), "[conversion failed]");
}

TEST_F(EncodeFailure, LatchedTextIsWrittenToStreams) {
    std::ostringstream out;
    out << latched();
    EXPECT_EQ(out.str(), "[conversion failed]");
    EXPECT_TRUE(out.good());
}

TEST_F(EncodeFailure, LatchedTextIsWhatNamespaceToStringGives) {
    std::string out;
    EXPECT_EQ(namespaceToString(latched(), out), 0);
    EXPECT_EQ(out, "[conversion failed]");
}

TEST_F(EncodeFailure, CopyTakesTheLatchedTextAlong) {
    const ObjectNamespace original = latched();
    const ObjectNamespace copy = original;  // NOLINT(performance-unnecessary-copy-initialization)
    ObjectNamespace assigned("X");
    assigned = original;
    EXPECT_EQ(copy.str(), "[conversion failed]");
    EXPECT_EQ(assigned.str(), "[conversion failed]");
}

TEST_F(EncodeFailure, LatchedNamespaceStillEqualsItsLikes) {
    EXPECT_EQ(latched(), ObjectNamespace("A", "B"));
    EXPECT_FALSE(latched() < ObjectNamespace("A", "B"));
}

TEST_F(EncodeFailure, NewValuesMadeFromALatchedNamespaceHaveTheirOwnTexts) {
    const ObjectNamespace ns = latched();
    EXPECT_EQ((ns | "C").str(), "|<A>|<B>|<C>|");
    EXPECT_EQ((ns | ObjectNamespace("C", "D")).str(), "|<A>|<B>|<C>|<D>|");
    EXPECT_EQ((ObjectNamespace("X") | ns).str(), "|<X>|<A>|<B>|");
    EXPECT_EQ(ns.parentNamespace()->str(), "|<A>|");
}

TEST_F(EncodeFailure, ReadingIntoALatchedNamespaceEndsTheLatch) {
    ObjectNamespace ns = latched();
    std::istringstream in("|C|");
    in >> ns;
    EXPECT_EQ(ns.str(), "|<C>|");
}

TEST_F(EncodeFailure, OutputSetsFailbitAndWritesNothing) {
    letFail(Failure::STATUS, "B");
    std::ostringstream out;
    out << ObjectNamespace("A", "B");
    EXPECT_EQ(out.rdstate(), std::ios_base::failbit);
    EXPECT_EQ(out.str(), "");
}

TEST_F(EncodeFailure, OutputDoesNotLatch) {
    const ObjectNamespace ns("A");
    letFail(Failure::STATUS);
    std::ostringstream out;
    out << ns;
    ASSERT_TRUE(out.fail());
    letFail(Failure::NONE);
    EXPECT_EQ(ns.str(), "|<A>|");
}

TEST_F(EncodeFailure, LexicalCastThrowsBadLexicalCast) {
    letFail(Failure::STATUS);
    EXPECT_THROW(boost::lexical_cast<std::string>(ObjectNamespace("A")), boost::bad_lexical_cast);
}

TEST_F(EncodeFailure, NamespaceToStringReturns114AndLeavesItsTarget) {
    letFail(Failure::STATUS);
    std::string out = "before";
    EXPECT_EQ(namespaceToString(ObjectNamespace("A"), out), 114);
    EXPECT_EQ(out, "before");
}

TEST_F(EncodeFailure, OtherExceptionsPassThroughStr) {
    letFail(Failure::OTHER);
    EXPECT_THROW(ObjectNamespace("A").str(), std::runtime_error);
}

TEST_F(EncodeFailure, OtherExceptionsPassThroughTheLogTextWithoutLatching) {
    const ObjectNamespace ns("A");
    letFail(Failure::OTHER);
    EXPECT_THROW(ns.toLogStr(), std::runtime_error);
    letFail(Failure::NONE);
    EXPECT_EQ(ns.toLogStr(), "|<A>|");
}

TEST_F(EncodeFailure, OtherExceptionsPassThroughOutput) {
    letFail(Failure::OTHER);
    std::ostringstream out;
    EXPECT_THROW(out << ObjectNamespace("A"), std::runtime_error);
    EXPECT_TRUE(out.good());
    EXPECT_EQ(out.str(), "");
}

TEST_F(EncodeFailure, OtherExceptionsPassThroughNamespaceToString) {
    letFail(Failure::OTHER);
    std::string out = "before";
    EXPECT_THROW(namespaceToString(ObjectNamespace("A"), out), std::runtime_error);
    EXPECT_EQ(out, "before");
}

TEST_F(EncodeFailure, NoClientIsMadeForANamespaceWithoutAText) {
    SettingsFixture settings(R"({"accessEnforcement":"gen1"})");
    boost::shared_ptr<AccessControlClient> client;
    ASSERT_EQ(AccessControlClient::create(ObjectNamespace("A"), client), 0);
    const boost::shared_ptr<AccessControlClient> before = client;
    settings.replace(R"({"primaryServer":"primary.example","accessEnforcement":"gen2"})");
    const LogCapture log;
    letFail(Failure::STATUS);
    EXPECT_EQ(AccessControlClient::create(ObjectNamespace("A"), client), 114);
    EXPECT_EQ(client, before);
    EXPECT_THAT(log.lines(), testing::ElementsAre(LogLine{2, "AccessControlClient::create", "Gen2 enforcement."}));
}

TEST_F(EncodeFailure, NoClientIsMadeWhereMakingTheTextThrowsAnything) {
    const SettingsFixture settings(R"({"primaryServer":"primary.example","accessEnforcement":"gen2"})");
    boost::shared_ptr<AccessControlClient> client;
    letFail(Failure::OTHER);
    EXPECT_EQ(AccessControlClient::create(ObjectNamespace("A"), client), 114);
    EXPECT_EQ(client, nullptr);
}

TEST_F(EncodeFailure, NoDocumentIsMadeOfANamespaceWithoutAText) {
    const LogCapture log;
    letFail(Failure::STATUS, "B");
    EXPECT_THROW(Tesmor::Arkwell::Rbac::json_namespace_shared(ObjectNamespace("B")), boost::bad_lexical_cast);
    EXPECT_THROW(Tesmor::Arkwell::Rbac::json_namespaces_shared({ObjectNamespace("A"), ObjectNamespace("B")}),
                 boost::bad_lexical_cast);
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(EncodeFailure, NothingIsAskedOfANamespaceWithoutAText) {
    const SettingsFixture settings(R"({"primaryServer":"primary.example"})");
    const LogCapture log;
    const auto http = boost::make_shared<testing_support::ScriptedHttp>();
    Tesmor::Arkwell::Rbac::ManagedObjectAPI objects(http);
    letFail(Failure::STATUS);
    EXPECT_THROW(objects.get_object(ObjectNamespace("A")), boost::bad_lexical_cast);
    EXPECT_THAT(http->requests(), testing::IsEmpty());
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}
