#pragma once

#include <platform/Export.h>

namespace Tesmor {
namespace Dal {
class DbConnectionManager;
}
namespace Arkwell {

/// Borrows or owns the connection manager that queries go through. Any number of threads may share one.
class ARKWELL_EXPORT RBACDbConnectionMgr {
public:
    /// @param manager borrowed, and must outlive this object. Null has this object make and own one, with at most two
    /// connections; opening its first one may wait for the database.
    explicit RBACDbConnectionMgr(Tesmor::Dal::DbConnectionManager* manager);
    RBACDbConnectionMgr(const RBACDbConnectionMgr&) = delete;
    RBACDbConnectionMgr& operator=(const RBACDbConnectionMgr&) = delete;
    virtual ~RBACDbConnectionMgr();

    /// Never null; not the caller's.
    Tesmor::Dal::DbConnectionManager* getDbConnectionMgr();

    /// Whether the manager has a connection to the database.
    bool connectionEstablished();

private:
    Tesmor::Dal::DbConnectionManager* manager_;
    bool owned_;
};

}  // namespace Arkwell
}  // namespace Tesmor
