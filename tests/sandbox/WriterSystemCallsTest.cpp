#include "rbac/enforcement/AlternatingPolicies.h"
#include "testing/FailingSystemCalls.h"
#include "testing/LogCapture.h"

#include <platform/Status.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <vector>

// Every system call of a publication fails in turn.

using testing::Each;
using testing::EndsWith;
using testing::HasSubstr;
using testing_support::AlternatingPolicies;
using testing_support::AroundTheWork;
using testing_support::failEachSystemCall;
using testing_support::outcomeOf;

namespace {

class WriterSystemCalls : public testing::Test {
protected:
    std::string publish() const {
        return outcomeOf([this] { policies_.publish(1); });
    }

    /// What somebody finds who had the cache open before.
    std::string look() const {
        const testing_support::LogCapture log;
        try {
            const int policy = policies_.policyOf(*checker_);
            return policy == AlternatingPolicies::MIXED ? "a mixture" : "policy " + std::to_string(policy);
        } catch (const EC_exception& refusal) {
            return "status " + std::to_string(refusal.status);
        }
    }

    AroundTheWork looksAndPublishesAgain() const {
        AroundTheWork around;
        around.after = [this] {
            const std::string found = look();
            policies_.publish(1);
            const std::string repaired = look();
            policies_.publish(0);  // for the next one
            return "; " + found + ", then " + repaired;
        };
        return around;
    }

    AlternatingPolicies policies_;
    boost::shared_ptr<AlternatingPolicies::AccessControlClient> client_ = [this] {
        policies_.publish(0);
        return policies_.client();
    }();
    const boost::shared_ptr<const AlternatingPolicies::AccessChecker> checker_ =
        AlternatingPolicies::checkerOf(*client_);
};

}  // namespace

TEST_F(WriterSystemCalls, ThatFailLeaveOnePolicyOrNoneAndAreMadeUpForByTheNextPublication) {
    const std::vector<std::string> outcomes = failEachSystemCall(
        EIO, [this] { return publish(); }, looksAndPublishesAgain());
    EXPECT_GT(outcomes.size(), 30U);
    EXPECT_THAT(outcomes, Each(EndsWith(", then policy 1")));
    EXPECT_THAT(outcomes, Each(testing::Not(HasSubstr("mixture"))));
    for (const std::string& outcome : outcomes) {
        // Whoever is told that it is done finds it done.
        EXPECT_EQ(outcome.find(": done") != std::string::npos, outcome.find("; policy 1,") != std::string::npos)
            << outcome;
        EXPECT_THAT(outcome, testing::AnyOf(HasSubstr(": done"), HasSubstr("Input/output error"))) << outcome;
    }
    EXPECT_THAT(outcomes, testing::Contains(HasSubstr("; policy 0, ")));
    EXPECT_THAT(outcomes, testing::Contains(HasSubstr("; status 12, ")));
}

TEST_F(WriterSystemCalls, ThatAreInterruptedAreTriedAgain) {
    const std::vector<std::string> outcomes = failEachSystemCall(
        EINTR, [this] { return publish(); }, looksAndPublishesAgain());
    EXPECT_GT(outcomes.size(), 30U);
    for (const std::string& outcome : outcomes) {
        if (outcome.rfind("stat ", 0) != 0) {  // which signals do not interrupt
            EXPECT_THAT(outcome, EndsWith(": done; policy 1, then policy 1"));
        }
    }
}
