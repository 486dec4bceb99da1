#pragma once

#include "testing/TemporaryDirectory.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace testing_support {

/// A PostgreSQL server of the test program's own, on a port of its own of 127.0.0.1, with an empty database. Runs from
/// the beginning; it and its files are gone at the end, and the server also if the test program is killed. When the
/// tests run as root, the server runs as the user `postgres`.
///
/// Belongs to the thread that made it.
class PostgresCluster {
public:
    PostgresCluster();
    PostgresCluster(const PostgresCluster&) = delete;
    PostgresCluster& operator=(const PostgresCluster&) = delete;
    ~PostgresCluster();

    /// Returns when connections are accepted. On the same port as before.
    ///
    /// @param largestFile how large the server may make a file, in bytes: beyond that the disk is full for it.
    void start(unsigned long largestFile = UNLIMITED);
    /// At once, without telling the clients.
    void stop();
    /// Kills every process of the server, which then has to recover when it starts again.
    void crash();
    void restart() {
        stop();
        start();
    }
    /// Stops every process of the server where it is, until resume().
    void pause();
    void resume();
    /// Ends the processes that serve connections; the server takes new ones.
    void terminateConnections() const;

    /// Executes SQL over a connection of its own.
    void execute(const std::string& sql) const;
    /// @return the first value of the result.
    std::string query(const std::string& sql) const;

    /// @param options further attributes, as "KEY=value;KEY=value".
    /// @param driver "psqlodbcw.so" or "psqlodbca.so".
    std::string connectionString(const std::string& options = "", const std::string& driver = "psqlodbcw.so") const;
    static std::string user() { return "cluster_user"; }
    static std::string password() { return "cluster-secret"; }
    int port() const { return port_; }

private:
    static constexpr unsigned long UNLIMITED = ~0UL;

    pid_t spawn(const std::vector<std::string>& arguments, int output, unsigned long largestFile = UNLIMITED) const;
    /// @return what it wrote.
    std::string run(const std::vector<std::string>& arguments) const;
    bool runs(const std::vector<std::string>& arguments) const;
    std::vector<std::string> psql(const std::string& sql) const;
    void signalAll(int signal) const;
    void initialise() const;
    bool hasExited();

    TemporaryDirectory directory_;
    std::string programs_;
    bool asRoot_;
    int port_;
    pid_t server_ = -1;
};

}  // namespace testing_support
