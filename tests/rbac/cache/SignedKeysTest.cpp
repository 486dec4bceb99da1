#include "testing/RawCache.h"
#include "testing/TemporaryDirectory.h"

#include <rbac/AccessCache.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

// This program's encode_component escapes nothing, as if every byte were a
// letter: texts hold bytes above 127.

using Tesmor::Arkwell::Rbac::AccessCache;
using Tesmor::Arkwell::Rbac::Manifest;
using Tesmor::Arkwell::Rbac::ObjectNamespace;
using testing_support::RawCache;
using testing_support::TemporaryDirectory;

std::string Tesmor::Arkwell::Rbac::ObjectNamespace::encode_component(const std::string& component) {
    return component;
}

TEST(SignedKeys, TextsHoldTheBytesAsTheyAre) {
    EXPECT_EQ(ObjectNamespace("\x80").str(), "|\x80|");
}

TEST(SignedKeys, ObjectsWithHighBytesAreFoundAmongTheOthers) {
    const TemporaryDirectory directory;
    RawCache files(directory.path());
    std::vector<std::string> components{"M",     "\x80", "\xFF\xFF\xFF\xFF", "a", "\xC3\xA9", "\x7F", "A", "",
                                        "Z\x80", "\xFF"};
    for (const std::string& component : components) {
        files.put("|" + component + "|", 0, {{1, {static_cast<std::int32_t>(component.size())}}});
    }
    files.write();
    const AccessCache cache(Manifest("name", directory.path()));
    const AccessCache::Reader reader = cache.lock();
    for (const std::string& component : components) {
        const ObjectNamespace ns(component);
        EXPECT_TRUE(reader.getOperationBit(
            ns, 1, Tesmor::Arkwell::Rbac::Operation(static_cast<std::int32_t>(component.size()))))
            << ns;
    }
    EXPECT_EQ(reader.lookup(ObjectNamespace("\x81")), nullptr);
    EXPECT_EQ(reader.lookup(ObjectNamespace("\xFF\xFF\xFF")), nullptr);
}

TEST(SignedKeys, NegativeKeysLieToTheLeft) {
    const TemporaryDirectory directory;
    RawCache files(directory.path());
    const auto high = files.put("|\x80|", 0);
    const auto bar = files.put("||", 0);
    const auto& parent = files.segmentAt(files.header.segmentRoot);
    const auto& first = files.segmentAt(parent.child);
    ASSERT_LT(first.key, 0);
    ASSERT_EQ(first.object, high);
    ASSERT_EQ(files.segmentAt(first.right).object, bar);
    files.write();
    const AccessCache cache(Manifest("name", directory.path()));
    const AccessCache::Reader reader = cache.lock();
    EXPECT_EQ(reader.lookup(ObjectNamespace("\x80")), reader.getManagedObject(high));
    EXPECT_EQ(reader.lookup(ObjectNamespace("")), reader.getManagedObject(bar));
}
