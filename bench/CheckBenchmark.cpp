// What a check costs, beside the system calls that it cannot do without.

#include "bench/Allocations.h"
#include "bench/BenchCache.h"
#include "bench/Comparison.h"
#include "bench/Corpus.h"
#include "platform/Handles.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "rbac/enforcement/DiskAccessControlClient.h"

#include <rbac/AccessCache.h>
#include <rbac/AccessExplanation.h>
#include <rbac/AccessLists.h>
#include <rbac/BulkAccess.h>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <fcntl.h>
#include <fnmatch.h>
#include <lmdb.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>
#include <stdexcept>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using bench::BenchCache;

constexpr std::size_t MILLION = 1'000'000;
constexpr std::size_t WARM_SET = 1'000;
constexpr std::size_t RANDOM_SET = 1U << 18U;
constexpr std::size_t MANY = 100;
constexpr int VIEW = 0;

/// What every benchmark here works on: the cache of a million objects and questions about it.
struct Setting {
    Setting()
        : cache(BenchCache::ofCorpus(MILLION)),
          opened(boost::make_shared<AccessCache>(Manifest("bench", cache.directory()))),
          warm6(cache.neighbours(WARM_SET, 6)),
          warm20(cache.neighbours(WARM_SET, 20)),
          scattered6(cache.sample(WARM_SET, 6, 1)),
          random(cache.sample(RANDOM_SET, 0, 3)),
          checker(opened, roles(), Operation(VIEW), 0) {}

    static std::set<int> roles() {
        std::mt19937 generator(5);
        return bench::userRoles(generator);
    }

    static Setting& get() {
        static Setting setting;
        return setting;
    }

    BenchCache cache;
    boost::shared_ptr<const AccessCache> opened;
    std::vector<ObjectNamespace> warm6;
    std::vector<ObjectNamespace> warm20;
    std::vector<ObjectNamespace> scattered6;
    std::vector<ObjectNamespace> random;
    DiskAccessChecker checker;
};

platform_detail::Descriptor openFile(const std::string& name) {
    platform_detail::Descriptor descriptor(open((Setting::get().cache.directory() + "/" + name).c_str(), O_RDONLY));
    if (!descriptor.isOpen()) {
        throw std::runtime_error("cannot open " + name);
    }
    return descriptor;
}

void floorSystemCalls(benchmark::State& state) {
    const platform_detail::Descriptor lock = openFile(AccessCache::MANIFEST_FILE_NAME);
    const platform_detail::Descriptor objects = openFile(AccessCache::OBJECT_FILE_NAME);
    const platform_detail::Descriptor nodes = openFile(AccessCache::NODE_FILE_NAME);
    const platform_detail::Descriptor segments = openFile(AccessCache::SEGMENT_FILE_NAME);
    struct stat status {};
    for (auto _ : state) {
        flock(lock.get(), LOCK_SH);
        fstat(objects.get(), &status);
        fstat(nodes.get(), &status);
        fstat(segments.get(), &status);
        flock(lock.get(), LOCK_UN);
        benchmark::DoNotOptimize(status);
    }
}

void checkInTurn(benchmark::State& state, const std::vector<ObjectNamespace>& objects) {
    const DiskAccessChecker& checker = Setting::get().checker;
    // Threads begin at different places, as they do in a server.
    std::size_t next = objects.size() / 2 * static_cast<std::size_t>(state.thread_index()) % objects.size();
    std::size_t allowed = 0;
    const bench::AllocationCount before = bench::allocations();
    for (auto _ : state) {
        allowed += checker.checkAccess(objects[next]) ? 1 : 0;
        next = next + 1 == objects.size() ? 0 : next + 1;
    }
    const bench::AllocationCount allocated = bench::allocations() - before;
    const auto checks = static_cast<double>(state.iterations());
    state.counters["allowed"] =
        benchmark::Counter(static_cast<double>(allowed) / checks, benchmark::Counter::kAvgThreads);
    if (state.threads() == 1) {
        state.counters["allocations"] = static_cast<double>(allocated);
    }
    state.SetItemsProcessed(state.iterations());
}
void checkWarm6(benchmark::State& state) {
    checkInTurn(state, Setting::get().warm6);
}
void checkWarm20(benchmark::State& state) {
    checkInTurn(state, Setting::get().warm20);
}
void checkScattered6(benchmark::State& state) {
    checkInTurn(state, Setting::get().scattered6);
}
void checkRandom(benchmark::State& state) {
    checkInTurn(state, Setting::get().random);
}

/// A hundred objects in each call.
void checkManyInTurn(benchmark::State& state, const std::vector<ObjectNamespace>& objects) {
    const DiskAccessChecker& checker = Setting::get().checker;
    std::array<bool, MANY> allowed{};
    std::size_t next = 0;
    for (auto _ : state) {
        checkAccessToAll(checker, objects.data() + next, MANY, allowed.data());
        benchmark::DoNotOptimize(allowed);
        next = next + 2 * MANY > objects.size() ? 0 : next + MANY;
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(MANY));
}
void checkManyNeighbours(benchmark::State& state) {
    checkManyInTurn(state, Setting::get().warm6);
}
void checkManyRandom(benchmark::State& state) {
    checkManyInTurn(state, Setting::get().random);
}

/// A client over the same cache, for which VIEW is the operation that the checks ask for.
class Client {
public:
    Client() : operations_(operationsFile()), client_(ObjectNamespace(), Setting::get().opened, operations_) {}

    static AccessControlClient& get() {
        static Client client;
        return client.client_;
    }

private:
    static std::string operationsFile() {
        std::string path = Setting::get().cache.directory() + "/operations.json";
        std::ofstream(path) << R"({"|OPERATIONS|VIEW|": )" << VIEW << "}";
        return path;
    }

    OperationCache operations_;
    DiskAccessControlClient client_;
};

void explainWarm6(benchmark::State& state) {
    const std::vector<ObjectNamespace>& objects = Setting::get().warm6;
    const std::set<int> roles = Setting::roles();
    std::size_t next = 0;
    for (auto _ : state) {
        AccessExplanation explanation;
        explainAccess(Client::get(), roles, root_namespaces::operations::VIEW, objects[next], explanation);
        benchmark::DoNotOptimize(explanation.allowed);
        next = next + 1 == objects.size() ? 0 : next + 1;
    }
}

void listVisible(benchmark::State& state) {
    const std::set<int> roles = Setting::roles();
    std::int64_t listed = 0;
    const bench::AllocationCount before = bench::allocations();
    for (auto _ : state) {
        forEachAllowedObject(Client::get(), roles, root_namespaces::operations::VIEW, {},
                             [&listed](const std::string&) {
                                 ++listed;
                                 return true;
                             });
    }
    const auto lists = static_cast<double>(state.iterations());
    state.counters["objects"] = static_cast<double>(listed) / lists;
    state.counters["allocations"] = static_cast<double>(bench::allocations() - before) / lists;
    state.SetItemsProcessed(listed);
}

/// Every byte that a walk over all objects and their texts needs.
void readFiles(benchmark::State& state) {
    const std::string folder = Setting::get().cache.directory() + "/";
    for (auto _ : state) {
        for (const std::string& path :
             {folder + AccessCache::OBJECT_FILE_NAME, folder + AccessCache::SEGMENT_FILE_NAME}) {
            const detail::MemoryMap map(path);
            const auto* const words = reinterpret_cast<const std::uint64_t*>(map.base());
            benchmark::DoNotOptimize(
                std::accumulate(words, words + map.mapped_size() / sizeof *words, std::uint64_t{0}));
        }
    }
}

void lookupRandom(benchmark::State& state) {
    const Setting& setting = Setting::get();
    const AccessCache::Reader reader = setting.opened->lock();
    std::size_t next = 0;
    for (auto _ : state) {
        const ManagedObject* object = reader.lookup(setting.random[next]);
        benchmark::DoNotOptimize(object->inherit);
        next = (next + 1) % RANDOM_SET;
    }
}

/// The same objects in LMDB: text to record.
class LmdbTwin {
public:
    explicit LmdbTwin(const BenchCache& cache) : directory_(cache.directory() + "-lmdb") {
        std::filesystem::create_directories(directory_);
        check(mdb_env_create(&environment_));
        check(mdb_env_set_mapsize(environment_, std::size_t{1} << 32U));
        check(mdb_env_open(environment_, directory_.c_str(), MDB_NOSYNC, 0644));
        fill(cache);
        check(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &transaction_));
    }
    ~LmdbTwin() {
        mdb_txn_abort(transaction_);
        mdb_env_close(environment_);
        std::filesystem::remove_all(directory_);
    }
    LmdbTwin(const LmdbTwin&) = delete;
    LmdbTwin& operator=(const LmdbTwin&) = delete;

    /// One lookup in a read transaction of its own.
    const void* lookup(const std::string& text) {
        mdb_txn_reset(transaction_);
        check(mdb_txn_renew(transaction_));
        MDB_val key{text.size(), const_cast<char*>(text.data())};
        MDB_val value{};
        check(mdb_get(transaction_, table_, &key, &value));
        return value.mv_data;
    }

private:
    static void check(int status) {
        if (status != 0) {
            throw std::runtime_error(std::string("lmdb: ") + mdb_strerror(status));
        }
    }
    void fill(const BenchCache& cache) {
        MDB_txn* writing = nullptr;
        check(mdb_txn_begin(environment_, nullptr, 0, &writing));
        check(mdb_dbi_open(writing, nullptr, MDB_CREATE, &table_));
        for (const std::string& text : cache.sortedTexts()) {
            ManagedObject record{};
            MDB_val key{text.size(), const_cast<char*>(text.data())};
            MDB_val value{sizeof record, &record};
            check(mdb_put(writing, table_, &key, &value, MDB_APPEND));
        }
        check(mdb_txn_commit(writing));
    }

    std::string directory_;
    MDB_env* environment_ = nullptr;
    MDB_dbi table_ = 0;
    MDB_txn* transaction_ = nullptr;
};

void lmdbGetRandom(benchmark::State& state) {
    const Setting& setting = Setting::get();
    static LmdbTwin twin(setting.cache);
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(*static_cast<const char*>(twin.lookup(setting.random[next].str())));
        next = (next + 1) % RANDOM_SET;
    }
}

void openCache(benchmark::State& state, const std::string& directory) {
    for (auto _ : state) {
        const AccessCache cache(Manifest("bench", directory));
        benchmark::DoNotOptimize(cache.managedObjectCount());
    }
}
void openMillion(benchmark::State& state) {
    openCache(state, Setting::get().cache.directory());
}
void openThousand(benchmark::State& state) {
    static const BenchCache small = BenchCache::ofCorpus(1'000);
    openCache(state, small.directory());
}

/// How engines that keep a list of rules decide: one pattern after the other.
void linearScan(benchmark::State& state) {
    struct Rule {
        int role;
        int operation;
        std::string pattern;
    };
    std::vector<Rule> rules;
    std::mt19937 random(7);
    const std::vector<ObjectNamespace>& objects = Setting::get().warm6;
    for (const ObjectNamespace& object : objects) {
        rules.push_back({1 + static_cast<int>(random() % bench::ROLES), static_cast<int>(random() % bench::OPERATIONS),
                         object.parentNamespace()->str() + "*"});
    }
    const std::set<int> roles = Setting::roles();
    std::size_t next = 0;
    for (auto _ : state) {
        const std::string& text = objects[next].str();
        benchmark::DoNotOptimize(std::any_of(rules.begin(), rules.end(), [&](const Rule& rule) {
            return rule.operation == VIEW && roles.count(rule.role) != 0 &&
                   fnmatch(rule.pattern.c_str(), text.c_str(), 0) == 0;
        }));
        next = (next + 1) % objects.size();
    }
}

BENCHMARK(floorSystemCalls);
BENCHMARK(checkWarm6);
BENCHMARK(checkWarm6)->Threads(2)->UseRealTime();
BENCHMARK(checkScattered6);
BENCHMARK(checkRandom);
BENCHMARK(checkWarm20);
BENCHMARK(checkManyNeighbours);
BENCHMARK(checkManyRandom);
BENCHMARK(explainWarm6);
BENCHMARK(listVisible);
BENCHMARK(readFiles);
BENCHMARK(lookupRandom);
BENCHMARK(lmdbGetRandom);
BENCHMARK(openThousand);
BENCHMARK(openMillion);
BENCHMARK(linearScan);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Setting::get();
    bench::Comparison comparison;
    comparison.expectAtMost("checkWarm6", 1.25, "floorSystemCalls");
    comparison.show("checkScattered6", "floorSystemCalls");
    comparison.expectAtMost("checkRandom", 2.2, "floorSystemCalls");
    comparison.expectAtMost("checkWarm20", 1.9, "floorSystemCalls");
    comparison.expectAtMost("checkWarm20", 1.3, "checkWarm6");
    comparison.expectAtMost("checkManyNeighbours", 0.20 * MANY, "floorSystemCalls");
    comparison.expectAtMost("checkManyRandom", 1.0 * MANY, "floorSystemCalls");
    comparison.expectAtMost("explainWarm6", 3.0, "checkWarm6");
    comparison.show("listVisible", "readFiles");
    comparison.expectRateAtLeast("checkWarm6/threads:2", 1.8, "checkWarm6");
    comparison.expectAtMost("lookupRandom", 1.0, "lmdbGetRandom");
    comparison.expectAtMost("openMillion", 2.0, "openThousand");
    comparison.show("linearScan", "checkWarm6");
    benchmark::RunSpecifiedBenchmarks(&comparison);
    return comparison.report(std::cout) ? 0 : 1;
}
