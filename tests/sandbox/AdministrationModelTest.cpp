#include "InstallationPaths.h"
#include "ServiceProcess.h"
#include "rbac/rest/Rbac2Json.h"
#include "testing/ChildProcess.h"
#include "testing/Sanitized.h"

#include <rbac/AccessControlClient.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectRegistrationService.h>
#include <rbac/OperationAPI.h>
#include <rbac/RoleAPI.h>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// One process administers a service through the typed clients, another one checks through the library. Whatever the
// first changes decides the second's next check, as the rules have it.

constexpr unsigned MODELS = testing_support::SANITIZED ? 60 : 500;

using namespace Tesmor::Arkwell::Rbac;
using testing_support::ChildProcess;
using testing_support::ServiceFolder;

namespace {

// Those who wait for a publication at the same time share one.
constexpr int MODELS_SIDE_BY_SIDE = 24;
constexpr int CHANGES = 4;
constexpr std::size_t OPERATIONS = 3;
constexpr int EVERYTHING_ROLE = 0;
constexpr char UNKNOWN_OPERATION[] = "|OPERATIONS|NOBODY+KNOWS|";

using Components = std::vector<std::string>;

ObjectNamespace namespaceOf(const Components& path) {
    ObjectNamespace ns;
    for (const std::string& component : path) {
        ns = ns | component;
    }
    return ns;
}

struct Definition {
    std::string id;
    int role;
    Propagation propagation;
    std::set<std::string> operations;
};

struct Object {
    bool inherits = true;
    std::vector<Definition> definitions = {};
};

/// For whom something is asked.
struct Subject {
    std::set<int> roles;
    std::string operation;
};

bool holds(const Definition& definition, const Subject& subject) {
    return subject.roles.count(definition.role) != 0 && definition.operations.count(subject.operation) != 0;
}

/// The rules, as plainly as they can be said.
class Rules {
public:
    std::map<Components, Object> objects;
    std::set<std::string> operations;

    bool allows(const Subject& subject, const Components& object) const {
        if (operations.count(subject.operation) == 0) {
            return false;
        }
        if (subject.roles.count(EVERYTHING_ROLE) != 0) {
            return true;
        }
        for (Components path = object;; path.pop_back()) {
            const auto found = objects.find(path);
            if (found != objects.end()) {
                const Propagation::enum_type notHere =
                    path.size() == object.size() ? Propagation::CHILDREN : Propagation::OBJECT;
                for (const Definition& definition : found->second.definitions) {
                    if (holds(definition, subject) && definition.propagation != notHere) {
                        return true;
                    }
                }
                if (!found->second.inherits) {
                    return false;
                }
            }
            if (path.empty()) {
                return false;
            }
        }
    }
};

void requireSuccess(const char* what, int status) {
    if (status != 0) {
        throw std::runtime_error(std::string(what) + ": status " + std::to_string(status));
    }
}

/// A pipe of lines.
class LinePipe {
public:
    LinePipe() {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("cannot make a pipe");
        }
        reader_.reset(fdopen(ends[0], "r"));
        writer_.reset(fdopen(ends[1], "w"));
    }

    int writingEnd() const { return fileno(writer_.get()); }
    void closeWritingEnd() { writer_.reset(); }

    void write(const std::string& line) {
        std::fputs((line + "\n").c_str(), writer_.get());
        std::fflush(writer_.get());
    }

    /// The next line; false at the end.
    bool read(std::string& line) {
        char* text = nullptr;
        std::size_t capacity = 0;
        const ssize_t length = getline(&text, &capacity, reader_.get());
        const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
        if (length <= 0) {
            return false;
        }
        line.assign(text, static_cast<std::size_t>(length) - 1);
        return true;
    }

private:
    struct Close {
        void operator()(FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<FILE, Close> reader_;
    std::unique_ptr<FILE, Close> writer_;
};

/// The service's own process, on the port where the library looks for it.
class Service {
public:
    Service() {
        if (const auto made = folder_.run("init --replace"); made.status != 0) {
            throw std::runtime_error(made.output);
        }
        process_ = std::make_unique<ChildProcess>([this] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // also where the test dies
            dup2(output_.writingEnd(), STDOUT_FILENO);
            execl(RBAC_SANDBOX, RBAC_SANDBOX, "--folder", folder_.path().c_str(), "serve", nullptr);
            return 127;
        });
        output_.closeWritingEnd();
        std::string greeting;
        if (!output_.read(greeting)) {
            throw std::runtime_error("the service ended: " + std::to_string(process_->wait()));
        }
    }
    ~Service() {
        process_.reset();
        const std::string temporary = TARVO_ROOT "/wmc/webserver/temp";
        std::filesystem::remove_all(temporary + "/access-caches");
        std::filesystem::remove(temporary + "/operation-cache.json");
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

private:
    ServiceFolder folder_;
    LinePipe output_;
    std::unique_ptr<ChildProcess> process_;
};

/// A process that checks. It makes its client once, and each checker once.
class CheckingProcess {
public:
    static constexpr char NO = '0';
    static constexpr char YES = '1';

    // So that its end is noticed.
    CheckingProcess() { answers_.closeWritingEnd(); }

    /// The answers, NO or YES, for each subject, and for it for each object.
    std::string ask(const std::vector<Subject>& subjects, const std::vector<std::string>& objects) {
        // Text forms have no white space.
        std::ostringstream question;
        question << subjects.size();
        for (const Subject& subject : subjects) {
            question << " " << subject.operation << " " << subject.roles.size();
            for (const int role : subject.roles) {
                question << " " << role;
            }
        }
        for (const std::string& object : objects) {
            question << " " << object;
        }
        const std::lock_guard<std::mutex> lock(asking_);
        questions_.write(question.str());
        std::string answers;
        if (!answers_.read(answers) || answers.size() != subjects.size() * objects.size()) {
            throw std::runtime_error("the checking process ended or failed");
        }
        return answers;
    }

private:
    /// What happens in the process itself.
    class Checks {
    public:
        std::string answer(const std::string& question) {
            std::istringstream in(question);
            std::size_t count = 0;
            in >> count;
            std::vector<boost::shared_ptr<const AccessChecker>> checkers;
            while (checkers.size() < count) {
                checkers.push_back(readChecker(in));
            }
            std::vector<ObjectNamespace> objects;
            for (std::string text; in >> text;) {
                objects.push_back(boost::lexical_cast<ObjectNamespace>(text));
            }
            std::string answers;
            for (const auto& checker : checkers) {
                for (const ObjectNamespace& object : objects) {
                    answers += checker->checkAccess(object) ? YES : NO;
                }
            }
            return answers;
        }

    private:
        boost::shared_ptr<const AccessChecker> readChecker(std::istream& in) {
            std::string operation;
            std::size_t count = 0;
            in >> operation >> count;
            std::set<int> roles;
            for (int role = 0; count > 0 && in >> role; --count) {
                roles.insert(role);
            }
            boost::shared_ptr<const AccessChecker>& checker = checkers_[{operation, roles}];
            if (!checker) {
                requireSuccess(
                    "createAccessChecker",
                    client().createAccessChecker(roles, boost::lexical_cast<ObjectNamespace>(operation), 0, checker));
            }
            return checker;
        }

        AccessControlClient& client() {
            if (!client_) {
                requireSuccess("create", AccessControlClient::create(ObjectNamespace(), client_));
            }
            return *client_;
        }

        boost::shared_ptr<AccessControlClient> client_;
        std::map<std::pair<std::string, std::set<int>>, boost::shared_ptr<const AccessChecker>> checkers_;
    };

    LinePipe questions_;
    LinePipe answers_;
    std::mutex asking_;
    ChildProcess process_{[this] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Checks checks;
        for (std::string question; questions_.read(question);) {
            answers_.write(checks.answer(question));
        }
        return 0;
    }};
};

/// The work of somebody whose objects are there already, or gone already.
class NoWork : public ObjectRegistrationCallback, public ObjectUnregistrationCallback {
public:
    int process() override { return 0; }
    void failed(int /*status*/) override {}
};

class NoBulkWork : public BulkObjectRegistrationCallback {
public:
    explicit NoBulkWork(std::set<ObjectNamespace> objects) : objects_(std::move(objects)) {}
    int process(std::set<ObjectNamespace>& succeeded) override {
        succeeded = objects_;
        return 0;
    }
    void failed(int /*status*/) override {}

private:
    std::set<ObjectNamespace> objects_;
};

/// How an administrator reaches the service.
struct Administration {
    RoleAPI roles;
    ManagedObjectAPI objects;
    OperationAPI operations;
    DefaultObjectRegistrationService registration;
};

class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {}

    /// A number from 0 to `limit` - 1.
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(engine_); }
    bool once(std::size_t in) { return below(in) == 0; }
    template <class T>
    const T& oneOf(const std::vector<T>& things) {
        return things[below(things.size())];
    }

    std::vector<std::string> someOf(std::vector<std::string> things, std::size_t count) {
        std::shuffle(things.begin(), things.end(), engine_);
        things.resize(count);
        return things;
    }

private:
    std::mt19937 engine_;
};

/// What was asked, and how often the answer was yes, or another one than before a change.
struct Tally {
    long questions = 0;
    long allowed = 0;
    long turned = 0;
};

/// A random tree of objects with random definitions for roles of its own, at the service and in the rules.
class Model {
public:
    Model(unsigned seed, Administration& administration, CheckingProcess& checking,
          const std::vector<std::string>& operations)
        : seed_(seed),
          dice_(seed),
          administration_(administration),
          checking_(checking),
          operations_(dice_.someOf(operations, OPERATIONS)),
          base_{"ASSETS", oddComponent() + std::to_string(seed)} {
        rules_.operations.insert(operations.begin(), operations.end());
        rules_.objects[{}] = {};
        rules_.objects[{"ASSETS"}] = {};
    }

    /// Whether every answer was right.
    bool run(Tally& tally) {
        build();
        bool right = check(tally);
        for (int i = 0; i < CHANGES && right; ++i) {
            change();
            right = check(tally);
        }
        if (right) {
            remove();
            right = check(tally);
        }
        return right;
    }

    /// Everything that was done, and what there is.
    std::string description() const {
        std::ostringstream out;
        out << "seed " << seed_ << "\n";
        for (const std::string& step : steps_) {
            out << "  " << step << "\n";
        }
        for (const auto& [path, object] : rules_.objects) {
            out << namespaceOf(path) << (object.inherits ? " inherits" : " does not inherit") << "\n";
            for (const Definition& definition : object.definitions) {
                out << "  " << textOf(definition) << "\n";
            }
        }
        return out.str();
    }

private:
    static std::string textOf(const Definition& definition) {
        std::ostringstream out;
        out << "definition " << definition.id << ": role " << definition.role << " " << definition.propagation;
        for (const std::string& operation : definition.operations) {
            out << " " << operation;
        }
        return out.str();
    }

    std::string oddComponent() {
        static const std::vector<std::string> PIECES{
            "A", "A", "db", " ", "|", "%", "%7C", "+", "/", "\"", "\\", "\xC3\xA9", "\xE6\x97\xA5", "\xFF", "\n", "?"};
        std::string made;
        for (std::size_t i = 1 + dice_.below(4); i > 0; --i) {
            made += dice_.oneOf(PIECES);
        }
        return made;
    }

    /// A path and all that lead to it become places where an object may be.
    void addPlaces(const Components& path) {
        for (std::size_t length = base_.size(); length <= path.size(); ++length) {
            const Components place(path.begin(), path.begin() + static_cast<long>(length));
            if (std::find(places_.begin(), places_.end(), place) == places_.end()) {
                places_.push_back(place);
            }
        }
    }

    void build() {
        for (std::size_t i = 2 + dice_.below(2); i > 0; --i) {
            createRole();
        }
        std::vector<std::string> names;
        for (int i = 0; i < 5; ++i) {
            names.push_back(oddComponent());
        }
        for (int i = 0; i < 4; ++i) {
            Components path = base_;
            for (std::size_t depth = dice_.below(5); depth > 0; --depth) {
                path.push_back(dice_.oneOf(names));
            }
            addPlaces(path);
        }
        registerSome();
        for (std::size_t i = 2 + dice_.below(5); i > 0; --i) {
            define();
        }
        // Beside and below the places, where there is nothing.
        std::vector<Components> objects{{}, {"ASSETS"}};
        for (const Components& place : places_) {
            objects.push_back(place);
            objects.push_back(place);
            if (dice_.once(3)) {
                objects.back().back() += "A";
            } else {
                objects.back().push_back(dice_.oneOf(names));
            }
        }
        std::sort(objects.begin(), objects.end());
        objects.erase(std::unique(objects.begin(), objects.end()), objects.end());
        for (const Components& object : objects) {
            objects_.push_back(object);
            objectTexts_.push_back(namespaceOf(object).str());
        }
        chooseSubjects();
    }

    void chooseSubjects() {
        std::vector<std::set<int>> roleSets{{}, {everyRole_.begin(), everyRole_.end()}};
        for (const int role : everyRole_) {
            roleSets.push_back({role});
        }
        for (const std::set<int>& roles : roleSets) {
            for (const std::string& operation : operations_) {
                subjects_.push_back({roles, operation});
            }
        }
        for (const std::string& operation : {dice_.oneOf(operations_), std::string(UNKNOWN_OPERATION)}) {
            subjects_.push_back({{EVERYTHING_ROLE}, operation});
        }
    }

    void createRole() {
        const std::string name = "model " + std::to_string(seed_) + " role " + std::to_string(everyRole_.size());
        roles_.push_back(administration_.roles.create_role(name, "of the model"));
        everyRole_.push_back(roles_.back().id);
        steps_.push_back("create role " + std::to_string(roles_.back().id));
    }

    /// Registers a random part of the places at once.
    void registerSome() {
        std::list<boost::shared_ptr<ObjectRegistrationData>> registrations;
        std::set<ObjectNamespace> names;
        for (const Components& place : places_) {
            if (dice_.once(3)) {
                continue;
            }
            rules_.objects[place].inherits = !dice_.once(4);
            registrations.push_back(registrationOf(place));
            names.insert(namespaceOf(place));
        }
        if (!names.empty()) {
            requireSuccess("bulkRegisterObjects", administration_.registration.bulkRegisterObjects(
                                                      registrations, boost::make_shared<NoBulkWork>(names)));
        }
        steps_.push_back("register " + std::to_string(names.size()) + " objects");
    }

    boost::shared_ptr<ObjectRegistrationData> registrationOf(const Components& place) {
        const bool inherits = rules_.objects.at(place).inherits;
        return boost::make_shared<ObjectRegistrationData>(namespaceOf(place), "asset",
                                                          json_loads_shared(inherits ? "{}" : R"({"inherit": false})"),
                                                          std::list<ObjectNamespace>(), false);
    }

    Components anyObject() {
        auto chosen = rules_.objects.begin();
        std::advance(chosen, dice_.below(rules_.objects.size()));
        return chosen->first;
    }

    /// The places with an object, or those without.
    std::vector<Components> placesThatAre(bool registered) const {
        std::vector<Components> found;
        std::copy_if(places_.begin(), places_.end(), std::back_inserter(found),
                     [&](const Components& place) { return (rules_.objects.count(place) != 0) == registered; });
        return found;
    }

    void define() {
        static const std::vector<Propagation::enum_type> PROPAGATIONS{Propagation::OBJECT, Propagation::CHILDREN,
                                                                      Propagation::OBJECT_AND_CHILDREN};
        const Components path = anyObject();
        const Role role = dice_.oneOf(roles_);
        Definition definition{"", role.id, dice_.oneOf(PROPAGATIONS), {}};
        for (std::size_t i = 1 + dice_.below(2); i > 0; --i) {
            definition.operations.insert(dice_.oneOf(operations_));
        }
        const boost::shared_ptr<json_t> references = json_array_shared();
        for (const std::string& operation : definition.operations) {
            const auto reference =
                json_pack_shared("{s:s, s:s}", "id", operation.c_str(), "type", "accessControlOperation");
            json_array_append(references.get(), reference.get());
        }
        definition.id =
            administration_.objects.add_access_definition(namespaceOf(path), role, definition.propagation, references)
                .id;
        steps_.push_back("add " + textOf(definition) + " on " + namespaceOf(path).str());
        rules_.objects.at(path).definitions.push_back(definition);
    }

    void undefine(const Components& path, std::size_t index) {
        std::vector<Definition>& definitions = rules_.objects.at(path).definitions;
        const auto chosen = definitions.begin() + static_cast<long>(index);
        administration_.objects.delete_access_definition_by_id(namespaceOf(path), chosen->id);
        steps_.push_back("delete definition " + chosen->id);
        definitions.erase(chosen);
    }

    /// @return whether there was one.
    bool undefineAny() {
        std::vector<std::pair<Components, std::size_t>> all;
        for (const auto& [path, object] : rules_.objects) {
            for (std::size_t i = 0; i < object.definitions.size(); ++i) {
                all.emplace_back(path, i);
            }
        }
        if (all.empty()) {
            return false;
        }
        const auto chosen = dice_.oneOf(all);
        undefine(chosen.first, chosen.second);
        return true;
    }

    void undefineAllOf(int role) {
        for (auto& [path, object] : rules_.objects) {
            for (std::size_t i = object.definitions.size(); i-- > 0;) {
                if (object.definitions[i].role == role) {
                    undefine(path, i);
                }
            }
        }
    }

    bool switchInheritance() {
        const std::vector<Components> candidates = placesThatAre(true);
        if (candidates.empty()) {
            return false;
        }
        const Components& place = dice_.oneOf(candidates);
        bool& inherits = rules_.objects.at(place).inherits;
        inherits = !inherits;
        administration_.objects.set_inherit(namespaceOf(place), inherits);
        steps_.push_back("switch inheritance " + std::string(inherits ? "on" : "off") + " on " +
                         namespaceOf(place).str());
        return true;
    }

    bool registerOne() {
        const std::vector<Components> candidates = placesThatAre(false);
        if (candidates.empty()) {
            return false;
        }
        const Components& place = dice_.oneOf(candidates);
        rules_.objects[place].inherits = !dice_.once(3);
        requireSuccess("registerObject", administration_.registration.registerObject(registrationOf(place),
                                                                                     boost::make_shared<NoWork>()));
        steps_.push_back("register " + namespaceOf(place).str());
        return true;
    }

    bool unregisterOne() {
        const std::vector<Components> candidates = placesThatAre(true);
        if (candidates.empty()) {
            return false;
        }
        const Components& place = dice_.oneOf(candidates);
        requireSuccess("unregisterObject",
                       administration_.registration.unregisterObject(namespaceOf(place), boost::make_shared<NoWork>()));
        steps_.push_back("unregister " + namespaceOf(place).str());
        rules_.objects.erase(place);
        return true;
    }

    /// Another name decides nothing.
    void renameRole() {
        Role& role = roles_[dice_.below(roles_.size())];
        role.name += " renamed";
        role.description.clear();
        administration_.roles.update_role(role);
        steps_.push_back("rename role " + std::to_string(role.id));
    }

    void deleteRole(std::size_t index) {
        const int id = roles_[index].id;
        undefineAllOf(id);
        administration_.roles.delete_role_by_id(id);
        steps_.push_back("delete role " + std::to_string(id));
        roles_.erase(roles_.begin() + static_cast<long>(index));
    }

    /// Makes one change of any kind that is possible.
    void change() {
        bool isMade = false;
        while (!isMade) {
            isMade = tryToChange();
        }
    }

    bool tryToChange() {
        switch (dice_.below(12)) {
            case 0:
            case 1:
            case 2:
                define();
                return true;
            case 3:
            case 4:
                return undefineAny();
            case 5:
            case 6:
            case 7:
                return switchInheritance();
            case 8:
                return registerOne();
            case 9:
                return unregisterOne();
            case 10:
                renameRole();
                return true;
            default:
                if (roles_.size() == 1) {
                    return false;
                }
                deleteRole(dice_.below(roles_.size()));
                return true;
        }
    }

    void remove() {
        std::list<ObjectNamespace> names;
        for (const Components& place : placesThatAre(true)) {
            names.push_back(namespaceOf(place));
            rules_.objects.erase(place);
        }
        administration_.registration.bulkUpdateObjectState({}, {}, names);
        while (!roles_.empty()) {
            deleteRole(0);
        }
        steps_.emplace_back("remove everything");
    }

    bool check(Tally& tally) {
        const std::string answers = checking_.ask(subjects_, objectTexts_);
        auto answer = answers.begin();
        for (const Subject& subject : subjects_) {
            for (const Components& object : objects_) {
                const bool expected = rules_.allows(subject, object);
                const bool given = *answer++ == CheckingProcess::YES;
                if (given != expected) {
                    report(subject, object, expected);
                    return false;
                }
                tally.allowed += given ? 1 : 0;
            }
        }
        tally.questions += static_cast<long>(answers.size());
        for (std::size_t i = 0; i < answersBefore_.size(); ++i) {
            tally.turned += answers[i] != answersBefore_[i] ? 1 : 0;
        }
        answersBefore_ = answers;
        return true;
    }

    void report(const Subject& subject, const Components& object, bool expected) const {
        std::ostringstream roles;
        for (const int role : subject.roles) {
            roles << " " << role;
        }
        ADD_FAILURE() << subject.operation << " on " << namespaceOf(object) << " for the roles" << roles.str()
                      << ": the rules say " << (expected ? "yes" : "no") << ", the checking process says "
                      << (expected ? "no" : "yes") << "\n"
                      << description();
    }

    const unsigned seed_;
    Dice dice_;
    Administration& administration_;
    CheckingProcess& checking_;
    const std::vector<std::string> operations_;
    const Components base_;
    Rules rules_;
    std::vector<Components> places_;
    std::vector<Role> roles_;
    std::vector<int> everyRole_;  // the deleted ones too
    std::vector<Subject> subjects_;
    std::vector<Components> objects_;
    std::vector<std::string> objectTexts_;
    std::string answersBefore_;
    std::vector<std::string> steps_;
};

class AdministrationModelTest : public testing::Test {
protected:
    /// Takes models one after the other until there are no more, or one was wrong.
    void work(Administration& administration, const std::vector<std::string>& operations) {
        for (unsigned seed = ++lastSeed_; seed <= MODELS && !HasFailure(); seed = ++lastSeed_) {
            Tally tally;
            Model model(seed, administration, checking_, operations);
            try {
                model.run(tally);
            } catch (const std::exception& failure) {
                ADD_FAILURE() << failure.what() << "\n" << model.description();
            }
            const std::lock_guard<std::mutex> lock(counting_);
            total_.questions += tally.questions;
            total_.allowed += tally.allowed;
            total_.turned += tally.turned;
        }
    }

    Service service_;
    // Forked while this process has no threads yet.
    CheckingProcess checking_;
    std::atomic<unsigned> lastSeed_{0};
    std::mutex counting_;
    Tally total_;
};

}  // namespace

TEST_F(AdministrationModelTest, WhatIsChangedDecidesTheNextCheckOfAnotherProcess) {
    Administration administration;
    std::vector<std::string> operations;
    for (const ObjectNamespace& operation : administration.operations.get_operations("object eq '|ASSETS|'")) {
        operations.push_back(operation.str());
    }
    ASSERT_GE(operations.size(), OPERATIONS);
    std::vector<std::thread> workers;
    for (int i = 0; i < MODELS_SIDE_BY_SIDE; ++i) {
        workers.emplace_back([&] { work(administration, operations); });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    // Neither answer is so rare that nothing is shown, and changes do change something.
    EXPECT_GT(total_.allowed, total_.questions / 50);
    EXPECT_LT(total_.allowed, total_.questions - total_.questions / 50);
    EXPECT_GT(total_.turned, total_.questions / 100);
}
