#include "bench/Comparison.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace bench {

void Comparison::expectAtMost(const std::string& name, double limit, const std::string& floor) {
    expectations_.push_back({name, Kind::AT_MOST, limit, floor});
}

void Comparison::expectRateAtLeast(const std::string& name, double limit, const std::string& floor) {
    expectations_.push_back({name, Kind::RATE_AT_LEAST, limit, floor});
}

void Comparison::show(const std::string& name, const std::string& floor) {
    expectations_.push_back({name, Kind::SHOWN, 0, floor});
}

void Comparison::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
            const std::string name =
                run.run_name.function_name + (run.threads > 1 ? "/threads:" + std::to_string(run.threads) : "");
            const auto iterations = static_cast<double>(run.iterations);
            const bool realTime = run.run_name.time_type == "real_time";
            const double seconds = realTime ? run.real_accumulated_time : run.cpu_accumulated_time;
            nanoseconds_[name].push_back(seconds / iterations * 1e9);
            // The iterations are those of all threads, the time is what one of them took.
            perSecond_[name].push_back(iterations / run.real_accumulated_time);
        }
    }
    ConsoleReporter::ReportRuns(runs);
}

double Comparison::median(const std::map<std::string, std::vector<double>>& figures, const std::string& name) {
    std::vector<double> values = figures.at(name);
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

bool Comparison::report(std::ostream& out) const {
    bool kept = true;
    out << "\nratio to its floor (medians)\n";
    for (const Expectation& e : expectations_) {
        if (nanoseconds_.count(e.name) == 0 || nanoseconds_.count(e.floor) == 0) {
            continue;
        }
        const bool rate = e.kind == Kind::RATE_AT_LEAST;
        const auto& figures = rate ? perSecond_ : nanoseconds_;
        const double ratio = median(figures, e.name) / median(figures, e.floor);
        out << std::left << std::setw(26) << e.name << " / " << std::setw(18) << e.floor << std::right << std::fixed
            << std::setprecision(3) << std::setw(8) << ratio;
        if (e.kind != Kind::SHOWN) {
            const bool reached = rate ? ratio >= e.limit : ratio <= e.limit;
            kept = kept && reached;
            out << (rate ? "  at least " : "  at most ") << std::setprecision(2) << e.limit
                << (reached ? "" : "  MISSED");
        }
        out << "\n";
    }
    return kept;
}

}  // namespace bench
