#include "jwt/PositionedLog.h"

#include <jwt/RBACDbConnectionMgr.h>
#include <platform/Dal.h>

namespace Tesmor::Arkwell {

namespace {

Tesmor::Dal::DbConnectionManager* startManager() {
    PositionedLog("RBACDbConnectionMgr", "RBACDbConnectionMgr::RBACDbConnectionMgr")
        .debug(1, 27, "Starting database connection manager");
    return new Tesmor::Dal::DbConnectionManager(1, 2, 0, 1, 30, 15, 40, Tesmor::Dal::USERID_AUTHORIZATION, false);
}

}  // namespace

RBACDbConnectionMgr::RBACDbConnectionMgr(Tesmor::Dal::DbConnectionManager* manager)
    : manager_(manager != nullptr ? manager : startManager()), owned_(manager == nullptr) {}

RBACDbConnectionMgr::~RBACDbConnectionMgr() {
    if (owned_) {
        delete manager_;
    }
}

Tesmor::Dal::DbConnectionManager* RBACDbConnectionMgr::getDbConnectionMgr() {
    return manager_;
}

bool RBACDbConnectionMgr::connectionEstablished() {
    return manager_->connectionEstablished();
}

}  // namespace Tesmor::Arkwell
