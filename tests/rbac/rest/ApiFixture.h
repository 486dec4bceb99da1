#pragma once

#include "platform/SettingsFixture.h"
#include "testing/LogCapture.h"
#include "testing/ScriptedHttp.h"

#include <rbac/EC_exception.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <string>
#include <vector>

/// A host with a primary server whose answers are scripted.
class ApiFixture : public testing::Test {
protected:
    /// The status that a call throws, or 0.
    template <class Call>
    int statusOf(Call call) {
        try {
            call();
        } catch (const EC_exception& failure) {
            EXPECT_EQ(http_->liveClients, 0);
            return failure.status;
        }
        return 0;
    }

    /// What was logged at level 16.
    std::vector<testing_support::LogLine> errors() const { return log_.linesAt(16); }

    SettingsFixture settings_{R"({"primaryServer":"primary.example"})"};
    boost::shared_ptr<testing_support::ScriptedHttp> http_ = boost::make_shared<testing_support::ScriptedHttp>();
    testing_support::LogCapture log_;
};
