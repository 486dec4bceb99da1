#include "sandbox/CacheImageModel.h"
#include "sandbox/CacheWriter.h"
#include "testing/LogCapture.h"
#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>
#include <rbac/CacheVerification.h>

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

// The caches of the sandbox's writer: they are sound, and stay so until somebody damages them.

namespace Tesmor::Arkwell::Sandbox {
namespace {

using Rbac::CacheFault;
using Rbac::CacheStatistics;
using Rbac::verifyCache;
using Rbac::verifyCacheBytes;
using sandbox_testing::CacheFiles;
using sandbox_testing::CacheInterpreter;
using sandbox_testing::filesOf;
using testing_support::LogCapture;
using testing_support::overwriteFile;
using testing_support::TemporaryDirectory;

using Random = std::mt19937;

AccessModel modelOf(const std::vector<ModelObject>& objects) {
    AccessModel model;
    for (const ModelObject& object : objects) {
        model.add(object);
    }
    return model;
}

ModelObject named(const ObjectNamespace& name, std::vector<Grant> grants = {}) {
    return {name, true, ObjectState::READY, std::move(grants)};
}

CacheStatistics verify(const CacheFiles& files, std::string& firstFault) {
    return verifyCacheBytes({files.metadata, files.objects, files.nodes, files.segments}, [&](const CacheFault& fault) {
        firstFault = fault.file + " " + std::to_string(fault.offset) + ": " + fault.what;
        return false;
    });
}

/// The first fault; empty where there is none.
std::string faultIn(const std::vector<ModelObject>& objects) {
    std::string fault;
    verify(filesOf(CacheImage::build(modelOf(objects))), fault);
    return fault;
}

std::vector<Grant> anyGrants(Random& random) {
    std::vector<Grant> grants;
    for (auto count = random() % 5; count > 0; --count) {
        grants.push_back({static_cast<std::int32_t>(random() % 6) - 2, static_cast<std::int32_t>(random() % 70),
                          static_cast<GrantScope>(random() % 3)});
    }
    return grants;
}

ModelObject anyObject(Random& random) {
    ObjectNamespace name;
    for (auto depth = random() % 4; depth > 0; --depth) {
        name = name | std::string(random() % 7, static_cast<char>("aB |%\xE9"[random() % 6]));
    }
    const ObjectState state = random() % 10 < 7   ? ObjectState::READY
                              : random() % 2 == 0 ? ObjectState::PENDING
                                                  : ObjectState::DELETED;
    return {name, random() % 2 == 0, state, anyGrants(random)};
}

}  // namespace

TEST(SoundCache, OfNothing) {
    EXPECT_EQ(faultIn({}), "");
}

TEST(SoundCache, OfTheRootAlone) {
    EXPECT_EQ(faultIn({named(ObjectNamespace(), {{1, 1, GrantScope::CHILDREN}})}), "");
}

TEST(SoundCache, OfEveryByte) {
    std::vector<ModelObject> objects;
    for (int byte = 0; byte < 256; ++byte) {
        for (const char* before : {"", "a", "ab", "abc"}) {
            objects.push_back(named(ObjectNamespace(before + std::string(1, static_cast<char>(byte)) + "z")));
        }
    }
    EXPECT_EQ(faultIn(objects), "");
}

TEST(SoundCache, OfManyComponents) {
    std::string deep = "|";
    for (int i = 0; i < 5000; ++i) {
        deep += "c|";
    }
    EXPECT_EQ(faultIn({named(boost::lexical_cast<ObjectNamespace>(deep), {{1, 1, GrantScope::OBJECT}})}), "");
}

TEST(SoundCache, OfManyRolesAndOperations) {
    std::vector<Grant> grants;
    for (std::int32_t i = 0; i < 1000; ++i) {
        grants.push_back({i * 2'000'000 - 1'000'000'000, i, GrantScope::OBJECT});
        grants.push_back({7, i * 2'000'000, GrantScope::CHILDREN});
    }
    grants.push_back({7, 2147483647, GrantScope::CHILDREN});
    EXPECT_EQ(faultIn({named(ObjectNamespace("A"), grants)}), "");
}

TEST(SoundCache, StaysSoundOverManyPublications) {
    const LogCapture log;
    const TemporaryDirectory directory;
    CacheWriterOptions options;
    options.durable = false;
    const CacheWriter writer(directory.path(), options);
    Random random(17);  // NOLINT(cert-msc32-c,cert-msc51-cpp): repeatable
    AccessModel model;
    std::map<std::string, ModelObject> objects;
    bool hadFree = false;
    for (std::uint64_t round = 1; round <= 150; ++round) {
        for (auto changes = random() % 60; changes > 0; --changes) {
            const ModelObject object = anyObject(random);
            model.add(object);
            objects[object.name.str()] = object;
        }
        writer.publish(model);
        const CacheStatistics statistics = verifyCache(directory.path(), [&](const CacheFault& fault) {
            ADD_FAILURE() << round << ": " << fault.file << " " << fault.offset << " " << fault.what;
            return false;
        });
        std::uint64_t present = 0;
        for (const auto& [name, object] : objects) {
            present += object.state == ObjectState::DELETED ? 0 : 1;
        }
        ASSERT_EQ(statistics.objects.reached, present);
        ASSERT_EQ(statistics.inheriting + statistics.notInheriting, present);
        ASSERT_EQ(statistics.nodes.reached + statistics.nodes.free, statistics.nodes.records);
        ASSERT_EQ(statistics.segments.free, 0U);
        ASSERT_EQ(statistics.publication.value().number, round);
        hadFree = hadFree || statistics.nodes.free != 0;
    }
    EXPECT_TRUE(hadFree);
}

TEST(SoundCache, StatisticsSayWhatThePublicationIs) {
    const LogCapture log;
    const TemporaryDirectory directory;
    const auto now = [] { return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1); };
    const std::int64_t before = now();
    for (int i = 0; i < 2; ++i) {
        CacheWriter(directory.path())
            .publish(modelOf({named(ObjectNamespace("A"), {{1, 1, GrantScope::OBJECT}, {2, 1, GrantScope::OBJECT}}),
                              named(ObjectNamespace("B"), {{1, 1, GrantScope::CHILDREN}})}));
    }
    const auto publication = verifyCache(directory.path(), [](const CacheFault&) { return true; }).publication.value();
    EXPECT_EQ(publication.number, 2U);
    EXPECT_GE(publication.publishedAt, before);
    EXPECT_LE(publication.publishedAt, now());
    EXPECT_EQ(publication.objectCount, 2U);
    EXPECT_EQ(publication.grantCount, 3U);
}

namespace {

/// Damages of a cache's files, at random.
class Damage {
public:
    explicit Damage(Random& random) : random_(random) {}

    void doTo(CacheFiles& files) {
        for (auto count = 1 + random_() % 3; count > 0; --count) {
            std::string* const all[] = {&files.metadata, &files.objects, &files.nodes, &files.segments};
            const unsigned which = random_() % 4;
            change(*all[which], which == 1 ? 16 : which == 2 ? 24 : 32);
        }
    }

private:
    void change(std::string& file, std::size_t recordSize) {
        const std::size_t size = file.size();
        switch (random_() % 8) {
            case 0:
                file.resize(random_() % (size + 1));
                return;
            case 1:
                file.resize(size + recordSize * (random_() % 3));
                return;
            case 2:
                return putWord(file, static_cast<std::uint32_t>(recordSize * (random_() % (size / recordSize + 2))));
            case 3:
                return putWord(file, static_cast<std::uint32_t>(24 * (random_() % 20)));
            case 4:
                return putWord(file, static_cast<std::uint32_t>(random_()));
            case 5:
                return putWord(file, 0);
            default:
                if (size != 0) {
                    char& byte = file[random_() % size];
                    byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << (random_() % 8)));
                }
        }
    }

    void putWord(std::string& file, std::uint32_t word) {
        if (file.size() >= 4) {
            std::memcpy(file.data() + random_() % (file.size() / 4) * 4, &word, 4);
        }
    }

    Random& random_;
};

/// Compares what the library's lookups say of a cache with a plain reading of it that leaves no file.
class LookupComparison {
public:
    void run(const CacheFiles& files, const std::vector<ObjectNamespace>& names) const {
        overwriteFile(directory_ / "manifest.json", R"({"namespace": "|"})");
        overwriteFile(directory_ / "metadata", files.metadata);
        overwriteFile(directory_ / "objects", files.objects);
        overwriteFile(directory_ / "nodes", files.nodes);
        overwriteFile(directory_ / "segments", files.segments);
        const Rbac::AccessCache cache(Rbac::Manifest("cache", directory_.path()));
        const Rbac::AccessCache::Reader reader = cache.lock();
        const CacheInterpreter plain(files);
        for (const ObjectNamespace& name : names) {
            const auto record = plain.lookup(name.str());
            ASSERT_EQ(reader.lookup(name) != nullptr, record.has_value()) << name;
            for (std::int32_t role = -2; record && role < 4; ++role) {
                for (const std::int32_t operation : {0, 37, 69}) {
                    ASSERT_EQ(reader.getOperationBit(name, role, Rbac::Operation(operation)),
                              plain.granted(*record, CacheInterpreter::OWN, role, operation));
                    ASSERT_EQ(reader.getChildOperationBit(name, role, Rbac::Operation(operation)),
                              plain.granted(*record, CacheInterpreter::CHILD, role, operation));
                }
            }
        }
    }

private:
    LogCapture log_;
    TemporaryDirectory directory_;
};

}  // namespace

TEST(DamagedCache, IsReportedOrCanBeReadAllTheSame) {
    Random random(5);  // NOLINT(cert-msc32-c,cert-msc51-cpp): repeatable
    const LookupComparison comparison;
    int sound = 0;
    int damaged = 0;
    for (int round = 0; round < 100; ++round) {
        std::vector<ModelObject> objects;
        std::vector<ObjectNamespace> names;
        for (auto count = random() % 8; count > 0; --count) {
            objects.push_back(anyObject(random));
            names.push_back(objects.back().name);
        }
        const CacheFiles original = filesOf(CacheImage::build(modelOf(objects)));
        for (int i = 0; i < 40; ++i) {
            CacheFiles files = original;
            Damage(random).doTo(files);
            std::string fault;
            verify(files, fault);
            if (!fault.empty()) {
                ++damaged;
                continue;
            }
            ++sound;
            ASSERT_NO_FATAL_FAILURE(comparison.run(files, names));
        }
    }
    EXPECT_GT(sound, 500);
    EXPECT_GT(damaged, 1000);
}

}  // namespace Tesmor::Arkwell::Sandbox
