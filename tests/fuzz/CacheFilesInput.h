#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

// The files of a cache in one fuzzer's input: the sizes of the objects and nodes files, two bytes each, the larger
// byte first; 64 bytes for the metadata; objects, nodes, and the rest for the segments. Where the input ends, so does a
// file.

constexpr std::size_t METADATA_SIZE = 64;

struct CacheFiles {
    std::string metadata;
    std::string objects;
    std::string nodes;
    std::string segments;
};

inline std::string joined(const CacheFiles& files) {
    const auto sizeOf = [](const std::string& file) {
        return std::string{static_cast<char>(file.size() >> 8U), static_cast<char>(file.size())};
    };
    return sizeOf(files.objects) + sizeOf(files.nodes) + files.metadata + files.objects + files.nodes + files.segments;
}

inline CacheFiles split(std::string_view input) {
    const auto take = [&input](std::size_t size) {
        std::string taken(input.substr(0, size));
        input.remove_prefix(taken.size());
        return taken;
    };
    const auto takeSize = [&take] {
        const std::string bytes = take(2);
        return bytes.size() == 2
                   ? std::size_t{static_cast<std::uint8_t>(bytes[0])} << 8U | static_cast<std::uint8_t>(bytes[1])
                   : 0;
    };
    const std::size_t objects = takeSize();
    const std::size_t nodes = takeSize();
    CacheFiles files;
    files.metadata = take(METADATA_SIZE);
    files.objects = take(objects);
    files.nodes = take(nodes);
    files.segments = input;
    return files;
}

}  // namespace fuzz
