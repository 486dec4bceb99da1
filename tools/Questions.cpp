#include "tools/JsonObject.h"
#include "tools/Names.h"
#include "tools/OpenedCache.h"
#include "tools/Subcommand.h"

#include <platform/Status.h>
#include <rbac/AccessExplanation.h>
#include <rbac/AccessLists.h>

#include <CLI/CLI.hpp>

#include <ostream>
#include <sstream>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

using Rbac::AccessExplanation;
using Rbac::ObjectNamespace;

void requireSuccess(int status) {
    if (status != 0) {
        throw EC_exception(status);
    }
}

/// A question about the access in one cache.
class Question : public Subcommand {
public:
    using Subcommand::Subcommand;

    ExitCode run(std::ostream& out) final {
        // What is asked is looked at before the cache is, which may take long.
        if (asksForOperation_) {
            operation_ = operationNamed(operationText_);
        }
        object_ = objectNamed(objectText_);
        if (asksForRoles_) {
            roles_ = roleOptions_.roles();
        }
        OpenedCache cache(cacheOptions_.directory, reading_);
        if (asksForOperation_ && !cache.operations()[operation_]) {
            note("rbac-cache: there is no operation " + operation_.str() + ", so it is denied to everybody everywhere");
        }
        return answer(cache, out);
    }

protected:
    void askForOperation(CLI::App& command) {
        asksForOperation_ = true;
        command.add_option("operation", operationText_, "such as VIEW, which is short for |OPERATIONS|VIEW|")
            ->required()
            ->option_text(" ");
    }
    void askForObject(CLI::App& command) {
        command.add_option("object", objectText_, "its text, in quotes for the shell: '|ASSETS|db+1|'")
            ->required()
            ->option_text(" ");
    }
    void askForFolder(CLI::App& command) {
        objectText_ = "|";
        command.add_option("object", objectText_, "where to look; without it, everywhere")->option_text(" ");
    }
    void askForRoles(CLI::App& command) {
        asksForRoles_ = true;
        roleOptions_.addTo(command);
    }
    void askForCache(CLI::App& command) {
        cacheOptions_.addTo(command);
        reading_.addTo(command);
    }

    const ObjectNamespace& operation() const { return operation_; }
    const ObjectNamespace& object() const { return object_; }
    const std::set<int>& roles() const { return roles_; }
    std::vector<int> ascendingRoles() const { return {roles_.begin(), roles_.end()}; }

private:
    virtual ExitCode answer(OpenedCache& cache, std::ostream& out) = 0;

    bool asksForOperation_ = false;
    bool asksForRoles_ = false;
    std::string operationText_;
    std::string objectText_;
    RoleOptions roleOptions_;
    CacheOptions cacheOptions_;
    ReadingOptions reading_;
    ObjectNamespace operation_;
    ObjectNamespace object_;
    std::set<int> roles_;
};

class Check : public Question {
public:
    Check()
        : Question({"check", "say whether roles may perform an operation on an object",
                    "  rbac-cache check VIEW '|ASSETS|db+1|' --roles 5,9\n"
                    "  rbac-cache check VIEW '|ASSETS|db+1|' --token session.jwt"}) {}

private:
    void addOptions(CLI::App& command) override {
        askForOperation(command);
        askForObject(command);
        askForRoles(command);
        askForCache(command);
    }

    ExitCode answer(OpenedCache& cache, std::ostream& out) override {
        boost::shared_ptr<const Rbac::AccessChecker> checker;
        requireSuccess(cache.client().createAccessChecker(roles(), operation(), 0, checker));
        if (!checker) {
            throw std::bad_alloc();
        }
        const bool allowed = checker->checkAccess(object());
        if (output().json) {
            JsonObject()
                .set("allowed", allowed)
                .set("operation", operation().str())
                .set("object", object().str())
                .set("roles", ascendingRoles())
                .print(out);
        } else {
            const Colors colors = output().colors();
            out << (allowed ? colors.good("allowed") : colors.bad("denied")) << "\n";
        }
        return allowed ? EXIT_YES : EXIT_NO;
    }
};

const char* nameOf(AccessExplanation::Reason reason) {
    using Reason = AccessExplanation::Reason;
    switch (reason) {
        case Reason::GRANTED:
            return "granted";
        case Reason::STOPPED:
            return "stopped";
        case Reason::NOBODY_GRANTS:
            return "nobodyGrants";
        case Reason::SUPERUSER:
            return "superuser";
        case Reason::UNKNOWN_OPERATION:
            return "unknownOperation";
        case Reason::NOT_ENFORCED:
            return "notEnforced";
    }
    return "";
}

JsonObject documentOf(const AccessExplanation& why, const AccessExplanation::Step& step) {
    JsonObject document;
    document.set("namespace", why.textOf(step)).set("found", step.found);
    if (step.found) {
        document.set("own", step.own).set("inherits", step.inherits).set("granting", step.granting);
    }
    return document;
}

JsonObject documentOf(const AccessExplanation& why, const AccessExplanation::Change& change) {
    std::vector<std::string> namespaces;
    for (const std::size_t length : change.textLengths) {
        namespaces.push_back(why.object.substr(0, length));
    }
    const bool hold = change.kind == AccessExplanation::Change::Kind::HOLD_ROLE;
    JsonObject document;
    document.set("change", hold ? "holdRole" : "inherit").set("namespaces", namespaces).set("roles", change.roles);
    return document;
}

template <class Part>
JsonList documentsOf(const AccessExplanation& why, const std::vector<Part>& parts) {
    JsonList documents;
    for (const Part& part : parts) {
        documents.add(documentOf(why, part));
    }
    return documents;
}

class Explain : public Question {
public:
    Explain()
        : Question({"explain", "say why roles may perform an operation on an object, or what would let them",
                    "  rbac-cache explain VIEW '|ASSETS|db+1|' --roles 5,9"}) {}

private:
    using Changes = std::vector<AccessExplanation::Change>;

    void addOptions(CLI::App& command) override {
        askForOperation(command);
        askForObject(command);
        askForRoles(command);
        askForCache(command);
    }

    ExitCode answer(OpenedCache& cache, std::ostream& out) override {
        AccessExplanation why;
        requireSuccess(explainAccess(cache.client(), roles(), operation(), object(), why));
        const Changes changes = whatWouldAllow(cache.client(), why);
        if (output().json) {
            printDocument(out, why, changes);
        } else {
            printText(out, why, changes);
        }
        return why.allowed ? EXIT_YES : EXIT_NO;
    }

    static void printDocument(std::ostream& out, const AccessExplanation& why, const Changes& changes) {
        JsonObject()
            .set("allowed", why.allowed)
            .set("reason", nameOf(why.reason))
            .set("operation", why.operation)
            .set("object", why.object)
            .set("roles", why.roles)
            .set("steps", documentsOf(why, why.steps))
            .set("changes", documentsOf(why, changes))
            .print(out);
    }

    void printText(std::ostream& out, const AccessExplanation& why, const Changes& changes) const {
        std::ostringstream lines;
        lines << why;
        writeChanges(lines, why, changes);
        const std::string text = lines.str();
        const std::size_t wordEnd = text.find(':');
        const std::string word = text.substr(0, wordEnd);
        const Colors colors = output().colors();
        out << (why.allowed ? colors.good(word) : colors.bad(word)) << text.substr(wordEnd);
    }
};

class WhoCan : public Question {
public:
    WhoCan()
        : Question({"who-can", "list the roles that may perform an operation on an object",
                    "  rbac-cache who-can UPDATE '|ASSETS|db+1|'"}) {}

private:
    void addOptions(CLI::App& command) override {
        askForOperation(command);
        askForObject(command);
        askForCache(command);
    }

    ExitCode answer(OpenedCache& cache, std::ostream& out) override {
        std::vector<int> allowed;
        requireSuccess(forEachAllowedRole(cache.client(), operation(), object(), [&](int role) {
            allowed.push_back(role);
            return true;
        }));
        if (output().json) {
            JsonObject()
                .set("operation", operation().str())
                .set("object", object().str())
                .set("roles", allowed)
                .print(out);
            return EXIT_YES;
        }
        for (const int role : allowed) {
            out << role << "\n";
        }
        return EXIT_YES;
    }
};

class WhatCan : public Question {
public:
    WhatCan()
        : Question({"what-can", "list the operations that roles may perform on an object",
                    "  rbac-cache what-can '|ASSETS|db+1|' --roles 5,9"}) {}

private:
    void addOptions(CLI::App& command) override {
        askForObject(command);
        askForRoles(command);
        askForCache(command);
    }

    ExitCode answer(OpenedCache& cache, std::ostream& out) override {
        std::vector<std::string> allowed;
        requireSuccess(forEachAllowedOperation(cache.client(), roles(), object(), [&](const ObjectNamespace& name) {
            allowed.push_back(name.str());
            return true;
        }));
        if (output().json) {
            JsonObject()
                .set("object", object().str())
                .set("roles", ascendingRoles())
                .set("operations", allowed)
                .print(out);
            return EXIT_YES;
        }
        for (const std::string& name : allowed) {
            out << shortName(name) << "\n";
        }
        return EXIT_YES;
    }
};

class List : public Question {
public:
    List()
        : Question({"list", "list the objects on which roles may perform an operation",
                    "  rbac-cache list VIEW --roles 5,9\n"
                    "  rbac-cache list VIEW '|ASSETS|' --roles 5,9 --json"}) {}

private:
    void addOptions(CLI::App& command) override {
        askForOperation(command);
        askForFolder(command);
        askForRoles(command);
        askForCache(command);
    }

    ExitCode answer(OpenedCache& cache, std::ostream& out) override {
        const auto print = [&](const std::string& text) {
            if (output().json) {
                JsonObject().set("namespace", text).print(out);
            } else {
                out << printable(text) << "\n";
            }
            return true;
        };
        requireSuccess(forEachAllowedObject(cache.client(), roles(), operation(), object(), print));
        return EXIT_YES;
    }
};

}  // namespace

void addQuestions(Subcommands& all) {
    all.push_back(std::make_unique<Check>());
    all.push_back(std::make_unique<Explain>());
    all.push_back(std::make_unique<WhoCan>());
    all.push_back(std::make_unique<WhatCan>());
    all.push_back(std::make_unique<List>());
}

}  // namespace Tesmor::Arkwell::Tools
