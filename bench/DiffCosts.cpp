// What it takes to find out what changed between two caches of a million objects, beside a walk through both that
// compares nothing.

#include "bench/BenchCache.h"
#include "bench/HeapPeak.h"
#include "rbac/cache/ObjectCursor.h"
#include "tools/AccessDiff.h"

#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <functional>
#include <iomanip>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell;
using Rbac::AccessCache;
using Rbac::ObjectNamespace;
using Rbac::detail::CacheAccess;
using Rbac::detail::CacheView;
using Rbac::detail::ObjectCursor;
using Sandbox::AccessModel;
using Sandbox::Grant;
using Sandbox::GrantScope;
using Sandbox::ModelObject;
using Tools::AccessChange;
using Tools::diffAccess;
using Tools::DiffForm;
using Tools::DiffSummary;

constexpr std::size_t MILLION = 1'000'000;
constexpr int CHANGED_GRANTS = 100;
constexpr double LIMIT_SECONDS = 30;
constexpr double KIB = 1024;
constexpr std::int32_t NEW_ROLE = 1000;  // which nobody has in the corpus

void require(bool condition, const char* message) {
    if (!condition) {
        throw std::runtime_error(message);
    }
}

double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

ModelObject objectOf(const AccessModel& model, std::size_t index) {
    const AccessModel::Entry entry = model.entry(index);
    ModelObject object;
    object.name = boost::lexical_cast<ObjectNamespace>(std::string(entry.text));
    object.inherit = entry.inherit;
    const AccessModel::GrantList grants = model.grants(entry.grantList);
    object.grants.assign(grants.begin(), grants.end());
    return object;
}

/// Gives some objects one grant more, by turns on themselves and on what is below them.
AccessModel withChangedGrants(AccessModel model) {
    std::mt19937 random(100);
    for (int i = 0; i < CHANGED_GRANTS; ++i) {
        ModelObject object = objectOf(model, random() % model.objectCount());
        object.grants.push_back({NEW_ROLE, i, i % 2 == 0 ? GrantScope::OBJECT : GrantScope::OBJECT_AND_CHILDREN});
        model.add(object);
    }
    return model;
}

AccessModel withGrantAtTop(AccessModel model) {
    ModelObject top;
    top.grants.push_back({NEW_ROLE, 0, GrantScope::OBJECT_AND_CHILDREN});
    model.add(top);
    return model;
}

/// Every grant is another role's.
AccessModel withOtherRoles(const AccessModel& model) {
    AccessModel other;
    for (std::size_t i = 0; i < model.objectCount(); ++i) {
        ModelObject object = objectOf(model, i);
        for (Grant& grant : object.grants) {
            grant.roleId += NEW_ROLE;
        }
        other.add(object);
    }
    return other;
}

AccessModel withManyGrantsAtTop(AccessModel model) {
    ModelObject top;
    for (std::int32_t role = 0; role < 50; ++role) {
        for (std::int32_t operation = 0; operation < 40; ++operation) {
            top.grants.push_back({NEW_ROLE + role, operation, GrantScope::OBJECT_AND_CHILDREN});
        }
    }
    model.add(top);
    return model;
}

std::uint64_t walk(const AccessCache& cache) {
    const AccessCache::Reader reader = cache.lock();
    const CacheView view = CacheAccess::view(reader);
    ObjectCursor cursor(view, "|");
    std::uint64_t bytes = 0;
    while (cursor.next()) {
        bytes += cursor.text().size() + cursor.record().inherit;
    }
    return bytes;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Work {
    std::string name;
    std::function<void()> run;
    std::vector<double> seconds = {};
};

/// By turns, so that all of them meet the same weather.
void measure(std::vector<Work>& works, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        for (Work& work : works) {
            const double begin = processorSeconds();
            work.run();
            work.seconds.push_back(processorSeconds() - begin);
        }
    }
}

/// Whether the limit is kept.
bool report(const Work& work, const Work& floor) {
    bench::startHeapCount();
    work.run();
    const double peak = static_cast<double>(bench::finishHeapCount()) / KIB;
    const double seconds = median(work.seconds);
    std::cout << std::left << std::setw(52) << work.name << std::right << std::fixed << std::setprecision(2)
              << std::setw(8) << seconds << " s  at most " << LIMIT_SECONDS
              << (seconds <= LIMIT_SECONDS ? "" : "  MISSED") << "  (" << seconds / median(floor.seconds)
              << " times the walk; heap " << std::setprecision(0) << peak << " KiB)" << std::endl;
    return seconds <= LIMIT_SECONDS;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::stoi(argv[1]) : 5;
    const AccessModel model = bench::corpusModel(MILLION);
    const auto cacheOf = [](const AccessModel& published) { return bench::BenchCache::of(published); };
    const bench::BenchCache beforeFiles = cacheOf(model);
    const bench::BenchCache changedFiles = cacheOf(withChangedGrants(model));
    const bench::BenchCache topFiles = cacheOf(withGrantAtTop(model));
    const bench::BenchCache manyFiles = cacheOf(withManyGrantsAtTop(model));
    const bench::BenchCache otherFiles = cacheOf(withOtherRoles(model));
    const AccessCache before(Rbac::Manifest("before", beforeFiles.directory()));
    const AccessCache changed(Rbac::Manifest("changed", changedFiles.directory()));
    const AccessCache top(Rbac::Manifest("top", topFiles.directory()));
    const AccessCache many(Rbac::Manifest("many", manyFiles.directory()));
    const AccessCache other(Rbac::Manifest("other", otherFiles.directory()));

    std::uint64_t visited = 0;
    const auto diff = [&visited, &before](const AccessCache& after, DiffForm form) {
        visited = 0;
        return diffAccess(before, after, form, [&visited](const AccessChange&) { ++visited; });
    };
    std::vector<Work> works;
    works.push_back(
        {"a walk through both caches", [&] { require(walk(before) != 0 && walk(changed) != 0, "a cache is empty"); }});
    works.push_back({"100 grants more", [&] {
                         const DiffSummary summary = diff(changed, DiffForm::FOLDED);
                         require(visited == CHANGED_GRANTS && summary.lost == 0, "not the grants that were added");
                     }});
    works.push_back({"one grant at the top, folded", [&] {
                         const DiffSummary summary = diff(top, DiffForm::FOLDED);
                         require(visited == 1 && summary.objectsAffected > MILLION / 2, "not what the top grants");
                     }});
    works.push_back({"one grant at the top, every object", [&] {
                         const DiffSummary summary = diff(top, DiffForm::EVERY_OBJECT);
                         require(visited == summary.objectsAffected, "not every object");
                     }});
    works.push_back({"2,000 grants at the top, folded", [&] {
                         require(diff(many, DiffForm::FOLDED).gained > 1000 * MILLION, "not what the top grants");
                         require(visited == 2000, "not one change a grant");
                     }});
    works.push_back({"every grant another role's, folded", [&] {
                         const DiffSummary summary = diff(other, DiffForm::FOLDED);
                         require(summary.gained == summary.lost && summary.objectsAffected > MILLION / 2,
                                 "not what every grant gives");
                         require(visited < summary.gained / 10, "not folded");
                     }});
    measure(works, rounds);
    bool kept = true;
    for (const Work& work : works) {
        kept = report(work, works.front()) && kept;
    }
    return kept ? 0 : 1;
}
