#pragma once

#include <platform/Export.h>
#include <rbac/ObjectNamespace.h>

#include <boost/optional.hpp>

#include <cstdint>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace Tesmor {
namespace Arkwell {
namespace Rbac {

/// An operation as the access cache knows it: the number of its bit in the cache's operation words.
class ARKWELL_EXPORT Operation {
public:
    /// @param bitNumber 0 or more.
    explicit Operation(std::int32_t bitNumber) : bitNumber_(bitNumber) {}

    /// Counted over all words of an operation tree: bit n % 32 of word n / 32.
    std::int32_t bitNumber() const { return bitNumber_; }

private:
    std::int32_t bitNumber_;
};

/// Turns an operation's namespace into its bit number, from the file that the access-control service writes
/// (`TARVO_ROOT/wmc/webserver/temp/operation-cache.json`).
///
/// The file is read on the first lookup and again whenever a lookup misses. What has been read is kept: a later change
/// of a known operation's number is not taken over. Safe from several threads at once.
class ARKWELL_EXPORT OperationCache {
public:
    /// Empty; reads nothing.
    OperationCache();
    /// The same over another file, such as a copy of the service's.
    explicit OperationCache(std::string path);
    ~OperationCache();
    OperationCache(const OperationCache&) = delete;
    OperationCache& operator=(const OperationCache&) = delete;

    /// Reads the file under its lock and adds the operations that are not known yet.
    ///
    /// @throws EC_exception with status 13: the file is missing or not JSON. boost::bad_lexical_cast: a key is no
    /// namespace; boost::numeric::negative_overflow, boost::numeric::positive_overflow: a number does not fit into 32
    /// bits. After either of these the entries before the fault are kept.
    void load();

    /// The operation named `ns`, or none where the service knows no such operation. Throws what load() throws.
    boost::optional<Operation> operator[](const ObjectNamespace& ns);

    /// What has been read so far, in the order of the namespaces.
    std::vector<std::pair<ObjectNamespace, Operation>> known() const;

private:
    boost::optional<Operation> find(const ObjectNamespace& ns) const;
    void readFile();
    void add(ObjectNamespace ns, Operation operation);

    std::string path_;
    std::map<ObjectNamespace, Operation> operations_;
    mutable std::shared_mutex mutex_;  // guards operations_
    std::mutex reading_;               // one thread reads the file; what is known is found meanwhile
};

}  // namespace Rbac
}  // namespace Arkwell
}  // namespace Tesmor
