#pragma once

#include "tools/GrantWords.h"

#include <cstdint>
#include <vector>

namespace Tesmor::Arkwell::Tools {

/// One role gains or loses one operation.
struct GrantChange {
    std::int32_t roleId;
    std::int32_t operationBit;
    bool gained;
};

/// What roles gain and lose, in the order in which it was added.
class ChangeList {
public:
    /// Adds what is on one side of the word only.
    void add(const WordPair& word) {
        const WordPair change{word.key, word.before & ~word.after, word.after & ~word.before};
        if (change.before == change.after) {
            return;
        }
        words_.push_back(change);
        lost_ += static_cast<unsigned>(__builtin_popcount(change.before));
        gained_ += static_cast<unsigned>(__builtin_popcount(change.after));
    }

    bool empty() const { return words_.empty(); }
    /// What is lost as what is held before, what is gained as what is held after.
    const std::vector<WordPair>& words() const { return words_; }
    std::uint64_t gained() const { return gained_; }
    std::uint64_t lost() const { return lost_; }

    friend bool operator==(const ChangeList& a, const ChangeList& b) { return a.words_ == b.words_; }

    /// Visits each change, those of one word in the order of the operations.
    template <class Visit>
    void forEach(Visit visit) const {
        for (const WordPair& word : words_) {
            for (NodeBits bits = word.before | word.after; bits != 0; bits &= bits - 1) {
                const auto bit = static_cast<std::uint32_t>(__builtin_ctz(bits));
                const std::uint32_t operation = static_cast<std::uint32_t>(word.key.word) * 32 + bit;
                visit(GrantChange{word.key.roleId, static_cast<std::int32_t>(operation),
                                  ((word.after >> bit) & 1U) != 0});
            }
        }
    }

private:
    std::vector<WordPair> words_;
    std::uint64_t gained_ = 0;
    std::uint64_t lost_ = 0;
};

}  // namespace Tesmor::Arkwell::Tools
