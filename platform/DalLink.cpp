#include "platform/DalLink.h"

#include <platform/Status.h>

#include <chrono>

namespace Tesmor {
namespace Dal {
namespace detail {

namespace {

// A driver that keeps to the time limit itself knows better what happened, and its connection stays usable.
constexpr std::chrono::milliseconds GRACE{500};

std::string problemOf(const Session& session) {
    const Result& result = session.connectResult();
    Redaction redaction;
    redaction.hideCredentials(session.settings().authDatabase.connectionString);
    std::string problem;
    if (session.failedOnConnect() > 0) {
        problem = "statement " + std::to_string(session.failedOnConnect()) + " of \"authDatabase.onConnect\": ";
        redaction.hide(session.settings().authDatabase.onConnect[session.failedOnConnect() - 1]);
    }
    if (!result.diagnosis.state.empty()) {
        problem += result.diagnosis.state + " ";
    }
    return problem + redaction.applyTo(result.diagnosis.message);
}

}  // namespace

Link::Attempt Link::open(std::shared_ptr<EnvironmentHandle> environment,
                         std::shared_ptr<const platform_detail::Settings> settings, Session::Limits limits) {
    Attempt attempt;
    std::unique_ptr<Worker> worker;
    // Let go of before the worker is, whose it is then to close.
    auto session = std::make_shared<Session>(std::move(environment), std::move(settings), limits);
    worker = Worker::start(session);
    if (worker == nullptr) {
        // GCOVR_EXCL_START: the system has no thread left for the process.
        attempt.status = platform_status::DATABASE_UNREACHABLE;
        attempt.problem = "no thread can be started";
        return attempt;
        // GCOVR_EXCL_STOP
    }
    Session* const connecting = session.get();
    if (!worker->run([connecting] { connecting->connect(); }, Deadline::afterSeconds(limits.loginSeconds, GRACE))) {
        attempt.status = platform_status::DATABASE_TIMED_OUT;
        attempt.problem = "no answer within " + std::to_string(limits.loginSeconds) + " seconds";
        return attempt;
    }
    attempt.status = session->connectResult().status;
    if (attempt.status != 0) {
        attempt.problem = problemOf(*session);
        return attempt;
    }
    if (session->isInProcess()) {
        worker.reset();
    }
    attempt.link.reset(new Link(std::move(session), std::move(worker)));
    return attempt;
}

template <class Call>
bool Link::run(const Call& call) {
    if (worker_ == nullptr) {
        call();
        return true;
    }
    return worker_->run(call, Deadline::afterSeconds(session_->limits().statementSeconds, GRACE));
}

bool Link::execute(OpenStatement& statement) {
    return run([session = session_.get(), &statement] { session->execute(statement); });
}

bool Link::fetch(OpenStatement& statement) {
    return run([session = session_.get(), &statement] { session->fetch(statement); });
}

bool Link::dropRows(OpenStatement& statement) {
    return run([session = session_.get(), &statement] { session->dropRows(statement); });
}

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
