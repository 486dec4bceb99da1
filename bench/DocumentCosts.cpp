// What it costs to read and write the service's large documents, beside what jansson alone takes for the same ones.
//
// Times are processor times: both sides take turns in one process, so that each finds the heap as the other has left
// it, and the medians count. Memory is the peak of the heap, exactly, as malloc() is asked for it, the text of an
// answer from its arrival on included. Not counted on either side is what belongs to the caller: the objects to
// register and the set of those that succeeded; the texts that their namespaces keep do count.

#include "bench/Corpus.h"
#include "bench/HeapPeak.h"
#include "platform/Handles.h"
#include "testing/TemporaryDirectory.h"

#include <platform/HttpClient.h>
#include <rbac/ManagedObjectAPI.h>
#include <rbac/ObjectRegistrationService.h>
#include <rbac/RoleAPI.h>

#include <boost/make_shared.hpp>
#include <jansson.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <functional>
#include <iomanip>
#include <iostream>
#include <list>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Tesmor::Arkwell::Rbac;
using platform_detail::JsonPointer;
using Text = std::unique_ptr<char, decltype(&std::free)>;

constexpr std::size_t ROLES = 10'000;
constexpr std::size_t DEFINITIONS = 10'000;
constexpr std::size_t OBJECTS = 100'000;
constexpr double MIB = 1024.0 * 1024.0;

constexpr char REGISTRATION_FORMAT[] = "{s:s, s:s, s:{s:s, s:b, s:O, s:O}}";
constexpr char OBJECT_TYPE[] = "VM";

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

Text dump(const JsonPointer& document, std::size_t flags) {
    return {json_dumps(document.get(), flags), std::free};
}

/// As the service sends it.
std::string answerWith(JsonPointer data) {
    const JsonPointer document(json_pack("{s:o}", "data", data.release()));
    return dump(document, JSON_COMPACT).get();
}

std::string answerWithRoles(std::size_t count) {
    JsonPointer roles(json_array());
    for (std::size_t i = 1; i <= count; ++i) {
        const std::string id = std::to_string(i);
        const std::string self = "/access-control/roles/" + id;
        const std::string name = "operators of department " + id;
        const std::string description = "May see and restore what department " + id + " has backed up.";
        json_array_append_new(
            roles.get(), json_pack("{s:s, s:{s:{s:s}}, s:s, s:{s:s, s:s, s:b}}", "type", "accessControlRole", "links",
                                   "self", "href", self.c_str(), "id", id.c_str(), "attributes", "name", name.c_str(),
                                   "description", description.c_str(), "systemDefined", static_cast<int>(i <= 10)));
    }
    return answerWith(std::move(roles));
}

const ObjectNamespace& protectedObject() {
    static const ObjectNamespace object("ASSETS", "VMWARE", "frankfurt-1", "payroll-host-0017");
    return object;
}

std::string answerWithDefinitions(std::size_t count) {
    const std::string path =
        "/access-control/managed-objects/%7CASSETS%7CVMWARE%7Cfrankfurt-1%7Cpayroll-host-0017%7C/access-definitions/";
    JsonPointer definitions(json_array());
    for (std::size_t i = 1; i <= count; ++i) {
        const std::string id = std::to_string(i);
        JsonPointer operations(json_array());
        for (const char* operation : {"|OPERATIONS|VIEW|", "|OPERATIONS|UPDATE|", "|OPERATIONS|MANAGE_ACCESS|"}) {
            json_array_append_new(operations.get(),
                                  json_pack("{s:s, s:s}", "id", operation, "type", "accessControlOperation"));
        }
        json_array_append_new(
            definitions.get(),
            json_pack("{s:{s:{s:s}}, s:s, s:s, s:{s:s}, s:{s:{s:{s:s, s:s}}, s:{s:o}, s:{s:{s:s, s:s}}}}",  //
                      "links", "self", "href", (path + id).c_str(), "type", "accessDefinition", "id", id.c_str(),
                      "attributes", "propagation", "OBJECT_AND_CHILDREN",                              //
                      "relationships", "role", "data", "type", "accessControlRole", "id", id.c_str(),  //
                      "operations", "data", operations.release(),                                      //
                      "managedObject", "data", "type", "managedObject", "id", protectedObject().str().c_str()));
    }
    return answerWith(std::move(definitions));
}

std::string answerToRegistration(const std::vector<std::string>& names) {
    JsonPointer objects(json_array());
    for (const std::string& name : names) {
        json_array_append_new(
            objects.get(),
            json_pack("{s:s, s:s, s:{s:{s:[{s:s, s:s}]}}}", "type", "objectRegistrationData", "id", name.c_str(),
                      "relationships", "registeredObjects", "data", "type", "managedObject", "id", name.c_str()));
    }
    return answerWith(std::move(objects));
}

struct Answer {
    long httpStatus;
    const std::string* body;
};

/// Makes clients that give prepared answers and add up what is sent.
class PreparedHttp : public AWClientCURL_BaseFactory {
public:
    AWClientCURL_Base* create(const std::string& /*host*/, int /*port*/, AWCurlSessionType /*session*/) override {
        return new Client(*this);
    }

    std::deque<Answer> answers;
    std::size_t sentBytes = 0;

private:
    class Client : public AWClientCURL_Base {
    public:
        explicit Client(PreparedHttp& prepared) : prepared_(prepared) {}

        int Put(const std::string& /*url*/, const std::string& body) override { return send(body); }
        int Post(const std::string& /*url*/, const std::string& body) override { return send(body); }
        int PostFile(const std::string& /*url*/, const std::string& /*filePath*/) override { return -1; }
        int Patch(const std::string& /*url*/, const std::string& body) override { return send(body); }
        int Get(const std::string& /*url*/) override { return send(""); }
        int Delete(const std::string& /*url*/) override { return send(""); }
        void setApiVersion(const std::string& /*version*/) override {}

    private:
        int send(const std::string& body) {
            prepared_.sentBytes += body.size();
            httpStatus = prepared_.answers.at(0).httpStatus;
            responseBody = *prepared_.answers.at(0).body;
            prepared_.answers.pop_front();
            return 0;
        }

        PreparedHttp& prepared_;
    };
};

/// One side of a comparison. Only run() is measured.
class Side {
public:
    Side() = default;
    virtual ~Side() = default;
    Side(const Side&) = delete;
    Side& operator=(const Side&) = delete;

    virtual void prepare() {}
    virtual void run() = 0;
    /// Checks what came out, and gives it back.
    virtual void finish() {}
};

/// jansson alone reads an answer.
class Parsing : public Side {
public:
    explicit Parsing(const std::string& body) : body_(body) {}

    void run() override {
        const std::string arrived = body_;
        json_error_t error;
        const JsonPointer document(json_loads(arrived.c_str(), 0, &error));
        require(document != nullptr, "jansson cannot read the answer");
    }

private:
    const std::string& body_;
};

/// A client reads a list.
template <class Record>
class Listing : public Side {
public:
    using List = std::function<std::list<Record>()>;

    Listing(PreparedHttp& http, const std::string& body, std::size_t count, List list)
        : http_(http), body_(body), count_(count), list_(std::move(list)) {}

    void prepare() override { http_.answers.push_back({200, &body_}); }
    void run() override { records_ = list_(); }
    void finish() override {
        require(records_.size() == count_, "not all records were read");
        records_.clear();
    }

private:
    PreparedHttp& http_;
    const std::string& body_;
    std::size_t count_;
    List list_;
    std::list<Record> records_;
};

JsonPointer accessOfNewObjects() {
    return JsonPointer(json_pack("{s:b, s:[{s:i, s:s, s:[s, s]}]}", "inherit", 1, "accessDefinitions", "roleId", 5,
                                 "propagation", "OBJECT_AND_CHILDREN", "operations", "|OPERATIONS|VIEW|",
                                 "|OPERATIONS|UPDATE|"));
}

/// jansson alone makes what a bulk registration sends and reads what it is answered.
class RegistrationDocuments : public Side {
public:
    RegistrationDocuments(const std::vector<std::string>& names, const std::string& answer)
        : names_(names), answer_(answer), access_(accessOfNewObjects()) {}

    void run() override {
        sentBytes = sendRegistration();
        Parsing(answer_).run();
        sentBytes += sendUpdate();
    }

    std::size_t sentBytes = 0;

private:
    static std::size_t send(JsonPointer document) {
        const Text text = dump(document, JSON_COMPACT | JSON_ENSURE_ASCII);
        document.reset();
        return std::char_traits<char>::length(text.get());
    }

    std::size_t sendRegistration() const {
        JsonPointer objects(json_array());
        for (const std::string& name : names_) {
            const JsonPointer children(json_array());
            json_array_append_new(
                objects.get(),
                json_pack(REGISTRATION_FORMAT, "id", name.c_str(), "type", "objectRegistrationData", "attributes",
                          "objectType", OBJECT_TYPE, "ignoreAlreadyRegistered", 0, "accessControlAttributes",
                          access_.get(), "relativeChildNamespaces", children.get()));
        }
        return send(JsonPointer(json_pack("{s:o}", "data", objects.release())));
    }

    std::size_t sendUpdate() const {
        JsonPointer pairs(json_array());
        for (const std::string& name : names_) {
            json_array_append_new(pairs.get(), json_pack("{s:s, s:s}", "objectId", name.c_str(), "state", "READY"));
        }
        return send(JsonPointer(json_pack("{s:{s:s, s:{s:o}}}", "data", "type", "managedObjectUpdate", "attributes",
                                          "managedObjectsWithAttributes", pairs.release())));
    }

    const std::vector<std::string>& names_;
    const std::string& answer_;
    JsonPointer access_;
};

/// Has made all of its objects.
class AllSucceeded : public BulkObjectRegistrationCallback {
public:
    explicit AllSucceeded(std::set<ObjectNamespace> objects) : objects_(std::move(objects)) {}

    int process(std::set<ObjectNamespace>& succeeded) override {
        succeeded.swap(objects_);
        return 0;
    }
    void failed(int status) override { throw std::runtime_error("registration failed: " + std::to_string(status)); }

private:
    std::set<ObjectNamespace> objects_;
};

/// The workflow itself.
class BulkRegistration : public Side {
public:
    BulkRegistration(const std::vector<ObjectNamespace>& objects, const std::string& answer,
                     std::size_t expectedSentBytes)
        : objects_(objects),
          answer_(answer),
          expectedSentBytes_(expectedSentBytes),
          http_(boost::make_shared<PreparedHttp>()),
          service_(1556, http_),
          access_(accessOfNewObjects().release(), json_decref) {}

    void prepare() override {
        // Fresh ones each time: a namespace keeps its text once it is computed.
        for (const ObjectNamespace& object : objects_) {
            data_.push_back(boost::make_shared<ObjectRegistrationData>(object, OBJECT_TYPE, access_,
                                                                       std::list<ObjectNamespace>(), false));
        }
        callback_ = boost::make_shared<AllSucceeded>(std::set<ObjectNamespace>(objects_.begin(), objects_.end()));
        http_->sentBytes = 0;
        http_->answers.push_back({201, &answer_});
        http_->answers.push_back({201, &answerToUpdate_});
    }
    void run() override { status_ = service_.bulkRegisterObjects(data_, callback_); }
    void finish() override {
        require(status_ == 0 && http_->answers.empty(), "the registration failed");
        require(http_->sentBytes == expectedSentBytes_, "the requests are of another size than jansson's");
        data_.clear();
        callback_.reset();
    }

private:
    const std::vector<ObjectNamespace>& objects_;
    const std::string& answer_;
    std::string answerToUpdate_ = R"({"data":{"type":"managedObjectUpdate"}})";
    std::size_t expectedSentBytes_;
    boost::shared_ptr<PreparedHttp> http_;
    DefaultObjectRegistrationService service_;
    boost::shared_ptr<json_t> access_;
    std::list<boost::shared_ptr<ObjectRegistrationData>> data_;
    boost::shared_ptr<AllSucceeded> callback_;
    int status_ = 0;
};

double processorMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double timeOf(Side& side) {
    side.prepare();
    const double begin = processorMilliseconds();
    side.run();
    const double milliseconds = processorMilliseconds() - begin;
    side.finish();
    return milliseconds;
}

double peakMemoryOf(Side& side) {
    side.prepare();
    bench::startHeapCount();
    side.run();
    const std::size_t bytes = bench::finishHeapCount();
    side.finish();
    return static_cast<double>(bytes) / MIB;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

bool report(const std::string& what, double value, double floor, const std::string& unit, double limit) {
    const double ratio = value / floor;
    std::cout << std::left << std::setw(52) << what << std::right << std::fixed << std::setprecision(2) << std::setw(8)
              << ratio << "  at most " << limit << (ratio <= limit ? "" : "  MISSED") << std::setprecision(1) << "  ("
              << value << " over " << floor << " " << unit << ")" << std::endl;
    return ratio <= limit;
}

struct Limits {
    double time;
    double memory;
};

bool compare(const std::string& what, Side& side, Side& floor, int rounds, const Limits& limits) {
    std::vector<double> times;
    std::vector<double> floorTimes;
    for (int i = 0; i < rounds; ++i) {
        floorTimes.push_back(timeOf(floor));
        times.push_back(timeOf(side));
    }
    const bool timeKept = report(what + ", time", median(times), median(floorTimes), "ms", limits.time);
    const double floorPeak = peakMemoryOf(floor);
    return report(what + ", peak memory", peakMemoryOf(side), floorPeak, "MiB", limits.memory) && timeKept;
}

bool compareRoles(int rounds) {
    const std::string body = answerWithRoles(ROLES);
    const auto http = boost::make_shared<PreparedHttp>();
    RoleAPI api(http);
    Listing<Role> client(*http, body, ROLES, [&api] { return api.get_roles(""); });
    Parsing floor(body);
    return compare("10,000 roles", client, floor, rounds, {1.3, 1.5});
}

bool compareDefinitions(int rounds) {
    const std::string body = answerWithDefinitions(DEFINITIONS);
    const auto http = boost::make_shared<PreparedHttp>();
    ManagedObjectAPI api(http);
    Listing<AccessDefinition> client(*http, body, DEFINITIONS,
                                     [&api] { return api.get_access_definitions(protectedObject()); });
    Parsing floor(body);
    return compare("10,000 access definitions", client, floor, rounds, {1.3, 1.5});
}

bool compareRegistration(int rounds) {
    std::vector<ObjectNamespace> objects;
    bench::forEachObject(OBJECTS, [&objects](const bench::CorpusObject& object) { objects.push_back(object.name); });
    std::vector<std::string> names;
    names.reserve(objects.size());
    for (const ObjectNamespace& object : objects) {
        names.push_back(ObjectNamespace(object).str());  // of a copy, for the text would stay in it
    }
    const std::string answer = answerToRegistration(names);
    RegistrationDocuments floor(names, answer);
    floor.run();
    BulkRegistration workflow(objects, answer, floor.sentBytes);
    return compare("registration of 100,000 objects", workflow, floor, rounds, {1.3, 1.3});
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::stoi(argv[1]) : 21;
    // The log is left at its default level, as in production.
    const testing_support::TemporaryDirectory directory;
    const std::string settings = directory / "platform.json";
    testing_support::writeFile(settings, R"({"primaryServer":"localhost"})");
    setenv("TARVO_PLATFORM_CONFIG", settings.c_str(), 1);
    bool kept = compareRoles(rounds);
    kept &= compareDefinitions(rounds);
    kept &= compareRegistration(std::max(1, rounds / 3));
    return kept ? 0 : 1;
}
