#include "ClientFixture.h"
#include "rbac/enforcement/StubAccessControlClient.h"

#include <rbac/AccessExplanation.h>
#include <rbac/EC_exception.h>

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;
using testing_support::ClientFixture;
using testing_support::Grants;
using Change = AccessExplanation::Change;
using Reason = AccessExplanation::Reason;
using Roles = std::vector<int>;

namespace {

constexpr int VIEW_BIT = 37;
const Grants NOTHING;

class ExplainAccess : public ClientFixture {
protected:
    AccessExplanation explain(const std::set<int>& roles, const ObjectNamespace& object,
                              const ObjectNamespace& operation = root_namespaces::operations::VIEW) {
        AccessExplanation explanation;
        EXPECT_EQ(explainAccess(client(), roles, operation, object, explanation), 0);
        return explanation;
    }

    std::string printed(const std::set<int>& roles, const ObjectNamespace& object) {
        std::ostringstream out;
        out << explain(roles, object);
        return out.str();
    }

    std::string changes(const std::set<int>& roles, const ObjectNamespace& object) {
        const AccessExplanation explanation = explain(roles, object);
        std::ostringstream out;
        writeChanges(out, explanation, whatWouldAllow(client(), explanation));
        return out.str();
    }

    static Grants viewFor(const Roles& roles) {
        Grants grants;
        for (const int role : roles) {
            grants.push_back({role, {VIEW_BIT}});
        }
        return grants;
    }
};

class WhatWouldAllow : public ExplainAccess {};

/// A program's own client.
class ForeignClient : public AccessControlClient {
public:
    int createAccessChecker(Tesmor::Dal::DbConnectionManager*, const std::string&, const ObjectNamespace&, int,
                            boost::shared_ptr<const AccessChecker>&) override {
        return 0;
    }
    int createAccessChecker(const std::set<int>&, const ObjectNamespace&, int,
                            boost::shared_ptr<const AccessChecker>&) override {
        return 0;
    }
};

}  // namespace

TEST_F(ExplainAccess, NamesTheQuestion) {
    const AccessExplanation explanation = explain({9, 5}, {"A", "b c"});
    EXPECT_EQ(explanation.roles, (Roles{5, 9}));
    EXPECT_EQ(explanation.operation, "|OPERATIONS|VIEW|");
    EXPECT_EQ(explanation.object, "|A|b+c|");
}

TEST_F(ExplainAccess, NotesEveryRoleThatGrants) {
    files.put("|A|", 0, viewFor({3, 5, 7, 9}));
    const AccessExplanation explanation = explain({4, 5, 9}, {"A"});
    EXPECT_TRUE(explanation.allowed);
    EXPECT_EQ(explanation.reason, Reason::GRANTED);
    ASSERT_EQ(explanation.steps.size(), 1U);
    EXPECT_EQ(explanation.steps[0].granting, (Roles{5, 9}));
    EXPECT_TRUE(explanation.steps[0].own);
}

TEST_F(ExplainAccess, ConsultsChildRightsOfAncestors) {
    files.put("|A|", 0, NOTHING, viewFor({5}));
    files.put("|A|B|", 1);
    EXPECT_EQ(printed({5}, {"A", "B"}),
              "allowed: |OPERATIONS|VIEW| on |A|B| for role 5\n"
              "  |A|B|: grants it to none of them; inherits\n"
              "  |A|: grants it to role 5 for what is below\n");
}

TEST_F(ExplainAccess, DoesNotTakeOwnRightsOfAncestorsForGrants) {
    files.put("|A|", 0, viewFor({5}), NOTHING);
    files.put("|A|B|", 1);
    EXPECT_EQ(printed({5}, {"A", "B"}),
              "denied: |OPERATIONS|VIEW| on |A|B| for role 5\n"
              "  |A|B|: grants it to none of them; inherits\n"
              "  |A|: grants it to none of them for what is below; does not inherit, so the search ends here\n");
}

TEST_F(ExplainAccess, EndsWhereTheObjectDoesNotInherit) {
    files.put("|A|", 1, NOTHING, viewFor({5}));
    files.put("|A|B|", 0);
    const AccessExplanation explanation = explain({5}, {"A", "B"});
    EXPECT_FALSE(explanation.allowed);
    EXPECT_EQ(explanation.reason, Reason::STOPPED);
    ASSERT_EQ(explanation.steps.size(), 1U);
    EXPECT_EQ(explanation.textOf(explanation.steps[0]), "|A|B|");
    EXPECT_FALSE(explanation.steps[0].inherits);
}

TEST_F(ExplainAccess, NamesWhatTheCacheDoesNotHold) {
    files.put("|A|", 1);
    EXPECT_EQ(printed({5, 9}, {"A", "B", "C"}),
              "denied: |OPERATIONS|VIEW| on |A|B|C| for roles 5, 9\n"
              "  |A|B|C|: not in the cache\n"
              "  |A|B|: not in the cache\n"
              "  |A|: grants it to none of them for what is below; inherits\n"
              "  |: not in the cache\n"
              "  nothing on the way grants it\n");
}

TEST_F(ExplainAccess, AsksTheRootLast) {
    files.put("|", 0, NOTHING, viewFor({5}));
    EXPECT_EQ(printed({5}, {"A"}),
              "allowed: |OPERATIONS|VIEW| on |A| for role 5\n"
              "  |A|: not in the cache\n"
              "  |: grants it to role 5 for what is below\n");
}

TEST_F(ExplainAccess, AsksTheRootItselfForItsOwnRights) {
    files.put("|", 0, viewFor({5}));
    EXPECT_EQ(printed({5}, ObjectNamespace()),
              "allowed: |OPERATIONS|VIEW| on | for role 5\n"
              "  |: grants it to role 5\n");
}

TEST_F(ExplainAccess, DeniesWithoutRoles) {
    files.put("|A|", 0, viewFor({5}));
    EXPECT_EQ(printed({}, {"A"}),
              "denied: |OPERATIONS|VIEW| on |A| for no role\n"
              "  |A|: grants it to none of them; does not inherit, so the search ends here\n");
}

TEST_F(ExplainAccess, TellsOfAnEmptyComponentAsOfAnyOther) {
    files.put("||", 0, NOTHING, viewFor({5}));
    EXPECT_EQ(printed({5}, {"", ""}),
              "allowed: |OPERATIONS|VIEW| on ||| for role 5\n"
              "  |||: not in the cache\n"
              "  ||: grants it to role 5 for what is below\n");
}

TEST_F(ExplainAccess, TakesNoWalkForRoleZero) {
    EXPECT_EQ(printed({0, 5}, {"A"}),
              "allowed: |OPERATIONS|VIEW| on |A| for roles 0, 5\n"
              "  role 0 may do everything\n");
}

TEST_F(ExplainAccess, DeniesAnUnknownOperationToRoleZeroToo) {
    std::ostringstream out;
    const AccessExplanation explanation = explain({0}, {"A"}, {"OPERATIONS", "FLY"});
    out << explanation;
    EXPECT_EQ(explanation.reason, Reason::UNKNOWN_OPERATION);
    EXPECT_EQ(out.str(),
              "denied: |OPERATIONS|FLY| on |A| for role 0\n"
              "  there is no such operation\n");
}

TEST_F(ExplainAccess, AllowsWhereNothingIsEnforced) {
    StubAccessControlClient stub;
    AccessExplanation explanation;
    ASSERT_EQ(explainAccess(stub, {}, root_namespaces::operations::VIEW, {"A"}, explanation), 0);
    std::ostringstream out;
    out << explanation;
    EXPECT_EQ(out.str(),
              "allowed: |OPERATIONS|VIEW| on |A| for no role\n"
              "  access is not restricted on this installation\n");
}

TEST_F(ExplainAccess, RefusesAClientThatItDoesNotKnow) {
    ForeignClient foreign;
    AccessExplanation explanation;
    try {
        explainAccess(foreign, {5}, root_namespaces::operations::VIEW, {"A"}, explanation);
        FAIL() << "nothing was thrown";
    } catch (const std::invalid_argument& refusal) {
        EXPECT_STREQ(refusal.what(), "the client reads no access cache");
    }
}

TEST_F(ExplainAccess, ReturnsTheStatusOfAnUnreadableOperationCache) {
    AccessControlClient& broken = client();
    writeOperations("not JSON");
    AccessExplanation explanation;
    explanation.object = "untouched";
    EXPECT_EQ(explainAccess(broken, {5}, root_namespaces::operations::VIEW, {"A"}, explanation), 13);
    EXPECT_EQ(explanation.object, "untouched");
}

TEST_F(ExplainAccess, ThrowsForAnInterruptedWriteAsAChecksDoes) {
    AccessControlClient& interrupted = client();
    testing_support::setWritingFlag(files, 1);
    AccessExplanation explanation;
    try {
        explainAccess(interrupted, {5}, root_namespaces::operations::VIEW, {"A"}, explanation);
        FAIL() << "nothing was thrown";
    } catch (const EC_exception& failure) {
        EXPECT_EQ(failure.status, 12);
    }
}

TEST_F(WhatWouldAllow, IsNothingForAYes) {
    files.put("|A|", 0, viewFor({5}));
    EXPECT_EQ(changes({5}, {"A"}), "");
}

TEST_F(WhatWouldAllow, IsNothingForAnUnknownOperation) {
    const AccessExplanation explanation = explain({5}, {"A"}, {"OPERATIONS", "FLY"});
    EXPECT_TRUE(whatWouldAllow(client(), explanation).empty());
}

TEST_F(WhatWouldAllow, NamesTheRolesThatHoldItOnTheObject) {
    files.put("|A|", 0, {{7, {VIEW_BIT}}, {8, {5}}, {12, {0, VIEW_BIT}}});
    EXPECT_EQ(changes({5}, {"A"}),
              "it would be allowed if\n"
              "  one of the roles 7, 12 were held, granted at |A|\n");
}

TEST_F(WhatWouldAllow, NamesTheRolesAtEachNamespaceOnTheWay) {
    files.put("|", 1, NOTHING, viewFor({3}));
    files.put("|A|", 1, viewFor({4}), viewFor({7}));
    files.put("|A|B|", 1, viewFor({9}), viewFor({10}));
    EXPECT_EQ(changes({5}, {"A", "B"}),
              "it would be allowed if\n"
              "  role 9 was held, granted at |A|B|\n"
              "  role 7 was held, granted at |A|\n"
              "  role 3 was held, granted at |\n");
}

TEST_F(WhatWouldAllow, DoesNotNameRolesBeyondTheEndOfTheSearch) {
    files.put("|A|", 1, NOTHING, viewFor({7}));
    files.put("|A|B|", 0);
    EXPECT_EQ(changes({5}, {"A", "B"}), "");
}

TEST_F(WhatWouldAllow, DoesNotNameRoleZero) {
    files.put("|A|", 0, viewFor({0, 7}));
    EXPECT_EQ(changes({5}, {"A"}),
              "it would be allowed if\n"
              "  role 7 was held, granted at |A|\n");
}

TEST_F(WhatWouldAllow, NamesTheNamespaceThatStopsTheSearch) {
    files.put("|A|", 1, NOTHING, viewFor({5, 7}));
    files.put("|A|B|", 0, viewFor({9}));
    EXPECT_EQ(changes({5, 7, 11}, {"A", "B"}),
              "it would be allowed if\n"
              "  role 9 was held, granted at |A|B|\n"
              "  |A|B| inherited: beyond that it is granted to roles 5, 7\n");
}

TEST_F(WhatWouldAllow, NamesAllNamespacesThatStopIt) {
    files.put("|A|", 1, NOTHING, viewFor({5}));
    files.put("|A|B|", 0);
    files.put("|A|B|C|", 0);
    EXPECT_EQ(changes({5}, {"A", "B", "C"}),
              "it would be allowed if\n"
              "  |A|B|C| and |A|B| inherited: beyond that it is granted to role 5\n");
}

TEST_F(WhatWouldAllow, IsNothingForAnOperationThatIsNotKnown) {
    files.put("|A|", 0, viewFor({7}));
    AccessExplanation explanation = explain({5}, {"A"});
    explanation.operation = "|OPERATIONS|UNHEARD_OF|";
    EXPECT_TRUE(whatWouldAllow(client(), explanation).empty());
}

TEST_F(WhatWouldAllow, AsksTheCacheAnew) {
    files.put("|A|", 0, viewFor({7}));
    const AccessExplanation explanation = explain({5}, {"A"});
    files.put("|A|", 0, viewFor({5, 7}));
    EXPECT_TRUE(whatWouldAllow(client(), explanation).empty());
}
