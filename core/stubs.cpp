// Stub memory: executable chunks from VirtualAlloc, carved into the stub
// blocks of class factories. Chunks double in size (the first is 262144
// bytes) and are never given back; a block is written under a temporary
// writable protection and sealed before its factory is handed out.
//
// No lock of its own: blocks are made only while a class factory is built,
// which happens under the factory lock.
#include "object.h"
#include "x64stub.h"

#include <windows.h>

namespace {

uint8_t *g_chunk = nullptr;
int32_t g_used = 0;
int32_t g_chunksize = 131072;

// Largest chunk the doubling may reach while still fitting the int32 size.
constexpr int64_t kMaxChunk = int64_t(1) << 30;

// Makes room for size bytes; false when no chunk can be had.
bool carve(int32_t size)
{
    if (g_chunk && int64_t(g_used) + size <= g_chunksize)
        return true;
    // Keep doubling until one request fits; the size only grows once the
    // chunk is really there, so a refused request leaves everything as it was.
    int64_t newsize = int64_t(g_chunksize) * 2;
    while (newsize < size && newsize < kMaxChunk)
        newsize *= 2;
    if (newsize < size || newsize > kMaxChunk)
        return false;
    void *chunk = VirtualAlloc(nullptr, static_cast<SIZE_T>(newsize), MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READ);
    if (!chunk)
        return false;
    g_chunksize = static_cast<int32_t>(newsize);
    g_chunk = static_cast<uint8_t *>(chunk);
    g_used = 0;
    vxl_log("allocated %d bytes for trampoline = %x\n", g_chunksize, VXL_PTR(g_chunk));
    return true;
}

} // namespace

void *vxl_makestubblock(int32_t index, const vxl_fn *functions, int32_t count)
{
    if (count <= 0 || count > INT32_MAX / kStubSize || index < 0 || index >= kMaxInterfaces)
        return nullptr;
    int32_t size = count * kStubSize;
    if (!carve(size))
        return nullptr;
    uint8_t *block = g_chunk + g_used;
    g_used += size;

    DWORD previous;
    if (!VirtualProtect(block, size, PAGE_EXECUTE_READWRITE, &previous))
        vxl_log("VirtualProtect(XRW) failed\n");
    for (int32_t j = 0; j < count; ++j)
        vxl_writestub(block + j * kStubSize, index, reinterpret_cast<const void *>(functions[j]));
    if (!VirtualProtect(block, size, PAGE_EXECUTE_READ, &previous))
        vxl_log("VirtualProtect(XR) failed\n");
    // Code written as data reaches the processor's instruction fetch only
    // once the instruction cache has been told.
    FlushInstructionCache(GetCurrentProcess(), block, static_cast<SIZE_T>(size));
    return block;
}

void vxl_releasestubblock(void *)
{
}
