// A gate for readers that must not queue on one lock word. Each reader
// counts itself in on its thread's stripe, a counter on a cache line of its
// own; a writer closes the gate and waits until every stripe is back to 0.
// A reader never waits: when it finds the gate closed it leaves at once and
// takes the locked way instead. Writers are serialised by their caller.
//
//   stripe 0 | stripe 1 | ... | stripe 7 | writers      one 64-byte line each
//
// The reader's count-in and the writer's close are both sequentially
// consistent, so at least one of them sees the other: either the reader
// sees the gate closed, or the writer sees the reader and waits for it.
#pragma once

#include "threadstate.h"

#include <atomic>

class vxl_readgate {
public:
    constexpr vxl_readgate() = default;

    bool enter(const vxl_threadstate *thread)
    {
        std::atomic<int32_t> &count = stripes_[thread->stripe].count;
        count.fetch_add(1, std::memory_order_seq_cst);
        if (writers_.count.load(std::memory_order_seq_cst) == 0)
            return true;
        count.fetch_sub(1, std::memory_order_release);
        return false;
    }
    void leave(const vxl_threadstate *thread)
    {
        stripes_[thread->stripe].count.fetch_sub(1, std::memory_order_release);
    }

    void close()
    {
        writers_.count.fetch_add(1, std::memory_order_seq_cst);
        for (uint32_t spins = 0; readers() != 0; ++spins) {
            if (spins < 64)
                YieldProcessor();
            else
                SwitchToThread();
        }
    }
    void open() { writers_.count.fetch_sub(1, std::memory_order_release); }

private:
    int32_t readers() const
    {
        int32_t total = 0;
        for (const Counter &stripe : stripes_)
            total += stripe.count.load(std::memory_order_acquire);
        return total;
    }

    struct alignas(kCacheLine) Counter {
        std::atomic<int32_t> count{0};
    };
    Counter stripes_[kStripes];
    Counter writers_;
};

static_assert(sizeof(vxl_readgate) == (kStripes + 1) * kCacheLine, "one cache line per counter");
