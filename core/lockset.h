// A set of recursive locks (critical sections) created together, exactly
// once, on the first use of any of them, even when threads race for it; the
// set is never deleted. The kit locks and the COM lock set are two of these.
#pragma once

#include <windows.h>

template <int Count> class vxl_lockset {
public:
    // onCreate runs once, inside the creation, after the locks exist; threads
    // racing for the first use wait until it has returned.
    explicit constexpr vxl_lockset(void (*onCreate)()) : onCreate_(onCreate) {}

    void enter(int lock)
    {
        InitOnceExecuteOnce(&once_, create, this, nullptr);
        EnterCriticalSection(&locks_[lock]);
    }
    void leave(int lock) { LeaveCriticalSection(&locks_[lock]); }

private:
    static BOOL CALLBACK create(PINIT_ONCE, PVOID self, PVOID *)
    {
        auto *set = static_cast<vxl_lockset *>(self);
        for (CRITICAL_SECTION &cs : set->locks_)
            InitializeCriticalSection(&cs);
        if (set->onCreate_)
            set->onCreate_();
        return TRUE;
    }

    INIT_ONCE once_ = INIT_ONCE_STATIC_INIT;
    CRITICAL_SECTION locks_[Count] = {};
    void (*onCreate_)();
};
