#pragma once

/// @file
/// The queries of the authorization database.

#include <jwt/RBACDbConnectionMgr.h>
#include <platform/Dal.h>
#include <platform/Export.h>

#include <boost/shared_ptr.hpp>

#include <list>
#include <set>
#include <string>

namespace Tesmor {
namespace Arkwell {

/// Asks the authorization database. Safe from any thread.
class ARKWELL_EXPORT RBACQueryMgr {
public:
    RBACQueryMgr() = default;
    RBACQueryMgr(const RBACQueryMgr&) = delete;
    RBACQueryMgr& operator=(const RBACQueryMgr&) = delete;
    virtual ~RBACQueryMgr();

    /// Gets the criteria that define which objects of a type the given collections cover.
    ///
    /// @param collectionKeys the collections; none gives no criteria.
    /// @param objectType text that ends in a NUL.
    /// @param criteria JSON texts are appended, also those read before a failure.
    /// @return 0 (also where there are none), or 220: the database failed.
    virtual int fetchCollectionCriteria(const std::set<int>& collectionKeys, const char* objectType,
                                        std::list<std::string>& criteria) = 0;

    /// Gets the authorization token of a session.
    ///
    /// @param sessionToken verified before the database is asked.
    /// @param azToken untouched on failure.
    /// @return 0; 117: the session is unknown; 220: the database failed, or the token is longer than 32,000 bytes;
    /// otherwise what ValidatingJwtParser::parseJwt() returns: 8002 for a token that is not genuine, 8001 for one that
    /// has expired.
    virtual int fetchAzToken(const std::string& sessionToken, std::string& azToken) = 0;
};

/// RBACQueryMgr over the data-access layer. Each query takes a connection of its own and gives it back. Failures are
/// logged at debug level 1, by the data-access layer at level 16.
class ARKWELL_EXPORT RBACDbQueryMgr : public RBACQueryMgr {
public:
    /// Asks over this connection, which several of these may share.
    explicit RBACDbQueryMgr(boost::shared_ptr<RBACDbConnectionMgr> connection);
    ~RBACDbQueryMgr() override;

    int fetchCollectionCriteria(const std::set<int>& collectionKeys, const char* objectType,
                                std::list<std::string>& criteria) override;
    int fetchAzToken(const std::string& sessionToken, std::string& azToken) override;

    static const std::string SELECT_ACCESS_TOKEN_DETAILS;       ///< the columns of the token query
    static const std::string SELECT_ACCESS_TOKEN_DETAILS_FROM;  ///< its table, with a leading blank

    /// The row of the token query, 32,001 bytes: the token. Not const, as Fetch() takes it; nobody writes it.
    static Tesmor::Dal::DalOdbcView::BindingStruct accessTokenDetailsBinding[1];

private:
    boost::shared_ptr<RBACDbConnectionMgr> connection_;
};

/// The row of the criteria query, 32,776 bytes: id, collection key, criteria text.
ARKWELL_EXPORT extern Tesmor::Dal::DalOdbcView::BindingStruct collectionCriteriaBinding[3];

}  // namespace Arkwell
}  // namespace Tesmor
