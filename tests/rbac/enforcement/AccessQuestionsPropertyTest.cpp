#include "ClientFixture.h"

#include <rbac/AccessExplanation.h>
#include <rbac/AccessLists.h>

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

// Explanations, what they say would help, and lists, held against single checks in random caches.

using namespace Tesmor::Arkwell::Rbac;
using testing_support::ClientFixture;
using testing_support::Grant;
using testing_support::Grants;
using Change = AccessExplanation::Change;

namespace {

const std::vector<int> ROLES{-4, 1, 2, 3, 5, 8, 13, 21};
const std::map<std::string, int> OPERATIONS{{"|OPERATIONS|A|", 0}, {"|OPERATIONS|B|", 31}, {"|OPERATIONS|C|", 32}};
const std::vector<std::string> COMPONENTS{"a", "ab", "abc", "abcd", "long+name", "%7C", ""};

struct Record {
    bool inherits = false;
    Grants own;
    Grants child;
};

class AccessQuestionsProperty : public ClientFixture {
protected:
    AccessQuestionsProperty() {
        writeOperations(R"({"|OPERATIONS|C|": 32, "|OPERATIONS|A|": 0, "|OPERATIONS|B|": 31})");
    }

    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_); }

    std::string randomText() {
        std::string text = "|";
        for (std::size_t left = below(5); left != 0; --left) {
            text += COMPONENTS[below(COMPONENTS.size())] + "|";
        }
        return text;
    }

    Grants randomGrants() {
        Grants grants;
        for (const int role : ROLES) {
            Grant grant{role, {}};
            for (const auto& [name, bit] : OPERATIONS) {
                if (below(12) == 0) {
                    grant.operations.push_back(bit);
                }
            }
            if (!grant.operations.empty()) {
                grants.push_back(grant);
            }
        }
        return grants;
    }

    std::set<int> randomRoles() {
        std::set<int> roles;
        for (std::size_t left = below(4); left != 0; --left) {
            roles.insert(ROLES[below(ROLES.size())]);
        }
        if (below(20) == 0) {
            roles.insert(0);
        }
        return roles;
    }

    void makeCache() {
        records_.clear();
        for (std::size_t left = 3 + below(20); left != 0; --left) {
            records_[randomText()] = {below(4) != 0, randomGrants(), randomGrants()};
        }
        writeRecords();
    }

    void writeRecords() {
        files = testing_support::RawCache(directory_.path());
        for (const auto& [text, record] : records_) {
            files.put(text, record.inherits ? 1 : 0, record.own, record.child);
        }
        client_ = &client();
    }

    bool check(const std::set<int>& roles, const std::string& operation, const std::string& object) {
        boost::shared_ptr<const AccessChecker> checker;
        EXPECT_EQ(client_->createAccessChecker(roles, boost::lexical_cast<ObjectNamespace>(operation), 0, checker), 0);
        return checker->checkAccess(boost::lexical_cast<ObjectNamespace>(object));
    }

    AccessExplanation explain(const std::set<int>& roles, const std::string& operation, const std::string& object) {
        AccessExplanation explanation;
        EXPECT_EQ(explainAccess(*client_, roles, boost::lexical_cast<ObjectNamespace>(operation),
                                boost::lexical_cast<ObjectNamespace>(object), explanation),
                  0);
        return explanation;
    }

    const std::string& randomOperation() { return std::next(OPERATIONS.begin(), static_cast<long>(below(3)))->first; }

    void letInherit(const AccessExplanation& explanation, const Change& change, std::size_t except) {
        const std::map<std::string, Record> before = records_;
        for (std::size_t i = 0; i < change.textLengths.size(); ++i) {
            records_.at(explanation.object.substr(0, change.textLengths[i])).inherits = i != except;
        }
        writeRecords();
        records_ = before;
    }

    std::mt19937 random_{1};
    std::map<std::string, Record> records_;
    AccessControlClient* client_ = nullptr;
};

constexpr std::size_t NONE = static_cast<std::size_t>(-1);

}  // namespace

TEST_F(AccessQuestionsProperty, AnExplanationAnswersAsACheckDoes) {
    int allowed = 0;
    for (int round = 0; round < 150; ++round) {
        makeCache();
        for (int question = 0; question < 40; ++question) {
            const std::set<int> roles = randomRoles();
            const std::string operation = randomOperation();
            const std::string object = randomText();
            const AccessExplanation explanation = explain(roles, operation, object);
            ASSERT_EQ(explanation.allowed, check(roles, operation, object)) << explanation;
            allowed += explanation.allowed ? 1 : 0;
        }
    }
    EXPECT_GT(allowed, 500);
}

TEST_F(AccessQuestionsProperty, AnExplanationsStepsAreWhatTheCacheHolds) {
    for (int round = 0; round < 150; ++round) {
        makeCache();
        for (int question = 0; question < 40; ++question) {
            const AccessExplanation explanation = explain(randomRoles(), randomOperation(), randomText());
            std::size_t length = explanation.object.size() + 1;
            for (const AccessExplanation::Step& step : explanation.steps) {
                const auto record = records_.find(explanation.textOf(step));
                ASSERT_LT(step.textLength, length) << explanation;
                length = step.textLength;
                ASSERT_EQ(step.found, record != records_.end()) << explanation;
                ASSERT_EQ(step.inherits, !step.found || record->second.inherits) << explanation;
                ASSERT_EQ(step.own, step.textLength == explanation.object.size()) << explanation;
                ASSERT_EQ(!step.granting.empty(), explanation.allowed && &step == &explanation.steps.back());
                for (const int role : step.granting) {
                    const Grants& grants = step.own ? record->second.own : record->second.child;
                    const int bit = OPERATIONS.at(explanation.operation);
                    ASSERT_TRUE(std::any_of(grants.begin(), grants.end(), [&](const Grant& grant) {
                        return grant.role == role &&
                               std::count(grant.operations.begin(), grant.operations.end(), bit) != 0;
                    })) << explanation;
                }
            }
        }
    }
}

TEST_F(AccessQuestionsProperty, HoldingARoleThatIsNamedTurnsTheAnswerAndNoOtherRoleDoes) {
    int named = 0;
    for (int round = 0; round < 150; ++round) {
        makeCache();
        for (int question = 0; question < 20; ++question) {
            const std::set<int> roles = randomRoles();
            const AccessExplanation explanation = explain(roles, randomOperation(), randomText());
            std::set<int> helping;
            for (const Change& change : whatWouldAllow(*client_, explanation)) {
                if (change.kind == Change::Kind::HOLD_ROLE) {
                    helping.insert(change.roles.begin(), change.roles.end());
                }
            }
            named += static_cast<int>(helping.size());
            for (const int role : ROLES) {
                std::set<int> with = roles;
                with.insert(role);
                const bool helps = !explanation.allowed && check(with, explanation.operation, explanation.object);
                ASSERT_EQ(helps, helping.count(role) != 0) << explanation << "role " << role;
            }
        }
    }
    EXPECT_GT(named, 500);
}

TEST_F(AccessQuestionsProperty, InheritingTurnsTheAnswerAndLessDoesNot) {
    int found = 0;
    for (int round = 0; round < 1000; ++round) {
        makeCache();
        for (int question = 0; question < 20; ++question) {
            const std::set<int> roles = randomRoles();
            const AccessExplanation explanation = explain(roles, randomOperation(), randomText());
            for (const Change& change : whatWouldAllow(*client_, explanation)) {
                if (change.kind != Change::Kind::INHERIT) {
                    continue;
                }
                ++found;
                letInherit(explanation, change, NONE);
                ASSERT_TRUE(check(roles, explanation.operation, explanation.object)) << explanation;
                for (const int role : change.roles) {
                    ASSERT_TRUE(check({role}, explanation.operation, explanation.object)) << explanation;
                }
                for (std::size_t except = 0; except < change.textLengths.size(); ++except) {
                    letInherit(explanation, change, except);
                    ASSERT_FALSE(check(roles, explanation.operation, explanation.object)) << explanation;
                }
                writeRecords();
            }
        }
    }
    EXPECT_GT(found, 50);
}

TEST_F(AccessQuestionsProperty, AListOfObjectsHoldsThoseThatChecksAllow) {
    for (int round = 0; round < 300; ++round) {
        makeCache();
        const std::set<int> roles = randomRoles();
        const std::string operation = randomOperation();
        const std::string below = randomText();
        std::vector<std::string> expected;
        for (const auto& [text, record] : records_) {
            if (text.compare(0, below.size(), below) == 0 && check(roles, operation, text)) {
                expected.push_back(text);
            }
        }
        std::vector<std::string> listed;
        ASSERT_EQ(forEachAllowedObject(*client_, roles, boost::lexical_cast<ObjectNamespace>(operation),
                                       boost::lexical_cast<ObjectNamespace>(below),
                                       [&listed](const std::string& text) {
                                           listed.push_back(text);
                                           return true;
                                       }),
                  0);
        ASSERT_EQ(listed, expected) << "below " << below;
    }
}

TEST_F(AccessQuestionsProperty, AListOfRolesHoldsThoseThatChecksAllow) {
    for (int round = 0; round < 300; ++round) {
        makeCache();
        const std::string operation = randomOperation();
        const std::string object = randomText();
        std::vector<int> expected;
        for (const int role : {-4, 0, 1, 2, 3, 5, 8, 13, 21}) {
            if (check({role}, operation, object)) {
                expected.push_back(role);
            }
        }
        std::vector<int> listed;
        ASSERT_EQ(forEachAllowedRole(*client_, boost::lexical_cast<ObjectNamespace>(operation),
                                     boost::lexical_cast<ObjectNamespace>(object),
                                     [&listed](int role) {
                                         listed.push_back(role);
                                         return true;
                                     }),
                  0);
        ASSERT_EQ(listed, expected) << object;
    }
}

TEST_F(AccessQuestionsProperty, AListOfOperationsHoldsThoseThatChecksAllow) {
    for (int round = 0; round < 300; ++round) {
        makeCache();
        const std::set<int> roles = randomRoles();
        const std::string object = randomText();
        std::vector<std::string> expected;
        for (const auto& [operation, bit] : OPERATIONS) {
            if (check(roles, operation, object)) {
                expected.push_back(operation);
            }
        }
        std::vector<std::string> listed;
        ASSERT_EQ(forEachAllowedOperation(*client_, roles, boost::lexical_cast<ObjectNamespace>(object),
                                          [&listed](const ObjectNamespace& operation) {
                                              listed.push_back(operation.str());
                                              return true;
                                          }),
                  0);
        ASSERT_EQ(listed, expected) << object;
    }
}
