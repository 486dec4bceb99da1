#pragma once

#include "platform/SettingsFixture.h"
#include "testing/LogCapture.h"
#include "testing/ScriptedHttp.h"

#include <rbac/EC_exception.h>

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>

#include <exception>
#include <functional>
#include <locale>
#include <new>
#include <string>
#include <vector>

/// While it lives, the program's locale writes 1234567 as 1,234,567.
class GroupingLocale {
public:
    GroupingLocale() : before_(std::locale::global(std::locale(std::locale::classic(), new Grouping))) {}
    ~GroupingLocale() { std::locale::global(before_); }
    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;

private:
    class Grouping : public std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale before_;
};

/// A host with a primary server whose answers are scripted.
class ApiFixture : public testing::Test {
protected:
    /// The status that a call throws, or 0.
    template <class Call>
    int statusOf(Call call) {
        try {
            call();
        } catch (const EC_exception& failure) {
            EXPECT_EQ(http_->liveClients(), 0);
            return failure.status;
        }
        return 0;
    }

    /// What a call came to: "none", the status that it throws with what is logged of it, or the exception that it
    /// throws.
    template <class Call>
    std::string outcomeOf(Call call) {
        log_.clear();
        std::string outcome = "none";
        try {
            call();
        } catch (const EC_exception& failure) {
            outcome = std::to_string(failure.status);
        } catch (const std::bad_alloc&) {
            outcome = "bad_alloc";
        } catch (const std::exception& failure) {
            outcome = failure.what();
        }
        for (const testing_support::LogLine& line : errors()) {
            outcome += " [" + line.tag + "] " + line.message;
        }
        EXPECT_EQ(http_->liveClients(), 0);
        return outcome;
    }

    /// One operation of a client, as the service sees it.
    struct Operation {
        const char* tag;
        std::string url;
        long success;
        std::string answer;  ///< empty: none is read
        std::function<void()> call;
    };

    static constexpr char BAD_CAST[] = "bad lexical cast: source type value could not be interpreted as target";

    /// That the operations log their requests and answers, and nothing else.
    void expectToLogWhatTheyDo(const std::vector<Operation>& operations) {
        for (const Operation& operation : operations) {
            SCOPED_TRACE(operation.tag);
            http_->answer(operation.success, operation.answer);
            log_.clear();
            operation.call();
            std::vector<testing_support::LogLine> expected = {
                {4, operation.tag,
                 "Request for " + operation.url + "; curl status 0; http status " + std::to_string(operation.success)}};
            if (!operation.answer.empty()) {
                expected.push_back({2, operation.tag, "Received JSON: " + operation.answer});
            }
            EXPECT_EQ(log_.lines(), expected);
        }
    }

    /// That the operations take no other success for theirs.
    void expectToRefuseOtherStatuses(const std::vector<Operation>& operations) {
        for (const Operation& operation : operations) {
            for (const long status : {200L, 201L, 202L, 204L, 302L}) {
                if (status != operation.success) {
                    SCOPED_TRACE(operation.tag);
                    http_->answer(status, operation.answer);
                    EXPECT_EQ(outcomeOf(operation.call), "114 [" + std::string(operation.tag) +
                                                             "] Unexpected HTTP status: " + std::to_string(status));
                }
            }
        }
    }

    /// That the operations pass a failed transport on without a word.
    void expectToPassTransportFailuresOn(const std::vector<Operation>& operations) {
        for (const Operation& operation : operations) {
            SCOPED_TRACE(operation.tag);
            http_->fail(9557);
            EXPECT_EQ(outcomeOf(operation.call), "9557");
            EXPECT_THAT(log_.lines(), testing::IsEmpty());
        }
    }

    /// That the operations that read an answer report one without data, or without JSON, under their own names.
    void expectToReportAnswersWithoutData(const std::vector<Operation>& operations) {
        for (const Operation& operation : operations) {
            if (!operation.answer.empty()) {
                SCOPED_TRACE(operation.tag);
                for (const char* body : {"{}", "[]"}) {
                    http_->answer(operation.success, body);
                    EXPECT_EQ(outcomeOf(operation.call), "7610 [" + std::string(operation.tag) +
                                                             "] Error getting 'data' field from JSON response");
                }
                http_->answer(operation.success, "no JSON");
                EXPECT_EQ(outcomeOf(operation.call),
                          "7610 [json_loads_shared] Error parsing JSON: '[' or '{' expected near 'no'");
            }
        }
    }

    /// What was logged at level 16.
    std::vector<testing_support::LogLine> errors() const { return log_.linesAt(16); }

    SettingsFixture settings_{R"({"primaryServer":"primary.example"})"};
    boost::shared_ptr<testing_support::ScriptedHttp> http_ = boost::make_shared<testing_support::ScriptedHttp>();
    testing_support::LogCapture log_;
};
