#include "rbac/enforcement/DiskAccessChecker.h"
#include "sandbox/CacheWriter.h"
#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/BulkAccess.h>

#include <boost/make_shared.hpp>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ostream>
#include <string>
#include <vector>

// The writer's process is killed before each step of a publication and in the midst of each write. What do those find
// who had the cache open before?

namespace {

/// How much of the next write is done before the process kills itself; negative: it lives on.
ssize_t lastBytes = -1;

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t pwrite(int descriptor, const void* bytes, std::size_t size,
                                                                 off_t offset) {
    static const auto real = reinterpret_cast<decltype(&pwrite)>(dlsym(RTLD_NEXT, "pwrite"));
    if (lastBytes < 0) {
        return real(descriptor, bytes, size, offset);
    }
    static_cast<void>(real(descriptor, bytes, std::min(static_cast<std::size_t>(lastBytes), size), offset));
    kill(getpid(), SIGKILL);
    return -1;
}

namespace Tesmor::Arkwell::Sandbox {
namespace {

using Rbac::AccessCache;
using Rbac::AccessChecker;
using Rbac::DiskAccessChecker;
using Rbac::Manifest;
using Rbac::Operation;
using testing::AnyOf;
using testing::Contains;
using testing_support::ChildProcess;
using testing_support::LogCapture;
using testing_support::Signal;
using testing_support::TemporaryDirectory;

constexpr int ROLE = 7;
constexpr int OPERATION = 3;

/// What somebody who checks finds: one policy, nothing (status 12), or what nobody has published.
enum class Found { OLD, NEW, REFUSED, NONSENSE };
void PrintTo(Found found, std::ostream* out) {
    static const char* const NAMES[] = {"the old policy", "the new policy", "status 12", "nonsense"};
    *out << NAMES[static_cast<int>(found)];
}

/// Objects that a policy allows every other one of.
struct Policy {
    std::size_t objects;
    bool allowsTheFirst;

    bool allows(std::size_t object) const { return object < objects && (object % 2 == 0) == allowsTheFirst; }
    AccessModel model() const {
        AccessModel model;
        for (std::size_t i = 0; i < objects; ++i) {
            const std::vector<Grant> granted{{ROLE, OPERATION, GrantScope::OBJECT}};
            model.add({ObjectNamespace("FOLDER") | std::to_string(i), false, ObjectState::READY,
                       allows(i) ? granted : std::vector<Grant>()});
        }
        return model;
    }
};

/// When the writer is killed.
struct Death {
    unsigned step;
    ssize_t bytes;  // of the write that the step is; negative: before it
};

struct Change {
    const char* name;
    Policy before;
    Policy after;
};
void PrintTo(const Change& change, std::ostream* out) {
    *out << change.name;
}

class WriterKilledTest : public testing::TestWithParam<Change> {
protected:
    static constexpr int NOT_KILLED = 0;

    void publish(const Policy& policy) const {
        CacheWriterOptions options;
        options.durable = false;
        CacheWriter(cache_, options).publish(policy.model());
    }

    std::vector<std::string> stepsOfTheChange() const {
        std::vector<std::string> steps;
        CacheWriterOptions options;
        options.beforeStep = [&](const char* step) { steps.emplace_back(step); };
        publish(GetParam().before);
        CacheWriter(cache_, options).publish(GetParam().after.model());
        return steps;
    }

    /// Publishes the new policy in a process that dies. Whether it came to that.
    bool killedAt(const Death& death) const {
        ChildProcess writer([&] {
            unsigned steps = 0;
            CacheWriterOptions options;
            options.beforeStep = [&](const std::string& step) {
                if (steps++ != death.step) {
                    return;
                }
                if (death.bytes < 0) {
                    kill(getpid(), SIGKILL);
                }
                if (step.rfind("write ", 0) == 0) {
                    lastBytes = death.bytes;
                }
            };
            CacheWriter(cache_, options).publish(GetParam().after.model());
            return NOT_KILLED;
        });
        const int end = writer.wait();
        EXPECT_THAT(end, AnyOf(NOT_KILLED, -SIGKILL));
        return end == -SIGKILL;
    }

    /// A checker over the files as they are now.
    boost::shared_ptr<const AccessChecker> openCache() const {
        return boost::make_shared<DiskAccessChecker>(boost::make_shared<AccessCache>(Manifest("cache", cache_)),
                                                     std::set<int>{ROLE}, Operation(OPERATION), 0);
    }

    Found look(const AccessChecker& checker) const {
        const LogCapture log;
        try {
            const std::vector<bool> all = checkAccessToAll(checker, objects_);
            for (std::size_t i = 0; i < objects_.size(); i += 97) {
                if (checker.checkAccess(objects_[i]) != all[i]) {
                    return Found::NONSENSE;
                }
            }
            return isAnswerOf(GetParam().before, all)  ? Found::OLD
                   : isAnswerOf(GetParam().after, all) ? Found::NEW
                                                       : Found::NONSENSE;
        } catch (const EC_exception& refusal) {
            return refusal.status == 12 ? Found::REFUSED : Found::NONSENSE;
        }
    }

    static bool isAnswerOf(const Policy& policy, const std::vector<bool>& all) {
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (all[i] != policy.allows(i)) {
                return false;
            }
        }
        return true;
    }

    /// Another process, which has the cache open before the writer is killed, and what it finds afterwards.
    class OtherProcess {
    public:
        explicit OtherProcess(const WriterKilledTest& test)
            : process_([&] {
                  const auto checker = test.openCache();
                  const Found first = test.look(*checker);
                  isReady_.notify();
                  writerIsDead_.wait();
                  const Found then = test.look(*checker);
                  hasLooked_.notify();
                  isRepaired_.wait();
                  const Found last = test.look(*checker);
                  return first == Found::OLD && last == Found::NEW ? static_cast<int>(then) : 50;
              }) {
            isReady_.wait();
        }

        void writerDied() {
            writerIsDead_.notify();
            hasLooked_.wait();
        }
        /// What it found when the writer had died, if it also was right before and after.
        Found afterRepair() {
            isRepaired_.notify();
            const int found = process_.wait();
            return found < 4 ? static_cast<Found>(found) : Found::NONSENSE;
        }

    private:
        Signal isReady_;
        Signal writerIsDead_;
        Signal hasLooked_;
        Signal isRepaired_;
        ChildProcess process_;
    };

    /// One life and death of a writer. Whether it died.
    bool dies(const Death& death) {
        SCOPED_TRACE("step " + std::to_string(death.step) + ", bytes " + std::to_string(death.bytes));
        publish(GetParam().before);
        const auto checker = openCache();
        EXPECT_EQ(look(*checker), Found::OLD);
        OtherProcess other(*this);

        const bool died = killedAt(death);
        const Found found = look(*checker);
        EXPECT_NE(found, Found::NONSENSE);
        other.writerDied();

        publish(GetParam().after);
        EXPECT_EQ(look(*checker), Found::NEW);
        EXPECT_EQ(other.afterRepair(), found);
        found_.push_back(found);
        return died;
    }

    const TemporaryDirectory directory_;
    const std::string cache_ = directory_ / "cache";
    const std::vector<ObjectNamespace> objects_ = [] {
        std::vector<ObjectNamespace> objects;
        for (std::size_t i = 0; i < std::max(GetParam().before.objects, GetParam().after.objects); ++i) {
            objects.push_back(ObjectNamespace("FOLDER") | std::to_string(i));
        }
        return objects;
    }();
    std::vector<Found> found_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Policies, WriterKilledTest,
                         testing::Values(Change{"OfEqualSize", {1500, true}, {1500, false}},
                                         Change{"ThatGrow", {20, true}, {3000, false}},
                                         Change{"ThatShrink", {3000, true}, {20, false}},
                                         Change{"ThatBegin", {0, true}, {500, false}},
                                         Change{"ThatEnd", {500, true}, {0, false}}),
                         [](const auto& change) { return change.param.name; });

TEST_P(WriterKilledTest, BeforeAnyStepItLeavesOnePolicyOrNone) {
    for (unsigned step = 0; dies({step, -1}); ++step) {
    }
    EXPECT_GE(found_.size(), 12U);
    EXPECT_THAT(found_, Contains(Found::OLD));
    EXPECT_THAT(found_, Contains(Found::REFUSED));
    EXPECT_EQ(found_.back(), Found::NEW);
}

TEST_P(WriterKilledTest, InTheMidstOfAnyWriteItLeavesOnePolicyOrNone) {
    const std::vector<std::string> steps = stepsOfTheChange();
    for (unsigned step = 0; step < steps.size(); ++step) {
        if (steps[step].rfind("write ", 0) == 0) {
            for (const ssize_t bytes : {0, 1, 40, 5000}) {
                EXPECT_TRUE(dies({step, bytes})) << steps[step];
            }
        }
    }
    EXPECT_GE(found_.size(), 4 * 3U);
    EXPECT_THAT(found_, Contains(Found::REFUSED));
}

}  // namespace Tesmor::Arkwell::Sandbox
