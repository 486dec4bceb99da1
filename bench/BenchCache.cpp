#include "bench/BenchCache.h"

#include "bench/Corpus.h"
#include "sandbox/AccessModel.h"
#include "sandbox/CacheWriter.h"

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <utility>

namespace bench {

namespace {

using namespace Tesmor::Arkwell;

Sandbox::ModelObject modelled(const CorpusObject& object) {
    Sandbox::ModelObject result;
    result.name = object.name;
    result.inherit = object.inherit;
    for (const CorpusGrant& grant : object.grants) {
        const Sandbox::GrantScope scope = !grant.children ? Sandbox::GrantScope::OBJECT
                                          : grant.own     ? Sandbox::GrantScope::OBJECT_AND_CHILDREN
                                                          : Sandbox::GrantScope::CHILDREN;
        result.grants.push_back({grant.roleId, grant.operation, scope});
    }
    return result;
}

ObjectNamespace parse(const std::string& text) {
    auto name = boost::lexical_cast<ObjectNamespace>(text.c_str());
    name.str();
    return name;
}

}  // namespace

BenchCache::BenchCache() : directory_((std::filesystem::temp_directory_path() / "arkwell-bench-XXXXXX").string()) {
    if (mkdtemp(directory_.data()) == nullptr) {
        throw std::runtime_error("cannot make " + directory_);
    }
}

BenchCache::BenchCache(BenchCache&& other) noexcept
    : directory_(std::exchange(other.directory_, {})), texts_(std::move(other.texts_)) {}

BenchCache::~BenchCache() {
    if (!directory_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
}

Sandbox::AccessModel corpusModel(std::size_t count) {
    Sandbox::AccessModel model;
    const auto add = [&model](const CorpusObject& object) { model.add(modelled(object)); };
    forEachObject(count, add);
    forEachDeepObject(add);
    return model;
}

BenchCache BenchCache::ofCorpus(std::size_t count) {
    return of(corpusModel(count));
}

BenchCache BenchCache::of(const Sandbox::AccessModel& model) {
    BenchCache cache;
    Sandbox::CacheWriter(cache.directory_).publish(model);
    cache.texts_.reserve(model.objectCount());
    for (std::size_t i = 0; i < model.objectCount(); ++i) {
        cache.texts_.emplace_back(model.entry(i).text);
    }
    std::sort(cache.texts_.begin(), cache.texts_.end());
    return cache;
}

std::vector<const std::string*> BenchCache::ofDepth(int depth) const {
    std::vector<const std::string*> chosen;
    for (const std::string& text : texts_) {
        if (depth == 0 || std::count(text.begin(), text.end(), '|') == depth + 1) {
            chosen.push_back(&text);
        }
    }
    return chosen;
}

std::vector<ObjectNamespace> BenchCache::neighbours(std::size_t count, int depth) const {
    const std::vector<const std::string*> candidates = ofDepth(depth);
    std::vector<ObjectNamespace> chosen;
    for (std::size_t i = candidates.size() / 2; chosen.size() < count && i < candidates.size(); ++i) {
        chosen.push_back(parse(*candidates[i]));
    }
    return chosen;
}

std::vector<ObjectNamespace> BenchCache::sample(std::size_t count, int depth, unsigned seed) const {
    const std::vector<const std::string*> candidates = ofDepth(depth);
    std::mt19937 random(seed);
    std::vector<ObjectNamespace> chosen;
    for (std::size_t i = 0; i < count; ++i) {
        chosen.push_back(parse(*candidates[random() % candidates.size()]));
    }
    return chosen;
}

}  // namespace bench
