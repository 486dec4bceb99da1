#pragma once

#include "platform/DalPool.h"

#include <memory>

namespace Tesmor {
namespace Dal {
namespace detail {

/// What a view stands for: a statement of the session that its connection has at the time.
class Statement {
public:
    explicit Statement(PooledConnection& connection) : connection_(connection) {}
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement();

private:
    friend class PooledConnection;

    PooledConnection& connection_;
    OpenStatement* open_ = nullptr;  // the session's
    unsigned long session_ = 0;      // the number of that session
};

/// A place in the pool and, most of the time, a connection in it.
class PooledConnection {
public:
    struct Execution {
        const char* sql;
        const Binding* parameters;
        const char* context;
        bool failWhenLost;
    };
    struct Row {
        char* buffer;
        const Binding* columns;
        unsigned long columnCount;
        bool closeAfterwards;
    };

    explicit PooledConnection(std::shared_ptr<ConnectionPool> pool);
    PooledConnection(const PooledConnection&) = delete;
    PooledConnection& operator=(const PooledConnection&) = delete;
    ~PooledConnection();

    /// To be called once, before anything else.
    int acquire();
    int execute(Statement& statement, const Execution& execution);
    int fetch(Statement& statement, const Row& row);
    void close(Statement& statement) noexcept;

private:
    bool isInherited() const;
    bool isCurrent(const Statement& statement) const;
    OpenStatement& openOn(Statement& statement);
    int executeOnce(Statement& statement, const Execution& execution);
    int fetchRow(OpenStatement& open, const Row& row);
    int timedOut(const char* tag, const char* context) noexcept;
    int settle(int status);
    void logFailure(const char* tag, const OpenStatement& open, const std::string& what) const;

    std::shared_ptr<ConnectionPool> pool_;
    unsigned long generation_;
    std::unique_ptr<Link> link_;
    unsigned long session_ = 0;  // counts the sessions that the link has had
    bool acquired_ = false;
};

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
