#include "VEL_TimerRegistry.h"

#include <utility>

namespace {
constexpr std::size_t kInitialCells = 1024;
}  // namespace

std::size_t VEL_TimerRegistry::locate(std::uint32_t id) const {
    if (id == 0 || _cells.empty()) {
        return kAbsent;
    }
    std::size_t index = home(id);
    for (std::size_t distance = 0; distance <= _farthest; ++distance) {
        if (_cells[index].id == id) {
            return index;
        }
        if (_cells[index].id == 0) {
            break;
        }
        index = (index + 1) & mask();
    }
    return kAbsent;
}

void VEL_TimerRegistry::insert(std::uint32_t id, VEL_TimerHandler* handler) {
    const std::size_t found = locate(id);
    if (found != kAbsent) {
        _cells[found].handler = handler;
        return;
    }
    if (2 * (_size + 1) > _cells.size()) {
        rehash(_cells.empty() ? kInitialCells : 2 * _cells.size());
    }
    place(Cell{id, handler});
    ++_size;
}

void VEL_TimerRegistry::place(const Cell& cell) {
    std::size_t index = home(cell.id);
    std::size_t distance = 0;
    while (_cells[index].id != 0) {
        index = (index + 1) & mask();
        ++distance;
    }
    _cells[index] = cell;
    if (distance > _farthest) {
        _farthest = distance;
    }
}

VEL_TimerHandler* VEL_TimerRegistry::find(std::uint32_t id) const {
    const std::size_t found = locate(id);
    return found == kAbsent ? nullptr : _cells[found].handler;
}

VEL_TimerHandler* VEL_TimerRegistry::erase(std::uint32_t id) {
    const std::size_t found = locate(id);
    if (found == kAbsent) {
        return nullptr;
    }
    VEL_TimerHandler* const handler = _cells[found].handler;
    fill(found);
    --_size;
    return handler;
}

void VEL_TimerRegistry::fill(std::size_t hole) {
    // An entry `gap` cells after the hole may move into it when the hole lies on its probe path,
    // that is when it sits at least `gap` cells from its home. None sits farther than _farthest.
    std::size_t index = (hole + 1) & mask();
    for (std::size_t gap = 1; gap <= _farthest && _cells[index].id != 0; ++gap) {
        if (displacement(index) >= gap) {
            _cells[hole] = _cells[index];
            hole = index;
            gap = 0;
        }
        index = (index + 1) & mask();
    }
    _cells[hole] = Cell();
}

void VEL_TimerRegistry::rehash(std::size_t count) {
    std::vector<Cell> old(count);  // may throw; nothing has changed yet
    old.swap(_cells);
    _farthest = 0;
    for (const Cell& cell : old) {
        if (cell.id != 0) {
            place(cell);
        }
    }
}

void VEL_TimerRegistry::swap(VEL_TimerRegistry& other) noexcept {
    _cells.swap(other._cells);
    std::swap(_size, other._size);
    std::swap(_farthest, other._farthest);
}
