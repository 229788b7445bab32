// Lists whose items are their own links: to join one, to leave it and to pass all on takes no
// memory, and each kind of item costs a user far less time to compile than a std::list.
#ifndef ZELVO_DETAIL_CHAIN_HPP
#define ZELVO_DETAIL_CHAIN_HPP

#include "system.hpp"

namespace zelvo::detail {

// Stands in one chain, or in none; leaves it when it is destroyed. Whoever guards the chain guards
// its links.
class Link {
public:
    Link() = default;
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link() { unlink(); }

    bool isLinked() const noexcept { return next_ != this; }
    void unlink() noexcept {
        next_->before_ = before_;
        before_->next_ = next_;
        next_ = this;
        before_ = this;
    }

private:
    template <class Item>
    friend class Chain;

    ZELVO_APART void takeBefore(Link &link) noexcept {
        link.unlink();
        link.next_ = this;
        link.before_ = before_;
        before_->next_ = &link;
        before_ = &link;
    }
    // All that another head has, before those of this one.
    void takeAllBehind(Link &head) noexcept {
        if (head.isLinked()) {
            head.before_->next_ = next_;
            next_->before_ = head.before_;
            next_ = head.next_;
            next_->before_ = this;
            head.next_ = &head;
            head.before_ = &head;
        }
    }

    Link *next_ = this;
    Link *before_ = this;
};

// Of items that are Links; owns none of them.
template <class Item>
class Chain {
public:
    bool empty() const noexcept { return !head_.isLinked(); }
    Item *first() const noexcept { return itemAt(head_.next_); }
    Item &front() const noexcept { return static_cast<Item &>(*head_.next_); } // there is one
    Item *after(const Item &item) const noexcept { return itemAt(item.next_); }
    void append(Item &item) noexcept { head_.takeBefore(item); }
    void prependAll(Chain &other) noexcept { head_.takeAllBehind(other.head_); }

private:
    Item *itemAt(Link *link) const noexcept {
        return link == &head_ ? nullptr : static_cast<Item *>(link);
    }

    Link head_;
};

template <class Item>
class OwningChain : public Chain<Item> {
public:
    OwningChain() = default;
    explicit OwningChain(Item *first) noexcept { this->append(*first); }
    OwningChain(const OwningChain &) = delete;
    OwningChain &operator=(const OwningChain &) = delete;
    ~OwningChain() {
        while (!this->empty()) {
            dropFirst();
        }
    }
    void dropFirst() noexcept { delete &this->front(); }
};

} // namespace zelvo::detail

#endif
