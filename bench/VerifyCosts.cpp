// What it costs to verify the access cache of a million objects, beside what it costs to read all its bytes once.
//
// Times are processor times; both sides take turns in one process, with the files in the page cache, and the medians
// count.

#include "bench/BenchCache.h"
#include "bench/HeapPeak.h"

#include <rbac/AccessCache.h>
#include <rbac/CacheVerification.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;

constexpr std::size_t MILLION = 1'000'000;
constexpr double MB = 1e6;
constexpr double LEAST_THROUGHPUT = 100;
constexpr double MOST_MEMORY = 0.5;

double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

template <class Work>
double secondsOf(const Work& work) {
    const double begin = processorSeconds();
    work();
    return processorSeconds() - begin;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Maps the files and adds up all that is in them.
std::uint64_t sumOf(const std::string& directory) {
    std::uint64_t sum = 0;
    const std::string folder = directory + "/";
    for (const std::string& path : {folder + AccessCache::METADATA_FILE_NAME, folder + AccessCache::OBJECT_FILE_NAME,
                                    folder + AccessCache::NODE_FILE_NAME, folder + AccessCache::SEGMENT_FILE_NAME}) {
        const detail::MemoryMap map(path);
        for (std::uint64_t at = 0; at + sizeof sum <= map.mapped_size(); at += sizeof sum) {
            std::uint64_t word = 0;
            std::memcpy(&word, map.base() + at, sizeof word);
            sum += word;
        }
    }
    return sum;
}

CacheStatistics verify(const std::string& directory) {
    return verifyCache(directory, [](const CacheFault& fault) -> bool {
        throw std::runtime_error(fault.file + " at " + std::to_string(fault.offset) + ": " + fault.what);
    });
}

bool report(const std::string& what, double value, const std::string& unit, const std::string& limit, bool kept) {
    std::cout << std::left << std::setw(52) << what << std::right << std::fixed << std::setprecision(3) << std::setw(10)
              << value << " " << unit << limit << (kept ? "" : "  MISSED") << std::endl;
    return kept;
}

bool measure(const std::string& directory, int rounds) {
    const CacheStatistics statistics = verify(directory);
    const auto bytes = static_cast<double>(statistics.metadataBytes + statistics.objects.bytes +
                                           statistics.nodes.bytes + statistics.segments.bytes);
    std::vector<double> times;
    std::vector<double> floors;
    std::uint64_t sum = 0;
    for (int i = 0; i < rounds; ++i) {
        floors.push_back(secondsOf([&] { sum += sumOf(directory); }));
        times.push_back(secondsOf([&] { verify(directory); }));
    }
    bench::startHeapCount();
    verify(directory);
    const auto peak = static_cast<double>(bench::finishHeapCount());

    std::cout << statistics.objects.reached << " objects, " << statistics.segments.reached << " segments, "
              << statistics.nodes.reached << " nodes, " << bytes / MB << " MB (sum " << sum << ")" << std::endl;
    const double throughput = bytes / MB / median(times);
    const bool isFast = report("verifyCache", throughput, "MB/s", "  at least 100", throughput >= LEAST_THROUGHPUT);
    report("    over reading every byte once", median(times) / median(floors), "times", "", true);
    return report("peak of the heap over the files' size", peak / bytes, "times", "  at most 0.5",
                  peak <= MOST_MEMORY * bytes) &&
           isFast;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const int rounds = argc > 1 ? std::stoi(argv[1]) : 11;
        const bench::BenchCache cache = bench::BenchCache::ofCorpus(MILLION);
        return measure(cache.directory(), rounds) ? 0 : 1;
    } catch (const std::exception& failure) {
        std::cerr << "verify-costs: " << failure.what() << "\n";
        return 1;
    }
}
