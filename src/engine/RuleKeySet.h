#pragma once

// The compiler's dedupe set: the hash keys of the rules seen in one
// compilation. Exact (keys are compared byte for byte on equal hashes); keys
// live back to back in large blocks, so a profile of 100000 rules costs one
// allocation per megabyte instead of two per rule. A probe reads a one-byte
// tag array first (small enough to stay in cache) and touches a slot only
// when its tag matches, so a new key costs about one cache miss.

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace stonewall {

class RuleKeySet {
  public:
    using HashFunction = uint64_t (*)(std::string_view);

    // expectedCount sizes the table up front; it grows past it as needed.
    // hashFunction is replaceable for tests of colliding keys.
    explicit RuleKeySet(size_t expectedCount = 0, HashFunction hashFunction = nullptr);
    RuleKeySet(const RuleKeySet&) = delete;
    RuleKeySet& operator=(const RuleKeySet&) = delete;

    // True when the key was not there before (it is now).
    bool insert(std::string_view key);
    bool contains(std::string_view key) const;
    size_t size() const { return count_; }
    // Bytes held by the table and the key blocks.
    size_t memoryUsage() const;

    static uint64_t defaultHash(std::string_view key);

  private:
    struct Slot {
        const char* data;
        uint32_t length;
        uint32_t hash;  // the low bits pick the slot; kept for growing
    };

    // The slot holding the key, or the empty slot where it belongs.
    size_t find(std::string_view key, uint64_t hash) const;
    const char* store(std::string_view key);
    void grow();

    HashFunction hash_;
    std::vector<uint8_t> tags_;  // 0: empty; else 0x80 | the hash's top 7 bits
    std::vector<Slot> slots_;    // open addressing, linear probing, power-of-two size
    size_t count_ = 0;
    std::vector<std::unique_ptr<char[]>> blocks_;
    size_t blockBytes_ = 0;  // bytes allocated across blocks
    char* blockCursor_ = nullptr;
    size_t blockRemaining_ = 0;
};

}  // namespace stonewall
