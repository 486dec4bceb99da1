// Makes the seeds of the fuzzer of cache verification anew: MakeCacheCorpus FOLDER.

#include "CacheFilesInput.h"
#include "sandbox/CacheImage.h"

#include <cstdint>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Tesmor::Arkwell::Sandbox;

namespace {

class Seeds {
public:
    explicit Seeds(std::string folder) : folder_(std::move(folder)) {}

    void add(const std::string& name, const std::vector<ModelObject>& objects) const {
        AccessModel model;
        for (const ModelObject& object : objects) {
            model.add(object);
        }
        add(name, model);
    }

    void add(const std::string& name, const AccessModel& model) const {
        const CacheImage image = CacheImage::build(model);
        const fuzz::CacheFiles files{std::string(image.metadataBytes()), std::string(image.objectBytes()),
                                     std::string(image.nodeBytes()), std::string(image.segmentBytes())};
        std::ofstream out(folder_ + "/" + name, std::ios::binary | std::ios::trunc);
        out << fuzz::joined(files);
        if (!out.flush()) {
            throw std::runtime_error("cannot write " + folder_ + "/" + name);
        }
    }

private:
    std::string folder_;
};

ModelObject named(const ObjectNamespace& name, std::vector<Grant> grants = {}) {
    return {name, true, ObjectState::READY, std::move(grants)};
}

std::vector<ModelObject> wide() {
    std::vector<ModelObject> objects;
    for (int i = 0; i < 15; ++i) {
        objects.push_back(named(ObjectNamespace("A", std::to_string(i * 7)), {{i, 1, GrantScope::OBJECT}}));
    }
    return objects;
}

std::vector<Grant> manyGrants() {
    std::vector<Grant> grants;
    for (std::int32_t i = 0; i < 7; ++i) {
        grants.push_back({i - 3, i * 40, GrantScope::OBJECT});
        grants.push_back({5, i * 32, GrantScope::CHILDREN});
    }
    return grants;
}

/// With records that nothing leads to any more.
AccessModel changed() {
    AccessModel model;
    model.add(named(ObjectNamespace("A"), {{3, 5, GrantScope::OBJECT}}));
    model.add(named(ObjectNamespace("B"), {{4, 5, GrantScope::OBJECT}}));
    model.add(named(ObjectNamespace("A"), {{6, 5, GrantScope::CHILDREN}}));
    return model;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "MakeCacheCorpus FOLDER\n";
        return 2;
    }
    try {
        const Seeds seeds(argv[1]);
        seeds.add("empty", std::vector<ModelObject>());
        seeds.add("root", {named(ObjectNamespace(), {{0, 0, GrantScope::CHILDREN}})});
        seeds.add("one", {named(ObjectNamespace("A"), {{3, 5, GrantScope::OBJECT}})});
        seeds.add("nested", {named(ObjectNamespace("ROOT")), named(ObjectNamespace("ROOT", "AB")),
                             named(ObjectNamespace("ROOT", "AB", "C"), {{1, 1, GrantScope::OBJECT_AND_CHILDREN}})});
        seeds.add("escaped", {named(ObjectNamespace("a b|%\xE9~")), named(ObjectNamespace("", ""))});
        seeds.add("wide", wide());
        seeds.add("grants", {named(ObjectNamespace("A"), manyGrants()), named(ObjectNamespace("B"), manyGrants())});
        seeds.add("changed", changed());
    } catch (const std::exception& failure) {
        std::cerr << "MakeCacheCorpus: " << failure.what() << "\n";
        return 1;
    }
    return 0;
}
