#include "engine/RuleKeySet.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>

namespace stonewall {

namespace {

constexpr size_t kMinimumSlots = 64;
constexpr size_t kBlockSize = size_t{1} << 20;
// Where an empty key points, so that stored empty keys have a non-null data.
constexpr char kEmptyKey[1] = {};

uint8_t tagOf(uint64_t hash) { return static_cast<uint8_t>(0x80 | (hash >> 57)); }

// At most 70% full: probes stay short, the table stays small.
bool overloaded(size_t count, size_t slots) { return count * 10 > slots * 7; }

}  // namespace

uint64_t RuleKeySet::defaultHash(std::string_view key) {
    return std::hash<std::string_view>{}(key);
}

RuleKeySet::RuleKeySet(size_t expectedCount, HashFunction hashFunction)
    : hash_(hashFunction ? hashFunction : &RuleKeySet::defaultHash) {
    size_t slots = kMinimumSlots;
    while (overloaded(expectedCount, slots)) slots *= 2;
    tags_.assign(slots, 0);
    slots_.resize(slots);
}

size_t RuleKeySet::find(std::string_view key, uint64_t hash) const {
    const size_t mask = tags_.size() - 1;
    const uint8_t tag = tagOf(hash);
    const auto shortHash = static_cast<uint32_t>(hash);
    for (size_t index = hash & mask;; index = (index + 1) & mask) {
        const uint8_t slotTag = tags_[index];
        if (slotTag == 0) return index;
        if (slotTag != tag) continue;
        const Slot& slot = slots_[index];
        if (slot.hash == shortHash && slot.length == key.size() &&
            std::memcmp(slot.data, key.data(), key.size()) == 0) {
            return index;
        }
    }
}

bool RuleKeySet::contains(std::string_view key) const { return tags_[find(key, hash_(key))] != 0; }

bool RuleKeySet::insert(std::string_view key) {
    const uint64_t hash = hash_(key);
    const size_t index = find(key, hash);
    if (tags_[index] != 0) return false;
    tags_[index] = tagOf(hash);
    // SQLite text is at most a gigabyte, so a key's length fits 32 bits.
    slots_[index] =
        Slot{store(key), static_cast<uint32_t>(key.size()), static_cast<uint32_t>(hash)};
    ++count_;
    if (overloaded(count_, tags_.size())) grow();
    return true;
}

const char* RuleKeySet::store(std::string_view key) {
    if (key.empty()) return kEmptyKey;
    if (key.size() > blockRemaining_) {
        if (key.size() > kBlockSize) {
            // A key longer than a block gets a block of its own; the current
            // block's tail stays for the keys that follow.
            blocks_.push_back(std::make_unique_for_overwrite<char[]>(key.size()));
            blockBytes_ += key.size();
            return static_cast<const char*>(
                std::memcpy(blocks_.back().get(), key.data(), key.size()));
        }
        blocks_.push_back(std::make_unique_for_overwrite<char[]>(kBlockSize));
        blockBytes_ += kBlockSize;
        blockCursor_ = blocks_.back().get();
        blockRemaining_ = kBlockSize;
    }
    char* destination = blockCursor_;
    std::memcpy(destination, key.data(), key.size());
    blockCursor_ += key.size();
    blockRemaining_ -= key.size();
    return destination;
}

void RuleKeySet::grow() {
    const size_t size = tags_.size() * 2;
    std::vector<uint8_t> oldTags(size, 0);
    std::vector<Slot> oldSlots(size);
    oldTags.swap(tags_);
    oldSlots.swap(slots_);
    // Only the low 32 bits of the hash are kept, which still place keys
    // well in tables of up to four billion slots.
    const size_t mask = size - 1;
    for (size_t i = 0; i < oldTags.size(); ++i) {
        if (oldTags[i] == 0) continue;
        size_t index = oldSlots[i].hash & mask;
        while (tags_[index] != 0) index = (index + 1) & mask;
        tags_[index] = oldTags[i];
        slots_[index] = oldSlots[i];
    }
}

size_t RuleKeySet::memoryUsage() const { return tags_.size() * (1 + sizeof(Slot)) + blockBytes_; }

}  // namespace stonewall
