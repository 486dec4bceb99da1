#pragma once

#include "tools/Options.h"
#include "tools/ToolFailures.h"

#include <iosfwd>
#include <memory>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace Tesmor::Arkwell::Tools {

/// One subcommand of rbac-cache: its options, and what it does.
class Subcommand {
public:
    /// What its help says.
    struct Help {
        const char* name;
        const char* summary;
        const char* examples;  ///< one a line
    };

    explicit Subcommand(const Help& help) : help_(help) {}
    virtual ~Subcommand() = default;
    Subcommand(const Subcommand&) = delete;
    Subcommand& operator=(const Subcommand&) = delete;

    const Help& help() const { return help_; }
    const OutputOptions& output() const { return output_; }

    /// Options that all have, then its own.
    void addTo(CLI::App& command) {
        addOptions(command);
        output_.addTo(command);
    }

    /// @param out is shown when this has returned, and only then.
    /// @throws UsageError, Unusable, or what else goes wrong.
    virtual ExitCode run(std::ostream& out) = 0;

private:
    virtual void addOptions(CLI::App& command) = 0;

    Help help_;
    OutputOptions output_;
};

using Subcommands = std::vector<std::unique_ptr<Subcommand>>;

/// Those that answer who may do what: check, explain, who-can, what-can, list.
void addQuestions(Subcommands& all);
/// Those that show what the cache holds: ls, tree.
void addListings(Subcommands& all);
/// Those that look at the files: stat, verify.
void addInspections(Subcommands& all);
/// diff
void addDiff(Subcommands& all);
/// report
void addReport(Subcommands& all);

}  // namespace Tesmor::Arkwell::Tools
