// Timing shared by the benchmarks: many short rounds, the best one counts,
// so a shared machine disturbs the kinds measured side by side alike.
#pragma once

#include <windows.h>

#include <cstdint>

inline double benchNow()
{
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return static_cast<double>(t.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// Nanoseconds per operation of one round of body(iterations).
template <typename Body> double timeRound(int64_t iterations, Body &body)
{
    double start = benchNow();
    body(iterations);
    return (benchNow() - start) * 1e9 / static_cast<double>(iterations);
}
