#pragma once

#include "rbac/enforcement/DiskAccessControlClient.h"
#include "sandbox/CacheWriter.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/AccessLists.h>
#include <rbac/BulkAccess.h>
#include <rbac/OperationCache.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace testing_support {

/// An access cache whose writer publishes one of two policies in turn, number 0 and number 1. They contradict each
/// other on every object of a folder, and there is more or less of other things beside it each time, so that all sizes
/// and places differ: an answer, or a list, that is made of both shows it.
class AlternatingPolicies {
public:
    using AccessChecker = Tesmor::Arkwell::Rbac::AccessChecker;
    using AccessControlClient = Tesmor::Arkwell::Rbac::AccessControlClient;
    using AccessModel = Tesmor::Arkwell::Sandbox::AccessModel;
    using CacheWriterOptions = Tesmor::Arkwell::Sandbox::CacheWriterOptions;
    using ObjectNamespace = Tesmor::Arkwell::Rbac::ObjectNamespace;

    static constexpr int ROLE = 7;
    static constexpr int MIXED = -1;

    AlternatingPolicies() {
        for (std::size_t i = 0; i < OBJECTS; ++i) {
            objects_.push_back(ObjectNamespace("CONTRADICTED") | std::to_string(i));
            objects_.back().str();
        }
        always_.str();
        never_.str();
        for (std::size_t i = 0; i < OTHERS.size(); ++i) {
            models_[i] = modelWith(OTHERS[i]);
        }
        writeFile(operationsFile(), R"({"|OPERATIONS|VIEW|": 37})");
        operations_.load();
    }

    std::string cacheDirectory() const { return directory_ / "cache"; }

    /// Publishes policy `number % 2`, without waiting for the disk.
    ///
    /// @param beforeStep as the writer's options have it.
    void publish(unsigned number, const std::function<void(const char*)>& beforeStep = {}) const {
        CacheWriterOptions options;
        options.durable = false;
        options.beforeStep = beforeStep;
        Tesmor::Arkwell::Sandbox::CacheWriter(cacheDirectory(), options).publish(models_[number % models_.size()]);
    }

    /// A client over the cache as it is now. Must not outlive this.
    boost::shared_ptr<AccessControlClient> client() {
        using namespace Tesmor::Arkwell::Rbac;
        return boost::make_shared<DiskAccessControlClient>(
            ObjectNamespace(), boost::make_shared<AccessCache>(Manifest("some cache", cacheDirectory())), operations_);
    }

    static boost::shared_ptr<const AccessChecker> checkerOf(AccessControlClient& client) {
        boost::shared_ptr<const AccessChecker> checker;
        client.createAccessChecker(std::set<int>{ROLE}, view(), 0, checker);
        return checker;
    }

    /// Which policy many objects are answered by that are asked for at once, or MIXED.
    int policyOf(const AccessChecker& checker) const {
        const std::vector<bool> allowed = checkAccessToAll(checker, objects_);
        const int policy = allowed.front() ? 0 : 1;
        for (std::size_t i = 0; i < allowed.size(); ++i) {
            if (allowed[i] != isAllowed(i, policy)) {
                return MIXED;
            }
        }
        return policy;
    }

    /// Which policy a list of all that is allowed shows, or MIXED.
    int policyOfList(AccessControlClient& client) const {
        std::size_t listed = 0;
        std::vector<std::string> contradicted;
        forEachAllowedObject(client, {ROLE}, view(), ObjectNamespace(), [&](const std::string& text) {
            ++listed;
            if (text.rfind("|CONTRADICTED|", 0) == 0) {
                contradicted.push_back(text);
            }
            return true;
        });
        for (const std::size_t others : OTHERS) {
            const int policy = policyWith(others);
            if (listed == others + OBJECTS / 2 + 1 && contradicted == listedUnder(policy)) {
                return policy;
            }
        }
        return MIXED;
    }

    /// Whether objects are answered as every policy answers them, though each for a reason of its own.
    bool answersTheInvariant(const AccessChecker& checker) const {
        return checker.checkAccess(always_) && !checker.checkAccess(never_);
    }

private:
    static constexpr std::size_t OBJECTS = 64;
    // How many other objects there are. Also which policy it is, by the last bit.
    static constexpr std::array<std::size_t, 6> OTHERS{0, 2001, 400, 1, 3000, 151};
    static constexpr int OPERATION = 37;

    static const ObjectNamespace& view() { return Tesmor::Arkwell::Rbac::root_namespaces::operations::VIEW; }
    static int policyWith(std::size_t others) { return static_cast<int>(others % 2); }
    static bool isAllowed(std::size_t object, int policy) { return static_cast<int>(object % 2) == policy; }

    std::vector<std::string> listedUnder(int policy) const {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < objects_.size(); ++i) {
            if (isAllowed(i, policy)) {
                texts.push_back(objects_[i].str());
            }
        }
        std::sort(texts.begin(), texts.end());
        return texts;
    }

    AccessModel modelWith(std::size_t others) const {
        using namespace Tesmor::Arkwell::Sandbox;
        const int policy = policyWith(others);
        const std::vector<Grant> nothing;
        const auto granted = [](GrantScope scope) { return std::vector<Grant>{{ROLE, OPERATION, scope}}; };
        AccessModel model;
        for (std::size_t i = 0; i < others; ++i) {
            model.add({ObjectNamespace("BESIDE") | std::to_string(i * 7919 % 100'000), false, ObjectState::READY,
                       granted(GrantScope::OBJECT)});
        }
        for (std::size_t i = 0; i < objects_.size(); ++i) {
            model.add(
                {objects_[i], false, ObjectState::READY, isAllowed(i, policy) ? granted(GrantScope::OBJECT) : nothing});
        }
        const bool first = policy == 0;
        const auto inherited = first ? nothing : granted(GrantScope::CHILDREN);
        model.add({always_, !first, ObjectState::READY, first ? granted(GrantScope::OBJECT) : nothing});
        model.add({ObjectNamespace("ALWAYS"), false, ObjectState::READY, inherited});
        model.add({never_, first, ObjectState::READY, nothing});
        model.add({ObjectNamespace("NEVER"), false, ObjectState::READY, inherited});
        return model;
    }

    std::string operationsFile() const { return directory_ / "operation-cache.json"; }

    TemporaryDirectory directory_;
    std::vector<ObjectNamespace> objects_;
    ObjectNamespace always_{"ALWAYS", "THERE"};
    ObjectNamespace never_{"NEVER", "THERE"};
    std::array<AccessModel, OTHERS.size()> models_;
    Tesmor::Arkwell::Rbac::OperationCache operations_{operationsFile()};
};

}  // namespace testing_support
