// Pointers in a row of memory, of which the first is mostly the next to go. The row has no memory
// until the first of them comes. Positions count from 0.
// Threads: one thread at a time.
#ifndef ZELVO_BUS_MK_ROW_H
#define ZELVO_BUS_MK_ROW_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

class bus_mk_row {
public:
    bus_mk_row() noexcept = default;
    ~bus_mk_row() { delete[] items_; }
    bus_mk_row(const bus_mk_row &) = delete;
    bus_mk_row &operator=(const bus_mk_row &) = delete;

    void swap(bus_mk_row &other) noexcept {
        std::swap(items_, other.items_);
        std::swap(places_, other.places_);
        std::swap(first_, other.first_);
        std::swap(end_, other.end_);
    }

    std::int32_t count() const noexcept { return end_ - first_; }
    void *const *begin() const noexcept { return items_ + first_; }
    void *const *end() const noexcept { return items_ + end_; }

    // False: no memory, nothing is changed.
    bool add(void *item) noexcept {
        if (end_ == places_ && !makePlace()) {
            return false;
        }
        items_[end_++] = item;
        return true;
    }
    // index is below count.
    void *take(std::int32_t index) noexcept {
        void **const place = items_ + first_ + index;
        void *const item = *place;
        std::move_backward(items_ + first_, place, place + 1);
        ++first_;
        if (first_ == end_) {
            first_ = 0;
            end_ = 0;
        }
        return item;
    }
    // Gives back the memory of an empty row, unless it is little.
    void trim() noexcept {
        if (count() == 0 && places_ > kFewPlaces) {
            bus_mk_row{}.swap(*this);
        }
    }

private:
    static constexpr std::int32_t kFewPlaces = 8;

    // Where half of the row has been taken, what stands behind moves there.
    bool makePlace() noexcept {
        const bool grows = 2 * first_ <= places_;
        const std::int32_t places = grows ? std::max(kFewPlaces, 2 * places_) : places_;
        void **const items =
            grows ? new (std::nothrow) void *[static_cast<std::size_t>(places)] : items_;
        if (!items) {
            return false;
        }
        end_ = static_cast<std::int32_t>(std::copy(items_ + first_, items_ + end_, items) - items);
        first_ = 0;
        if (grows) {
            delete[] std::exchange(items_, items);
            places_ = places;
        }
        return true;
    }

    void **items_ = nullptr;
    std::int32_t places_ = 0;
    std::int32_t first_ = 0; // what stands before has been taken
    std::int32_t end_ = 0;
};

#endif
