#include "tools/ModelFile.h"

#include "sandbox/CacheWriter.h"
#include "sandbox/Json.h"
#include "sandbox/ServiceError.h"

#include <rbac/ManagedObjectAPI.h>

#include <boost/lexical_cast.hpp>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Tesmor::Arkwell::Tools {

namespace {

using Rbac::ObjectNamespace;
using Rbac::OperationCache;
using Rbac::Propagation;
using Sandbox::AccessModel;
using Sandbox::DocumentValue;
using Sandbox::Grant;
using Sandbox::GrantScope;
using Sandbox::JsonPointer;
using Sandbox::ModelObject;
using Sandbox::ServiceError;

JsonPointer parse(const std::string& text, json_error_t& error) {
    return JsonPointer(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &error));
}

bool isBlank(const std::string& line) {
    return line.find_first_not_of(" \t\r") == std::string::npos;
}

GrantScope scopeOf(const DocumentValue& value) {
    Propagation propagation;
    if (!boost::conversion::try_lexical_convert(value.text(), propagation)) {
        value.refuse("must be OBJECT, CHILDREN or OBJECT_AND_CHILDREN");
    }
    switch (propagation.value()) {
        case Propagation::OBJECT:
            return GrantScope::OBJECT;
        case Propagation::CHILDREN:
            return GrantScope::CHILDREN;
        default:
            return GrantScope::OBJECT_AND_CHILDREN;
    }
}

class ModelReader {
public:
    ModelReader(const std::string& path, OperationCache& operations) : path_(path), operations_(operations) {}

    AccessModel read() {
        std::ifstream in(path_, std::ios::binary);
        if (!in) {
            throw std::system_error(errno, std::generic_category(), path_);
        }
        int number = 0;
        std::string line;
        do {
            ++number;
        } while (std::getline(in, line) && isBlank(line));
        if (!isBlank(line)) {
            readFrom(in, std::move(line), number);
        }
        if (in.bad()) {
            throw std::system_error(EIO, std::generic_category(), path_);
        }
        return std::move(model_);
    }

private:
    /// What begins with the line of this number, the first that is not blank.
    void readFrom(std::istream& in, std::string line, int number) {
        json_error_t error;
        const JsonPointer value = parse(line, error);
        if (value && json_object_get(value.get(), "objects") == nullptr) {
            readLines(in, std::move(line), number);
            return;
        }
        std::string document(static_cast<std::size_t>(number - 1), '\n');
        document += line;
        document += in.eof() ? "" : "\n";
        document.append(std::istreambuf_iterator<char>(in), {});
        readDocument(document);
    }

    void readLines(std::istream& in, std::string line, int number) {
        do {
            if (!isBlank(line)) {
                json_error_t error;
                const JsonPointer value = parse(line, error);
                if (!value) {
                    refuse(", line " + std::to_string(number) + ", column " + std::to_string(error.column), error.text);
                }
                readObject({value.get(), ""}, ", line " + std::to_string(number));
            }
            ++number;
        } while (std::getline(in, line));
    }

    void readDocument(const std::string& text) {
        json_error_t error;
        const JsonPointer document = parse(text, error);
        if (!document) {
            refuse(", line " + std::to_string(error.line) + ", column " + std::to_string(error.column), error.text);
        }
        std::vector<DocumentValue> objects;
        explain("", [&] {
            const DocumentValue root(document.get(), "");
            root.requireOnly({"namespace", "objects"});
            if (const auto scope = root.optionalMember("namespace")) {
                model_.scope = scope->objectName();
            }
            objects = root.member("objects").elements();
        });
        for (const DocumentValue& object : objects) {
            readObject(object, "");
        }
    }

    void readObject(const DocumentValue& value, const std::string& where) {
        ModelObject object;
        explain(where, [&] {
            value.requireOnly({"namespace", "inherit", "accessDefinitions"});
            object.name = value.member("namespace").objectName();
        });
        explain(where + ", object " + object.name.str(), [&] {
            object.inherit = value.member("inherit").boolean();
            if (const auto definitions = value.optionalMember("accessDefinitions")) {
                for (const DocumentValue& definition : definitions->elements()) {
                    readDefinition(definition, object.grants);
                }
            }
            const std::size_t count = model_.objectCount();
            model_.add(object);
            if (model_.objectCount() == count) {
                value.refuse("speaks of an object for the second time");
            }
        });
    }

    void readDefinition(const DocumentValue& value, std::vector<Grant>& grants) {
        value.requireOnly({"roleId", "propagation", "operations"});
        const std::int32_t role = value.member("roleId").number(std::numeric_limits<std::int32_t>::min());
        const GrantScope scope = scopeOf(value.member("propagation"));
        for (const DocumentValue& operation : value.member("operations").elements()) {
            grants.push_back({role, bitOf(operation), scope});
        }
    }

    std::int32_t bitOf(const DocumentValue& operation) {
        if (operation.isNumber()) {
            return operation.number();
        }
        const ObjectNamespace name = operation.objectName();
        const boost::optional<Rbac::Operation> known = operations_[name];
        if (!known) {
            operation.refuse("must be an operation that is known, which " + name.str() + " is not");
        }
        return known->bitNumber();
    }

    /// Says where a document is not as it has to be.
    template <class Read>
    void explain(const std::string& where, Read read) const {
        try {
            read();
        } catch (const ServiceError& error) {
            refuse(where, error.details().front());
        }
    }

    [[noreturn]] void refuse(const std::string& where, const std::string& why) const {
        throw std::invalid_argument(path_ + where + ": " + why);
    }

    const std::string& path_;
    OperationCache& operations_;
    AccessModel model_;
};

}  // namespace

AccessModel readModelFile(const std::string& path, OperationCache& operations) {
    return ModelReader(path, operations).read();
}

ModelCache::TemporaryFolder::TemporaryFolder()
    : path_((std::filesystem::temp_directory_path() / "arkwell-model-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), path_);
    }
}

ModelCache::TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ModelCache::ModelCache(const AccessModel& model) : cache_(publish(model, folder_.path())) {}

Rbac::Manifest ModelCache::publish(const AccessModel& model, const std::string& directory) {
    Sandbox::CacheWriterOptions options;
    options.durable = false;
    Sandbox::CacheWriter(directory, options).publish(model);
    return {"model", directory};
}

}  // namespace Tesmor::Arkwell::Tools
