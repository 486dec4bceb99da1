#include "platform/Handles.h"
#include "sandbox/AdminSocket.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <boost/optional/optional_io.hpp>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

using namespace Tesmor::Arkwell::Sandbox;
using platform_detail::Descriptor;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::SizeIs;
using testing_support::LogCapture;

namespace {

/// Ends the test where it waits too long, which would otherwise be for ever.
class Deadline {
public:
    explicit Deadline(unsigned int limit) { alarm(limit); }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;
    ~Deadline() { alarm(0); }
};

/// A client that has said nothing yet.
void connectTo(const std::string& folder, const Descriptor& client) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = folder + "/admin.sock";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

class AdminSocketTest : public testing::Test {
protected:
    std::unique_ptr<AdminSocket> open() const {
        return std::make_unique<AdminSocket>(directory_.path(),
                                             [](const std::string& command) { return "did " + command; });
    }

    testing_support::TemporaryDirectory directory_;
    const Deadline deadline_{60};
};

Descriptor makeClient() {
    return Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

/// Whether something is logged within the time.
bool waitForLine(const LogCapture& log) {
    const auto limit = steady_clock::now() + seconds(20);
    while (steady_clock::now() < limit) {
        if (!log.linesAt(16).empty()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

TEST_F(AdminSocketTest, AnswersACommand) {
    const auto commands = open();
    EXPECT_EQ(askService(directory_.path(), "this"), std::string("did this"));
}

TEST_F(AdminSocketTest, AnswersOthersBesideAClientThatSaysNothing) {
    const LogCapture log;
    const auto commands = open();
    const Descriptor silent = makeClient();
    connectTo(directory_.path(), silent);
    EXPECT_EQ(askService(directory_.path(), "this"), std::string("did this"));
}

TEST_F(AdminSocketTest, EndsBesideAClientThatSaysNothing) {
    const LogCapture log;
    auto commands = open();
    const Descriptor silent = makeClient();
    connectTo(directory_.path(), silent);
    commands.reset();
    EXPECT_FALSE(askService(directory_.path(), "this"));
}

TEST_F(AdminSocketTest, CarriesOutNothingOfAClientThatDoesNotFinish) {
    const LogCapture log;
    const auto commands = open();
    const Descriptor slow = makeClient();
    connectTo(directory_.path(), slow);
    ASSERT_EQ(send(slow.get(), "half", 4, 0), 4);
    char answer = 0;
    EXPECT_EQ(recv(slow.get(), &answer, 1, 0), 0);
    ASSERT_THAT(log.linesAt(16), SizeIs(1));
    EXPECT_EQ(log.linesAt(16).front().message, "A client did not finish its command: Resource temporarily unavailable");
}

TEST_F(AdminSocketTest, GoesOnWhenThereAreDescriptorsAgain) {
    const LogCapture log;
    const auto commands = open();
    {
        const Descriptor waiting = makeClient();
        const std::string folder = directory_.path();
        rlimit before{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        rlimit none = before;
        none.rlim_cur = 0;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        // The descriptor of the accept() that waits already was taken before.
        connectTo(folder, waiting);
        shutdown(waiting.get(), SHUT_WR);
        EXPECT_TRUE(waitForLine(log));
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    }
    EXPECT_EQ(askService(directory_.path(), "this"), std::string("did this"));
    ASSERT_THAT(log.linesAt(16), SizeIs(1));
    EXPECT_EQ(log.linesAt(16).front().message, "Cannot take commands: Too many open files");
}
