#pragma once

#include <rbac/ObjectNamespace.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace bench {

using Tesmor::Arkwell::Rbac::ObjectNamespace;

constexpr int ROLES = 100;
constexpr int OPERATIONS = 64;
constexpr int ROLES_OF_A_USER = 5;

struct CorpusGrant {
    int roleId;
    int operation;
    bool own;
    bool children;
};

struct CorpusObject {
    ObjectNamespace name;
    bool inherit;
    std::vector<CorpusGrant> grants;
};

/// Calls `visit` with each object of the corpus, parents before children: hosts, instances and databases of a data
/// protection product, `count` of them (at least a few dozen), 4 to 8 components deep. The same objects each time.
void forEachObject(std::size_t count, const std::function<void(const CorpusObject&)>& visit);

/// One folder in another, twenty components deep, a thousand times over.
void forEachDeepObject(const std::function<void(const CorpusObject&)>& visit);

/// The roles of some user.
std::set<int> userRoles(std::mt19937& random);

}  // namespace bench
