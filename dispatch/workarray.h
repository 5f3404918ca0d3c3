// Working storage of one call: on the stack for ordinary sizes, so a call
// makes no heap allocation of its own, and on the heap only for outsized
// definitions that would not fit a sensible stack frame.
#pragma once

#include "core/kit.h"

#include <climits>

// Per-call working storage of at most this many entries lives on the stack;
// a method with more parameters (or a longer name) takes it from the heap.
constexpr int32_t kStackParams = 32;
constexpr int32_t kStackNameChars = 128;

// A small array that lives on the stack up to N elements and on the heap
// above. Elements are trivially constructible values, left unset: every
// user writes an element before it reads it.
template <typename T, int32_t N> class vxl_workarray {
public:
    explicit vxl_workarray(int32_t count)
    {
        if (count <= 0)
            return;
        if (count <= N) {
            data_ = local_;
        } else if (count <= INT32_MAX / static_cast<int32_t>(sizeof(T))) {
            data_ = static_cast<T *>(vxl_malloc(static_cast<int32_t>(sizeof(T)) * count));
            heap_ = data_ != nullptr;
        }
        ok_ = data_ != nullptr;
    }
    ~vxl_workarray()
    {
        if (heap_)
            vxl_free(data_);
    }
    vxl_workarray(const vxl_workarray &) = delete;
    vxl_workarray &operator=(const vxl_workarray &) = delete;

    bool ok() const { return ok_; }
    T *data() { return data_; }
    T &operator[](int32_t i) { return data_[i]; }

private:
    T local_[N];
    T *data_ = nullptr;
    bool heap_ = false;
    bool ok_ = true;
};

