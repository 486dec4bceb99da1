#pragma once

#include "SettingsFixture.h"
#include "testing/LogCapture.h"
#include "testing/PostgresCluster.h"

#include <platform/Dal.h>
#include <platform/Status.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

/// The numbers that a test makes its manager with.
struct ManagerNumbers {
    unsigned initialConnections = 0;
    unsigned maximumConnections = 2;
    unsigned connectRetries = 0;
    unsigned retryDelaySeconds = 0;
    unsigned acquireTimeoutSeconds = 1;
    unsigned loginTimeoutSeconds = 5;
    unsigned statementTimeoutSeconds = 5;
    bool trace = true;
};

inline std::unique_ptr<Tesmor::Dal::DbConnectionManager> makeManager(const ManagerNumbers& numbers = {}) {
    return std::make_unique<Tesmor::Dal::DbConnectionManager>(
        numbers.initialConnections, numbers.maximumConnections, numbers.connectRetries, numbers.retryDelaySeconds,
        numbers.acquireTimeoutSeconds, numbers.loginTimeoutSeconds, numbers.statementTimeoutSeconds,
        Tesmor::Dal::USERID_AUTHORIZATION, numbers.trace);
}

/// The PostgreSQL server of the test program; started by the first test that needs it.
inline testing_support::PostgresCluster& cluster() {
    static testing_support::PostgresCluster instance;
    return instance;
}

/// The settings file with these as `authDatabase`.
inline std::string databaseSettings(const std::string& connectionString, const std::string& onConnect = "") {
    return R"({"authDatabase": {"connectionString": ")" + connectionString + R"(", "onConnect": [)" + onConnect + "]}}";
}

inline std::string sqliteConnectionString(const std::string& file) {
    return "Driver=" ARKWELL_ODBC_DRIVER_DIR "/libsqlite3odbc.so;Database=" + file;
}

/// A row of two columns, with bytes around and between them that nobody may change.
class TwoColumns {
public:
    explicit TwoColumns(std::uint32_t textSize = 100)
        : columns{{"Name", Tesmor::Dal::DalOdbcView::KIND_CHARACTER << 16, 16, textSize, 0, nullptr},
                  {"Number", Tesmor::Dal::DalOdbcView::KIND_INT32 << 16, 32 + textSize, 4, 0, nullptr}},
          buffer(64 + textSize, FILLER) {}

    std::string text() const { return buffer.data() + columns[0].offset; }
    std::int32_t number() const {
        std::int32_t value = 0;
        std::memcpy(&value, buffer.data() + columns[1].offset, sizeof value);
        return value;
    }
    bool isIntactOutside() const {
        for (std::size_t i = 0; i < buffer.size(); ++i) {
            const bool isInside = isIn(columns[0], i) || isIn(columns[1], i);
            if (!isInside && buffer[i] != FILLER) {
                return false;
            }
        }
        return true;
    }

    std::vector<Tesmor::Dal::DalOdbcView::BindingStruct> columns;
    std::vector<char> buffer;

private:
    static constexpr char FILLER = '\x5A';
    static bool isIn(const Tesmor::Dal::DalOdbcView::BindingStruct& column, std::size_t position) {
        return position >= column.offset && position < std::size_t{column.offset} + column.size;
    }
};

/// A guard with a view, as callers use them.
class Client {
public:
    explicit Client(Tesmor::Dal::DbConnectionManager& manager) : guard_(&manager) {
        if (guard_.status() == 0) {
            view_ = std::make_unique<Tesmor::Dal::DbConnectionView>(guard_.connection());
        }
    }

    int status() const { return guard_.status(); }
    Tesmor::Dal::DbConnection& connection() { return *guard_.connection(); }
    Tesmor::Dal::DalOdbcView* view() { return view_->view(); }

    int execute(const std::string& sql, const std::vector<std::string>& values = {}, bool failWhenLost = false) {
        Tesmor::Dal::ParameterBinder binder;
        for (const std::string& value : values) {
            binder.bindInputString(value.data(), static_cast<int>(value.size()), false);
        }
        return execute(sql, binder, failWhenLost);
    }
    int execute(const std::string& sql, Tesmor::Dal::ParameterBinder& binder, bool failWhenLost = false) {
        return status() != 0
                   ? status()
                   : connection().Execute(view(), sql.c_str(), binder.get(), 6, "Test::caller", failWhenLost, true);
    }
    int fetch(TwoColumns& row, bool closeAfterRow = false) {
        const int status = connection().Fetch(view(), row.buffer.data(), row.buffer.size(), row.columns.data(),
                                              row.columns.size(), &rowsFetched_, true, closeAfterRow);
        EXPECT_EQ(rowsFetched_, status == 0 ? 1U : 0U);
        return status;
    }
    /// The first column of all rows of a result with two.
    std::vector<std::string> select(const std::string& sql, const std::vector<std::string>& values = {}) {
        std::vector<std::string> texts;
        int status = execute(sql, values);
        EXPECT_EQ(status, 0);
        if (status != 0) {
            return texts;
        }
        TwoColumns row;
        while ((status = fetch(row)) == 0) {
            texts.push_back(row.text());
        }
        EXPECT_EQ(status, platform_status::DATABASE_END_OF_ROWS);
        return texts;
    }

private:
    Tesmor::Dal::SSRGuard guard_;
    std::unique_ptr<Tesmor::Dal::DbConnectionView> view_;
    unsigned long rowsFetched_ = 77;
};

/// How many of the lines are this one.
inline long count(const std::vector<testing_support::LogLine>& lines, const testing_support::LogLine& line) {
    return std::count(lines.begin(), lines.end(), line);
}

const testing_support::LogLine OPENED{4, "DbConnectionManager::connect", "connection opened for user type 6"};
const testing_support::LogLine CLOSED{4, "DbConnectionManager::close", "connection closed for user type 6"};
