// For operators: looks into an access cache.

#include "tools/HeldOutput.h"
#include "tools/LibraryLog.h"
#include "tools/Subcommand.h"
#include "tools/Terminal.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <exception>
#include <ostream>
#include <string>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Tools;

constexpr char DESCRIPTION[] =
    "Looks into an access cache: what is in it, who may do what and why, what a change does, and whether its files are "
    "sound. Nothing of it is changed.";
constexpr char FOOTER[] =
    "Exit codes:\n"
    "  0  yes; or the list, which may be empty\n"
    "  1  check, explain: denied; diff: there are differences; verify: there are faults\n"
    "  2  the command line makes no sense\n"
    "  3  the cache or another file cannot be used\n"
    "\n"
    "rbac-cache SUBCOMMAND --help explains each, with examples.";

int fail(const char* what, ExitCode code) {
    note(std::string("rbac-cache: ") + what);
    return code;
}

class CommandLine {
public:
    CommandLine() {
        app_.require_subcommand(1);
        app_.footer(FOOTER);
        app_.set_version_flag("--version", "rbac-cache " ARKWELL_VERSION);
        app_.failure_message(describe);
        addQuestions(subcommands_);
        addListings(subcommands_);
        addDiff(subcommands_);
        addInspections(subcommands_);
        addReport(subcommands_);
        for (const auto& subcommand : subcommands_) {
            add(*subcommand);
        }
    }

    int run(int argc, char** argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app_.exit(error) == 0 ? EXIT_YES : EXIT_USAGE;
        }
        if (chosen_->output().verbose) {
            LibraryLog::show();
        }
        return runChosen();
    }

private:
    static std::string describe(const CLI::App* app, const CLI::Error& error) {
        const std::vector<std::string> unknown = app->remaining();
        const std::string what =
            unknown.empty() ? error.what() : "The following argument was not expected: " + unknown.front();
        return "rbac-cache: " + printable(what) + "\nrbac-cache --help shows what there is.\n";
    }

    void add(Subcommand& subcommand) {
        const Subcommand::Help& help = subcommand.help();
        CLI::App* const command = app_.add_subcommand(help.name, help.summary);
        command->footer(std::string("Examples:\n") + help.examples);
        command->callback([this, &subcommand] { chosen_ = &subcommand; });
        subcommand.addTo(*command);
    }

    int runChosen() {
        try {
            HeldOutput held;
            const ExitCode code = runShowingProgress(held.stream());
            held.letGo(STDOUT_FILENO);
            return code;
        } catch (const UsageError& mistake) {
            return fail(mistake.what(), EXIT_USAGE);
        } catch (const std::exception& failure) {
            return fail(failure.what(), EXIT_UNUSABLE);
        }
    }

    ExitCode runShowingProgress(std::ostream& out) {
        const Progress progress(std::string("rbac-cache ") + chosen_->help().name);
        return chosen_->run(out);
    }

    CLI::App app_{DESCRIPTION, "rbac-cache"};
    Subcommands subcommands_;
    Subcommand* chosen_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    const LibraryLog log;
    try {
        return CommandLine().run(argc, argv);
    } catch (const std::exception& failure) {
        return fail(failure.what(), EXIT_UNUSABLE);
    }
}
