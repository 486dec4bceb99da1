// What a cache of a million objects costs once: the time and memory to publish it, and the memory of one more process
// that opens and checks it.

#include "bench/BenchCache.h"
#include "rbac/enforcement/DiskAccessChecker.h"
#include "sandbox/CacheWriter.h"

#include <rbac/AccessCache.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using namespace Tesmor::Arkwell;
using Clock = std::chrono::steady_clock;

constexpr std::size_t MILLION = 1'000'000;
constexpr double MIB = 1024.0 * 1024.0;

/// A figure of /proc/self/status or smaps_rollup, in bytes; 0 where it is missing.
double kernelFigure(const std::string& file, const std::string& name) {
    std::ifstream lines("/proc/self/" + file);
    for (std::string word; lines >> word;) {
        double kilobytes = 0;
        if (word == name && lines >> kilobytes) {
            return kilobytes * 1024;
        }
    }
    return 0;
}

double cacheBytes(const std::string& directory) {
    double bytes = 0;
    for (const auto& file : std::filesystem::directory_iterator(directory)) {
        bytes += static_cast<double>(file.file_size());
    }
    return bytes;
}

void report(const std::string& what, double value, double limit, const std::string& unit) {
    std::cout << std::left << std::setw(52) << what << std::right << std::fixed << std::setprecision(2) << std::setw(8)
              << value << " " << unit << "  at most " << limit << (value <= limit ? "" : "  MISSED") << std::endl;
}

/// In a process of its own, so that the peak is that of publishing.
int publish(const std::string& directory) {
    const Sandbox::AccessModel model = bench::corpusModel(MILLION);
    const Clock::time_point begin = Clock::now();
    const Sandbox::PublicationReport published = Sandbox::CacheWriter(directory).publish(model);
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::cout << published.objects << " objects, " << published.segments << " segments, " << published.nodes
              << " nodes, " << static_cast<double>(published.bytes) / MIB << " MiB; readers shut out for "
              << std::chrono::duration<double>(published.lockHeld).count() << " s" << std::endl;
    report("publishing (model in memory, durably)", seconds, 20, "s");
    report("peak memory, model included, over the cache's size",
           kernelFigure("status", "VmHWM:") / cacheBytes(directory), 3, "times");
    return 0;
}

/// How many of a thousand objects the checker allows.
int countAllowed(const Rbac::DiskAccessChecker& checker) {
    int allowed = 0;
    for (int host = 0; host < 1000; ++host) {
        const Rbac::ObjectNamespace object("ASSETS", "VMWARE", "sydney", "web-host-" + std::to_string(host),
                                           "instance-01");
        allowed += checker.checkAccess(object) ? 1 : 0;
    }
    return allowed;
}

int openAndCheck(const std::string& directory) {
    const auto privateMemory = [] {
        return kernelFigure("smaps_rollup", "Private_Clean:") + kernelFigure("smaps_rollup", "Private_Dirty:");
    };
    const double before = privateMemory();
    const auto cache = boost::make_shared<const Rbac::AccessCache>(Rbac::Manifest("bench", directory));
    const Rbac::DiskAccessChecker checker(cache, {1, 2, 3, 4, 5}, Rbac::Operation(0), 0);
    const int allowed = countAllowed(checker);
    report("private memory of a second process", privateMemory() / MIB, 2, "MiB");
    std::cout << "    of it before the cache was opened: " << before / MIB << " MiB (" << allowed << " of 1000 allowed)"
              << std::endl;
    return 0;
}

/// Runs this program again with the given work.
void inProcess(const char* self, const std::string& work, const std::string& directory) {
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        execl(self, self, work.c_str(), directory.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error(work + " failed");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3) {
        return std::string(argv[1]) == "publish" ? publish(argv[2]) : openAndCheck(argv[2]);
    }
    std::string directory = (std::filesystem::temp_directory_path() / "arkwell-costs-XXXXXX").string();
    if (mkdtemp(directory.data()) == nullptr) {
        std::cerr << "cannot make " << directory << "\n";
        return 1;
    }
    int status = 0;
    try {
        inProcess(argv[0], "publish", directory);
        // Another process that uses the cache, so that its pages are somebody else's already.
        const auto inUse = boost::make_shared<const Rbac::AccessCache>(Rbac::Manifest("bench", directory));
        countAllowed(Rbac::DiskAccessChecker(inUse, {1}, Rbac::Operation(0), 0));
        inProcess(argv[0], "open", directory);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << "\n";
        status = 1;
    }
    std::filesystem::remove_all(directory);
    return status;
}
