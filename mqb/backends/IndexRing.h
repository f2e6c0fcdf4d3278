// IndexRing.h: the two fixed-capacity structures of the channel and of every
// queue, each allocated once when it is made and never again: a ring of
// values in arrival order (finished commands waiting to be reaped, commands
// waiting to start) and a stack of free slot indexes. Neither checks its
// bounds: callers know from size() and available() that there is room.
#pragma once
#include <memory>

namespace mqb {

// Values in arrival order, at most `capacity`.
template <typename T>
class IndexRing {
public:
    explicit IndexRing(int capacity) : buf_(new T[size_t(capacity)]), cap_(capacity) {}

    int  size() const { return count_; }
    bool empty() const { return count_ == 0; }
    int  capacity() const { return cap_; }

    // Appends `v`; size() < capacity().
    void push(const T& v) {
        at(count_) = v;
        ++count_;
    }
    // Removes and returns the oldest value; !empty().
    T pop() {
        T v = buf_[head_];
        if (++head_ == cap_) head_ = 0;
        --count_;
        return v;
    }
    // The i-th oldest value, 0 <= i < capacity().
    T&       at(int i) { return buf_[wrap(head_ + i)]; }
    const T& front() const { return buf_[head_]; }
    T&       front() { return buf_[head_]; }

private:
    int wrap(int pos) const { return pos >= cap_ ? pos - cap_ : pos; }
    std::unique_ptr<T[]> buf_;
    int cap_;
    int head_ = 0, count_ = 0;
};

// The free indexes of a table of `capacity` slots; 0 comes out first.
class FreeSlots {
public:
    explicit FreeSlots(int capacity) : idx_(new int[size_t(capacity)]), n_(capacity) {
        for (int i = 0; i < capacity; ++i) idx_[i] = capacity - 1 - i;
    }
    int  available() const { return n_; }
    // The index take() will hand out next; available() > 0.
    int  next() const { return idx_[n_ - 1]; }
    int  take() { return idx_[--n_]; }
    void give(int i) { idx_[n_++] = i; }

private:
    std::unique_ptr<int[]> idx_;
    int n_;
};

}  // namespace mqb
