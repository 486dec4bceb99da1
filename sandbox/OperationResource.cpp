#include "sandbox/OperationResource.h"

#include "sandbox/FilterExpression.h"
#include "sandbox/Json.h"
#include "sandbox/ResourceTypes.h"

namespace Tesmor::Arkwell::Sandbox {

namespace {

/// Which operations are wanted.
class Selection {
public:
    explicit Selection(const ServiceRequest& request)
        : filter_(request, {{"name", true}, {"object", false}}), byObject_(filter_.field() == "object") {
        if (byObject_) {
            parseNamespace(filter_.text());
        }
    }

    bool accepts(const OperationRecord& operation) const {
        if (!byObject_) {
            return filter_.accepts(operation.name);
        }
        // A text form begins with those of all its ancestors.
        return filter_.text().compare(0, operation.appliesTo.size(), operation.appliesTo) == 0;
    }

private:
    FilterExpression filter_;
    bool byObject_;
};

}  // namespace

ServiceResponse listOperations(AccessService& service, const ServiceRequest& request) {
    const Selection selection(request);
    const JsonPointer list = json::array();
    service.read([&](const ServiceTables& tables) {
        for (const OperationRecord& operation : tables.operations.all()) {
            if (selection.accepts(operation)) {
                json::append(list,
                             json::pack("{s:s, s:s, s:{s:s}}", "type", OPERATION_TYPE, "id", operation.name.c_str(),
                                        "attributes", "appliesTo", operation.appliesTo.c_str()));
            }
        }
    });
    return {200, json::dump(json::pack("{s:O}", "data", list.get()))};
}

}  // namespace Tesmor::Arkwell::Sandbox
