#pragma once

#include <sql.h>
#include <sqlext.h>

#include <utility>

namespace Tesmor {
namespace Dal {
namespace detail {

/// Owns a handle of the driver manager, or nothing where making it failed.
template <SQLSMALLINT TYPE>
class Handle {
public:
    Handle() = default;
    explicit Handle(SQLHANDLE parent) {
        if (!SQL_SUCCEEDED(SQLAllocHandle(TYPE, parent, &handle_))) {
            handle_ = SQL_NULL_HANDLE;  // GCOVR_EXCL_LINE: the driver manager has no memory
        }
    }
    Handle(Handle&& other) noexcept : handle_(other.release()) {}
    Handle& operator=(Handle&& other) noexcept {
        Handle(std::move(other)).swap(*this);
        return *this;
    }
    ~Handle() {
        if (*this) {
            SQLFreeHandle(TYPE, handle_);
        }
    }

    explicit operator bool() const { return handle_ != SQL_NULL_HANDLE; }
    SQLHANDLE get() const { return handle_; }
    /// Leaves the handle to somebody else, or to nobody.
    SQLHANDLE release() { return std::exchange(handle_, SQLHANDLE{SQL_NULL_HANDLE}); }
    void swap(Handle& other) noexcept { std::swap(handle_, other.handle_); }

private:
    SQLHANDLE handle_ = SQL_NULL_HANDLE;
};

using EnvironmentHandle = Handle<SQL_HANDLE_ENV>;
using ConnectionHandle = Handle<SQL_HANDLE_DBC>;
using StatementHandle = Handle<SQL_HANDLE_STMT>;

}  // namespace detail
}  // namespace Dal
}  // namespace Tesmor
