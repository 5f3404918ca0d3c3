// The one piece of machine code the kit generates: a 16-byte x86-64 stub for
// the Windows x64 calling convention. A client calls method j with the
// interface pointer in rcx; the stub swaps in the implementation pointer
// (the first cell of the object core, 8 * (i + 1) bytes past the interface
// pointer of interface i) and jumps to the component's function. Only rcx
// and rax change; the other argument registers, the stack and the return
// address stay as the caller left them, so the function returns straight to
// the caller.
#pragma once

#include <cstdint>
#include <cstring>

constexpr int kStubSize = 16;
constexpr int kStubDisplacement = 3; // 8-bit signed: 8 * (i + 1)
constexpr int kStubTarget = 6;       // 64-bit little-endian function address

constexpr uint8_t vxl_stubcode[kStubSize] = {
    0x48, 0x8B, 0x49, 0x00,                         // mov rcx, [rcx + disp8]
    0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0,             // mov rax, imm64
    0xFF, 0xE0,                                     // jmp rax
};

static_assert(sizeof vxl_stubcode == kStubSize, "one stub is 16 bytes");
static_assert(kStubTarget + 8 + 2 == kStubSize, "the jump follows the immediate");

// Writes the stub of a method of interface index (0..5) at where.
inline void vxl_writestub(uint8_t *where, int32_t index, const void *function)
{
    memcpy(where, vxl_stubcode, kStubSize);
    where[kStubDisplacement] = static_cast<uint8_t>(8 * (index + 1));
    uint64_t target = reinterpret_cast<uintptr_t>(function);
    for (int b = 0; b < 8; ++b)
        where[kStubTarget + b] = static_cast<uint8_t>(target >> (8 * b));
}
