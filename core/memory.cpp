// Kit memory: the process heap, shared by components and the runtime.
#include "kit.h"

#include <cstdlib>
#include <cstring>

// A negative size would widen to a huge request; it is refused outright.
void *vxl_malloc(int32_t size)
{
    if (size <= 0)
        return nullptr;
    return malloc(static_cast<size_t>(size));
}

void vxl_free(void *block)
{
    free(block);
}

void *vxl_realloc(void *block, int32_t size)
{
    if (!block)
        return vxl_malloc(size);
    if (size == 0) {
        vxl_free(block);
        return nullptr;
    }
    if (size < 0)
        return nullptr; // the block stays the caller's, unchanged
    return realloc(block, static_cast<size_t>(size));
}

char *vxl_strdup(const char *string)
{
    if (!string)
        return nullptr;
    size_t length = strlen(string);
    if (length >= INT32_MAX)
        return nullptr;
    char *copy = static_cast<char *>(vxl_malloc(static_cast<int32_t>(length + 1)));
    if (copy)
        memcpy(copy, string, length + 1);
    return copy;
}
