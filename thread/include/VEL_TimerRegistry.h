/// @file
#ifndef THREAD_INCLUDE_VEL_TIMERREGISTRY_H
#define THREAD_INCLUDE_VEL_TIMERREGISTRY_H

#include <cstddef>
#include <cstdint>
#include <vector>

class VEL_TimerHandler;

/// VEL_TimerRegistry: the timer manager's table of live timers, from identifier to handler.
///
/// An open-addressing table with linear probing and backward-shift deletion, so that entering or
/// erasing a timer allocates nothing but the occasional regrowth. An identifier's home cell is the
/// identifier modulo the table size: identifiers are handed out densely (basis::VolatileUID), so
/// live ones mostly sit in their home cells, next to each other, and a burst of timers touches
/// the table in order. Dense identifiers also form long runs of occupied cells, which a plain
/// deletion would walk to their end; the table therefore tracks the largest distance of any entry
/// from its home and never looks farther than that.
///
/// The table doubles when half full and keeps its size when timers end, as the handler pool keeps
/// its handlers: a burst of timers that comes back finds its room made. An empty registry that
/// never held an entry has no table at all. Identifier 0 is never entered; it marks an empty cell.
///
/// Thread safety: none; the manager's registry lock guards it.
class VEL_TimerRegistry {
public:
    VEL_TimerRegistry() = default;

    /// Enters `handler` under `id`, replacing any handler entered under it. Throws std::bad_alloc
    /// when the table cannot grow; the table is unchanged then. REQUIRES: id != 0.
    void insert(std::uint32_t id, VEL_TimerHandler* handler);
    /// The handler entered under `id`, or null.
    VEL_TimerHandler* find(std::uint32_t id) const;
    /// Removes `id` and returns its handler, or null when it was not entered.
    VEL_TimerHandler* erase(std::uint32_t id);
    /// The number of entries.
    std::size_t size() const { return _size; }
    /// Exchanges the contents of the two registries.
    void swap(VEL_TimerRegistry& other) noexcept;
    /// Calls `visit(handler)` for every entry, in no particular order.
    template <class Visit>
    void forEach(Visit visit) const {
        for (const Cell& cell : _cells) {
            if (cell.id != 0) {
                visit(cell.handler);
            }
        }
    }

private:
    struct Cell {
        std::uint32_t id = 0;  ///< 0: empty
        VEL_TimerHandler* handler = nullptr;
    };
    static constexpr std::size_t kAbsent = SIZE_MAX;

    std::size_t mask() const { return _cells.size() - 1; }
    std::size_t home(std::uint32_t id) const { return id & mask(); }
    /// How far the entry in cell `index` sits from its home cell.
    std::size_t displacement(std::size_t index) const {
        return (index - home(_cells[index].id)) & mask();
    }
    /// The cell holding `id`, or kAbsent.
    std::size_t locate(std::uint32_t id) const;
    /// Closes the gap left at `hole` by moving later entries back towards their homes.
    void fill(std::size_t hole);
    /// Enters a cell's contents into a table with room for it.
    void place(const Cell& cell);
    /// Rebuilds the table with `count` cells (a power of two, at least twice the entry count).
    void rehash(std::size_t count);

    std::vector<Cell> _cells;  ///< a power of two in size, or empty
    std::size_t _size = 0;
    std::size_t _farthest = 0;  ///< no entry sits farther than this from its home cell
};

#endif  // THREAD_INCLUDE_VEL_TIMERREGISTRY_H
