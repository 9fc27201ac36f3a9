#include "VEL_TimerRegistry.h"

#include <cstdint>
#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Distinct fake handler addresses; the registry never dereferences them.
VEL_TimerHandler* fake(std::uint32_t id) {
    return reinterpret_cast<VEL_TimerHandler*>(static_cast<std::uintptr_t>(id) * 16 + 8);
}

// Runs a random mix of inserts and erases over `ids` against a std::unordered_map and checks
// every identifier of `ids` after each step.
void replay(const std::vector<std::uint32_t>& ids, unsigned seed, int steps) {
    VEL_TimerRegistry registry;
    std::unordered_map<std::uint32_t, VEL_TimerHandler*> model;
    std::mt19937 random(seed);
    for (int step = 0; step < steps; ++step) {
        const std::uint32_t id = ids[random() % ids.size()];
        if (random() % 3 != 0) {
            VEL_TimerHandler* handler = fake(id + static_cast<std::uint32_t>(step));
            registry.insert(id, handler);
            model[id] = handler;
        } else {
            const auto found = model.find(id);
            EXPECT_EQ(registry.erase(id), found == model.end() ? nullptr : found->second);
            if (found != model.end()) {
                model.erase(found);
            }
        }
        ASSERT_EQ(registry.size(), model.size()) << "step " << step;
        if (step % 97 == 0) {
            for (std::uint32_t each : ids) {
                const auto found = model.find(each);
                ASSERT_EQ(registry.find(each), found == model.end() ? nullptr : found->second)
                        << "id " << each << " step " << step;
            }
        }
    }
}

TEST(TimerRegistryTest, AgreesWithAHashMapForDenseCollidingAndWrappingIdentifiers) {
    std::vector<std::uint32_t> dense;
    for (std::uint32_t id = 1; id <= 3000; ++id) {
        dense.push_back(id);
    }
    // Every one of these has the same home cell in tables of up to 2^16 cells, and the last
    // ones sit at the end of the table, so probe runs wrap around to its start.
    std::vector<std::uint32_t> colliding;
    for (std::uint32_t k = 1; k <= 600; ++k) {
        colliding.push_back(k * 65536 + 1023);
        colliding.push_back(k * 65536 + 1);
    }
    replay(dense, 1, 30000);
    replay(colliding, 2, 20000);
}

TEST(TimerRegistryTest, NeverFindsIdentifierZeroOrAnIdentifierItWasNotGiven) {
    VEL_TimerRegistry registry;
    EXPECT_EQ(registry.find(7), nullptr);  // no table yet
    EXPECT_EQ(registry.erase(7), nullptr);
    registry.insert(7, fake(7));
    EXPECT_EQ(registry.find(0), nullptr);
    EXPECT_EQ(registry.erase(0), nullptr);
    EXPECT_EQ(registry.find(7 + 1024), nullptr);  // same home cell, not entered
    registry.insert(7, fake(8));                  // replaces
    EXPECT_EQ(registry.size(), 1u);
    EXPECT_EQ(registry.erase(7), fake(8));
    EXPECT_EQ(registry.erase(7), nullptr);
}

TEST(TimerRegistryTest, SwapHandsEveryEntryOverForOneVisitEach) {
    VEL_TimerRegistry registry;
    for (std::uint32_t id = 1; id <= 5000; ++id) {
        registry.insert(id, fake(id));
    }
    VEL_TimerRegistry taken;
    taken.swap(registry);
    EXPECT_EQ(registry.size(), 0u);
    EXPECT_EQ(registry.find(1), nullptr);
    std::set<VEL_TimerHandler*> visited;
    taken.forEach([&visited](VEL_TimerHandler* handler) { visited.insert(handler); });
    EXPECT_EQ(visited.size(), 5000u);
    EXPECT_EQ(visited.count(fake(5000)), 1u);
    registry.insert(9, fake(9));  // the emptied one still works
    EXPECT_EQ(registry.find(9), fake(9));
}

}  // namespace
