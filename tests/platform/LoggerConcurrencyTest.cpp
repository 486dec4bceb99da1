#include "LoggerFixture.h"
#include "testing/ChildProcess.h"

#include <platform/Installation.h>
#include <platform/Logger.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing_support::ChildProcess;

constexpr int THREADS = 8;
constexpr int FORKS = 60;
constexpr unsigned CHILD_SECONDS = 60;  // a child that hangs is ended by its alarm

/// Threads that do the same thing again and again until the end.
class Busy {
public:
    Busy(int count, const std::function<void()>& work) {
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this, work] {
                while (!done_) {
                    work();
                    ++rounds_;
                }
            });
        }
        while (rounds_ == 0) {
            std::this_thread::yield();
        }
    }
    ~Busy() {
        done_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

private:
    std::atomic<bool> done_{false};
    std::atomic<long> rounds_{0};
    std::vector<std::thread> threads_;
};

std::string messageOf(int thread, int number) {
    // Beyond a page, so that a line in pieces would show.
    return std::to_string(thread) + "-" + std::to_string(number) +
           std::string(static_cast<std::size_t>(number % 50) * 200, 'x');
}

/// Has all threads log, and checks that `lines` then gives just what they logged.
void expectWholeLines(const std::function<std::vector<std::string>()>& lines) {
    constexpr int MESSAGES = 200;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([thread] {
            for (int number = 0; number < MESSAGES; ++number) {
                logmsg(16, "t", messageOf(thread, number).c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::vector<std::string> expected;
    for (int thread = 0; thread < THREADS; ++thread) {
        for (int number = 0; number < MESSAGES; ++number) {
            expected.push_back("16 [t] " + messageOf(thread, number));
        }
    }
    std::vector<std::string> written = lines();
    std::sort(expected.begin(), expected.end());
    std::sort(written.begin(), written.end());
    EXPECT_TRUE(expected == written);
}

TEST(LoggerConcurrency, ThreadsWriteWholeLinesToAFile) {
    const LoggerFixture log;
    expectWholeLines([&] { return log.messages(); });
}

TEST(LoggerConcurrency, ThreadsWriteWholeLinesToAPipe) {
    // What a pipe cannot take in one piece it takes in several, among which those of another writer may come.
    LoggerFixture log;
    const std::string pipe = log.path("pipe");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    // Open for writing as well: the pipe then does not end between two lines.
    const int reading = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    std::thread reader([&] {
        std::string text;
        std::vector<char> chunk(1 << 16);
        while (text.find("the end\n") == std::string::npos) {
            const ssize_t count = read(reading, chunk.data(), chunk.size());
            text.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
        testing_support::writeFile(log.path("received"), text);
    });
    log.set("pipe", 8);
    expectWholeLines([&] {
        logmsg(16, "t", "the end");
        reader.join();
        std::vector<std::string> messages = log.messages("received");
        messages.pop_back();
        return messages;
    });
    close(reading);
}

TEST(LoggerConcurrency, ThreadsFindEitherTheOldOrTheNewSettings) {
    LoggerFixture log;
    std::atomic<int> unexpected{0};
    {
        const Busy readers(THREADS, [&] {
            char name[257];
            if (db_getservernameEx(name, sizeof name) != 0 || std::string(name) != "primary.example") {
                ++unexpected;
            }
            AWLogger::defaultInstance()->isDebugEnabled(1);
        });
        for (int i = 0; i < 300; ++i) {
            log.set(i % 2 == 0 ? "even" : "odd", 8 + i % 9, i % 3);
        }
    }
    EXPECT_EQ(0, unexpected);
}

TEST(LoggerConcurrency, NoThreadCallsASinkThatHasBeenReplaced) {
    const SettingsFixture settings(R"({"log": {"file": "/dev/null"}})");
    constexpr int SINKS = 300;
    std::array<std::atomic<bool>, SINKS> replaced{};
    std::atomic<int> calledTooLate{0};
    const Busy loggers(3, [] { logmsg(16, "t", "x"); });
    for (std::size_t i = 0; i < SINKS; ++i) {
        setLogSink([&, i](int, const std::string&, const std::string&) {
            if (replaced[i]) {
                ++calledTooLate;
            }
        });
        if (i > 0) {
            replaced[i - 1] = true;
        }
    }
    setLogSink([](int, const std::string&, const std::string&) {});
    replaced[SINKS - 1] = true;
    EXPECT_EQ(0, calledTooLate);
}

/// A thread that is inside the sink until it is let go. To other threads the sink throws.
class ThreadInSink {
public:
    ThreadInSink() {
        setLogSink([this](int, const std::string&, const std::string&) {
            inside_.set_value();
            release_.get_future().wait();
        });
        thread_ = std::thread([] { logmsg(16, "t", "x"); });
        inside_.get_future().wait();
    }
    ~ThreadInSink() {
        letGo();
        setLogSink({});
    }

    void letGo() {
        if (thread_.joinable()) {
            release_.set_value();
            thread_.join();
        }
    }

private:
    std::promise<void> inside_;
    std::promise<void> release_;
    std::thread thread_;
};

TEST(LoggerConcurrency, ReplacingASinkWaitsForTheCallInProgress) {
    ThreadInSink other;
    std::promise<void> replaced;
    std::future<void> whenReplaced = replaced.get_future();
    std::thread replacing([&] {
        setLogSink({});
        replaced.set_value();
    });
    EXPECT_EQ(std::future_status::timeout, whenReplaced.wait_for(std::chrono::milliseconds(50)));
    other.letGo();
    whenReplaced.wait();
    replacing.join();
}

TEST(LoggerConcurrency, ASlowSinkHoldsUpNobodyElse) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> inside;
    setLogSink([&, released](int, const std::string&, const std::string& message) {
        if (message == "slow") {
            inside.set_value();
            released.wait();
        }
    });
    std::thread slow([] { logmsg(16, "t", "slow"); });
    inside.get_future().wait();
    logmsg(16, "t", "quick");
    release.set_value();
    slow.join();
    setLogSink({});
}

int logAndReadSettings() {
    alarm(CHILD_SECONDS);
    logmsg(16, "child", "x");
    AWLogger::defaultInstance()->debug(1, "child", "x");
    setLogSink([](int, const std::string&, const std::string&) {});
    logmsg(16, "child", "x");
    setLogSink({});
    char name[257];
    return db_getservernameEx(name, sizeof name);
}

TEST(LoggerFork, AChildLogsAlthoughOtherThreadsWereWritingTheLog) {
    const LoggerFixture log(8, 6);
    const Busy loggers(2, [] { logmsgf(16, "parent", "%s", "x"); });
    for (int i = 0; i < FORKS; ++i) {
        ChildProcess child(logAndReadSettings);
        ASSERT_EQ(0, child.wait());
    }
}

TEST(LoggerFork, AChildReadsTheSettingsAlthoughOtherThreadsWereReadingThem) {
    LoggerFixture log(8, 6);
    const Busy readers(2, [&] {
        char name[257];
        db_getservernameEx(name, sizeof name);
    });
    for (int i = 0; i < FORKS; ++i) {
        log.set("log", 8, i);  // so that the file is being read, not only looked at
        ChildProcess child(logAndReadSettings);
        ASSERT_EQ(0, child.wait());
    }
}

TEST(LoggerFork, AChildLogsAlthoughOtherThreadsWereReplacingAndCallingSinks) {
    const SettingsFixture settings(R"({"primaryServer": "a", "log": {"file": "/dev/null"}})");
    {
        const Busy loggers(1, [] { logmsg(16, "parent", "x"); });
        const Busy replacers(2, [] { setLogSink([](int, const std::string&, const std::string&) {}); });
        for (int i = 0; i < FORKS; ++i) {
            ChildProcess child(logAndReadSettings);
            ASSERT_EQ(0, child.wait());
        }
    }
    setLogSink({});
}

TEST(LoggerFork, AChildDoesNotWaitForASinkThatAnotherThreadOfItsParentIsIn) {
    const LoggerFixture log;
    const ThreadInSink other;
    ChildProcess child([] {
        alarm(CHILD_SECONDS);
        setLogSink({});
        logmsg(16, "child", "x");
        return 0;
    });
    EXPECT_EQ(0, child.wait());
    EXPECT_THAT(log.messages(), testing::ElementsAre("16 [child] x"));
}

TEST(LoggerFork, AChildReplacesSinksAlthoughAThreadOfItsParentWasWaitingToReplaceOne) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer allows no thread in the child of a process with threads";
#endif
    const LoggerFixture log;
    ThreadInSink other;
    std::thread replacing([] { setLogSink({}); });
    while (!std::filesystem::exists(log.path())) {
        logmsg(16, "t", "x");  // goes to the log as soon as the other thread waits
    }
    ChildProcess child([] {
        alarm(CHILD_SECONDS);
        for (int i = 0; i < 10; ++i) {
            ThreadInSink childs;
            std::thread childReplacing([&] { setLogSink({}); });
            childs.letGo();
            childReplacing.join();
        }
        return 0;
    });
    EXPECT_EQ(0, child.wait());
    other.letGo();
    replacing.join();
}

TEST(LoggerFork, ASinkMayFork) {
    const LoggerFixture log;
    int ended = -1;
    setLogSink([&](int, const std::string&, const std::string&) {
        ChildProcess child([] {
            alarm(CHILD_SECONDS);
            logmsg(16, "child", "x");
            return 0;
        });
        ended = child.wait();
    });
    logmsg(16, "t", "x");
    setLogSink({});
    EXPECT_EQ(0, ended);
    EXPECT_THAT(log.messages(), testing::ElementsAre("16 [child] x"));
}

TEST(LoggerFork, AChildOfASinkMayReplaceItOnceItHasReturned) {
    const LoggerFixture log;
    pid_t child = -1;
    setLogSink([&](int, const std::string&, const std::string&) { child = fork(); });
    logmsg(16, "t", "x");
    if (child == 0) {
        alarm(CHILD_SECONDS);
        setLogSink({});
        logmsg(16, "child", "y");
        _exit(0);
    }
    setLogSink({});
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_THAT(log.messages(), testing::ElementsAre("16 [child] y"));
}

TEST(LoggerFork, AChildsLinesCarryItsOwnNumbers) {
    const LoggerFixture log;
    logmsg(16, "t", "x");
    ChildProcess child([] {
        logmsg(16, "t", "x");
        return 0;
    });
    const std::string number = std::to_string(child.pid());
    ASSERT_EQ(0, child.wait());
    ASSERT_EQ(2U, log.lines().size());
    EXPECT_THAT(log.lines()[1], testing::HasSubstr(" " + number + "." + number + " "));
}

}  // namespace
