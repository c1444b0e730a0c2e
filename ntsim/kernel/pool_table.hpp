// The pool's table of live blocks, by address. Internal to ntsim/kernel/pool.cpp.
//
// Open addressing with linear probing: an allocation or a free of pool memory costs no allocation
// of its own for the table's entry, and finds its slot in a probe or two. The table is kept at most
// half full; a deletion moves the entries behind it back into the hole, so that no tombstones
// build up and every probe ends at the first empty slot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ntsim::pool {

template <typename Record>
class LiveTable {
public:
    // The record of the block at address, or null when it is not live.
    Record* Find(const void* address)
    {
        if (slots_.empty()) {
            return nullptr;
        }
        for (size_t index = Home(address);; index = Next(index)) {
            Slot& slot = slots_[index];
            if (slot.address == nullptr) {
                return nullptr;
            }
            if (slot.address == address) {
                return &slot.record;
            }
        }
    }

    // Adds a block that is not in the table.
    void Insert(const void* address, const Record& record)
    {
        if ((count_ + 1) * 2 > slots_.size()) {
            Grow();
        }
        size_t index = Home(address);
        while (slots_[index].address != nullptr) {
            index = Next(index);
        }
        slots_[index].address = address;
        slots_[index].record = record;
        count_ += 1;
    }

    // Removes a block that is in the table.
    void Erase(const void* address)
    {
        size_t hole = Home(address);
        while (slots_[hole].address != address) {
            hole = Next(hole);
        }
        slots_[hole].address = nullptr;
        count_ -= 1;
        // An entry behind the hole moves into it unless its home lies between the hole and it:
        // then it is already where a probe from its home reaches it first.
        for (size_t index = Next(hole); slots_[index].address != nullptr; index = Next(index)) {
            const size_t home = Home(slots_[index].address);
            const bool reachable = hole < index ? (hole < home && home <= index) : (hole < home || home <= index);
            if (!reachable) {
                slots_[hole] = slots_[index];
                slots_[index].address = nullptr;
                hole = index;
            }
        }
    }

    size_t size() const { return count_; }

    // visit(address, record) for every live block, in no order.
    template <typename Visit>
    void ForEach(Visit visit) const
    {
        for (const Slot& slot : slots_) {
            if (slot.address != nullptr) {
                visit(slot.address, slot.record);
            }
        }
    }

private:
    struct Slot {
        const void* address = nullptr;
        Record record{};
    };

    static constexpr size_t kInitialSlots = 1024;  // a power of two

    // Blocks are at least 16-byte aligned: the low bits say nothing and are dropped.
    size_t Home(const void* address) const
    {
        const uint64_t key = reinterpret_cast<uintptr_t>(address) >> 4;
        return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> 32) & (slots_.size() - 1);
    }
    size_t Next(size_t index) const { return (index + 1) & (slots_.size() - 1); }

    void Grow()
    {
        std::vector<Slot> old(slots_.empty() ? kInitialSlots : slots_.size() * 2);
        old.swap(slots_);
        count_ = 0;
        for (const Slot& slot : old) {
            if (slot.address != nullptr) {
                Insert(slot.address, slot.record);
            }
        }
    }

    std::vector<Slot> slots_;
    size_t count_ = 0;
};

}  // namespace ntsim::pool
