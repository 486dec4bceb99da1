#pragma once

#include "platform/DalSession.h"
#include "platform/DalWorker.h"

#include <memory>
#include <string>

namespace Tesmor {
namespace Dal {
namespace detail {

/// A connection to the database whose calls end in time, whatever the server does: the calls of a driver that talks to
/// a server are made by a thread of the connection's own, which is abandoned with the connection when a call takes too
/// long. A database that runs in this process is called directly, as a change of threads costs more than a query.
class Link {
public:
    /// How far an attempt to connect has come.
    struct Attempt {
        std::unique_ptr<Link> link;  // null where it failed
        int status = 0;
        std::string problem;  // what is to be logged, without secrets
    };

    static Attempt open(std::shared_ptr<EnvironmentHandle> environment,
                        std::shared_ptr<const platform_detail::Settings> settings, Session::Limits limits);

    Session& session() { return *session_; }
    const Session& session() const { return *session_; }
    /// Whether calls are made by another thread, so that nothing of the caller's may be referred to by them.
    bool isRemote() const { return worker_ != nullptr; }

    // Each calls the function of the session of that name. False when the time has passed: then neither the statement
    // nor the link is good for anything any more.
    bool execute(OpenStatement& statement);
    bool fetch(OpenStatement& statement);
    bool dropRows(OpenStatement& statement);

private:
    Link(std::shared_ptr<Session> session, std::unique_ptr<Worker> worker)
        : worker_(std::move(worker)), session_(std::move(session)) {}

    template <class Call>
    bool run(const Call& call);

    // The session is let go of first: it is then the worker's to close.
    std::unique_ptr<Worker> worker_;
    std::shared_ptr<Session> session_;
};

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
