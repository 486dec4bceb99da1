// Any bytes as the files of an access cache: they are verified, and where nothing is found, the walks of the library
// stay inside of them.

#include "CacheFilesInput.h"
#include "rbac/cache/SegmentDescent.h"

#include <rbac/AccessCache.h>
#include <rbac/CacheVerification.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace Tesmor::Arkwell::Rbac;

namespace {

using RoleNode = TreeNode<int, NodeBits>;

void require(bool condition) {
    if (!condition) {
        abort();
    }
}

/// A file's records in memory of exactly their size, so that every step beside them is noticed.
template <class Record>
class Records {
public:
    explicit Records(const std::string& bytes)
        : count_(bytes.size() / sizeof(Record)), records_(std::make_unique<Record[]>(count_)) {
        if (count_ != 0) {
            std::memcpy(records_.get(), bytes.data(), count_ * sizeof(Record));
        }
    }

    const Record* get() const { return records_.get(); }
    const Record& at(NodeOffset offset) const {
        require(offset % sizeof(Record) == 0 && offset / sizeof(Record) < count_);
        return records_[offset / sizeof(Record)];
    }
    std::size_t count() const { return count_; }

private:
    std::size_t count_;
    std::unique_ptr<Record[]> records_;
};

/// A segment on the way, and the text that leads to it.
struct Place {
    NodeOffset segment;
    std::string before;
};

/// Walks everywhere, for a cache that is said to be sound.
class Walk {
public:
    explicit Walk(const fuzz::CacheFiles& files)
        : objects_(files.objects), nodes_(files.nodes), segments_(files.segments) {
        detail::MetadataHeader header{};
        require(files.metadata.size() >= sizeof header);
        std::memcpy(&header, files.metadata.data(), sizeof header);
        root_ = header.segmentRoot;
    }

    /// @return how many objects there are.
    std::size_t run() {
        std::vector<Place> waiting;
        if (root_ != 0) {
            waiting.push_back({root_, ""});
        }
        std::size_t steps = 0;
        std::size_t found = 0;
        while (!waiting.empty()) {
            const Place place = std::move(waiting.back());
            waiting.pop_back();
            require(++steps < segments_.count());
            const SegmentNode& node = segments_.at(place.segment);
            const std::string text = place.before + textOf(node.key);
            if (node.object != 0) {
                ++found;
                checkObject(text, node.object);
            }
            push(waiting, node.left, place.before);
            push(waiting, node.right, place.before);
            push(waiting, node.child, text);
        }
        return found;
    }

private:
    static void push(std::vector<Place>& waiting, NodeOffset segment, const std::string& before) {
        if (segment != 0) {
            waiting.push_back({segment, before});
        }
    }

    static std::string textOf(std::int32_t key) {
        const auto value = static_cast<std::uint32_t>(key);
        std::string text;
        for (unsigned shift = 32; shift != 0 && (value << (32 - shift)) != 0; shift -= 8) {
            text += static_cast<char>(value >> (shift - 8));
        }
        return text;
    }

    /// The library finds the object by its text, and reads its role trees.
    void checkObject(const std::string& text, NodeOffset object) const {
        const detail::CacheView view{segments_.get(), objects_.get(), nodes_.get(), root_};
        const ManagedObject* found = nullptr;
        detail::descend(view, text, [&](const ManagedObject& record, std::size_t length) {
            if (length == text.size()) {
                found = &record;
            }
        });
        require(found == &objects_.at(object));
        for (const NodeOffset tree : {found->ownRoles, found->childRoles}) {
            checkRoles(tree);
        }
    }

    /// The library finds the roles at the right end of the tree, and looks for others.
    void checkRoles(NodeOffset tree) const {
        for (const int role : {-1, 0, 1, 3, 1000, INT32_MIN, INT32_MAX}) {
            for (const std::int32_t operation : {0, 5, 40, INT32_MAX}) {
                static_cast<void>(detail::operationBit(nodes_.get(), tree, role, operation));
            }
        }
        std::size_t steps = 0;
        for (NodeOffset role = tree; role != 0; role = nodes_.at(role).right) {
            require(++steps < nodes_.count());
            require(detail::findNode(nodes_.get(), tree, nodes_.at(role).key) == &nodes_.at(role));
            std::size_t words = 0;
            for (NodeOffset word = nodes_.at(role).payload; word != 0; word = nodes_.at(word).left) {
                require(++words < nodes_.count());
                require(nodes_.at(word).key >= 0);
            }
        }
    }

    Records<ManagedObject> objects_;
    Records<RoleNode> nodes_;
    Records<SegmentNode> segments_;
    NodeOffset root_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::CacheFiles files = fuzz::split({reinterpret_cast<const char*>(data), size});
    const CacheBytes bytes{files.metadata, files.objects, files.nodes, files.segments};
    std::uint64_t reported = 0;
    const CacheStatistics statistics = verifyCacheBytes(bytes, [&reported](const CacheFault& fault) {
        ++reported;
        require(!fault.file.empty() && !fault.what.empty() && fault.objectText.size() <= 1027);
        return true;
    });
    require(statistics.faults == reported && statistics.complete);
    // No record makes more than a few: its links, its key, and that it is lost.
    require(reported <= 8 + size / 2);
    if (reported == 0) {
        require(Walk(files).run() == statistics.objects.reached);
        return 0;
    }
    std::uint64_t taken = 0;
    require(!verifyCacheBytes(bytes, [&taken](const CacheFault&) { return ++taken == 0; }).complete && taken == 1);
    return 0;
}
