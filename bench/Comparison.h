#pragma once

#include <benchmark/benchmark.h>

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace bench {

/// Prints the benchmarks of one run and then each figure as a ratio to its floor, which is another benchmark of the
/// run. Of several repetitions the median counts. Times are processor times, which other work on the machine disturbs
/// little, except where a benchmark asks for real time, because it waits; rates of several threads are per second of
/// real time.
class Comparison : public benchmark::ConsoleReporter {
public:
    /// The time of `name` is to be at most `limit` times that of `floor`.
    void expectAtMost(const std::string& name, double limit, const std::string& floor);
    /// What all threads of `name` get done in a second is to be at least `limit` times that of `floor`.
    void expectRateAtLeast(const std::string& name, double limit, const std::string& floor);
    /// The ratio is shown without a limit.
    void show(const std::string& name, const std::string& floor);

    void ReportRuns(const std::vector<Run>& runs) override;

    /// Writes the table. Whether every limit that could be judged is kept.
    bool report(std::ostream& out) const;

private:
    enum class Kind { AT_MOST, RATE_AT_LEAST, SHOWN };
    struct Expectation {
        std::string name;
        Kind kind;
        double limit;
        std::string floor;
    };

    static double median(const std::map<std::string, std::vector<double>>& figures, const std::string& name);

    std::vector<Expectation> expectations_;
    std::map<std::string, std::vector<double>> nanoseconds_;
    std::map<std::string, std::vector<double>> perSecond_;
};

}  // namespace bench
