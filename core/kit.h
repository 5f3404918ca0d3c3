// Internal declarations shared by the kit core and the COM bridge.
#pragma once

#include "vexal.h"

#include <atomic>
#include <cstdint>

// A class has one to this many interfaces.
constexpr int32_t kMaxInterfaces = 6;

// Pointers appear in the trace log as the low 32 bits in "%x".
#define VXL_PTR(p) ((unsigned)(uintptr_t)(p))

// One printf-style message to the trace log named by VXLLOGNAME.
void vxl_log(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Whether the trace log is known to be off for good (opening was tried and
// found no file): then no message can be seen, whatever a caller skips.
extern std::atomic<bool> vxl_logoff;
inline bool vxl_traceoff()
{
    return vxl_logoff.load(std::memory_order_relaxed);
}
// vxl_log for the hot paths (object creation, the generic slots, wrapping
// what is already wrapped): with tracing off for good not even the call is
// made. The arguments are then not evaluated; those given here have no
// effects of their own.
#define vxl_loghot(...) (vxl_traceoff() ? (void)0 : vxl_log(__VA_ARGS__))
// Logs "vxl_fatal: <message>\n" and aborts: a broken runtime invariant.
[[noreturn]] void vxl_fatal(const char *message);

// The kit locks, in the order in which they may be nested.
enum vxl_kitlock { VXL_FACTORY_LOCK, VXL_CACHE_LOCK, VXL_REGISTRY_LOCK, VXL_LOG_LOCK, VXL_KIT_LOCK_COUNT };
void vxl_lock(vxl_kitlock lock);
void vxl_unlock(vxl_kitlock lock);

// Holds one lock of a lock set for a scope.
template <typename Lock, void (*Enter)(Lock), void (*Leave)(Lock)> class vxl_scopedlock {
public:
    explicit vxl_scopedlock(Lock lock) : lock_(lock) { Enter(lock_); }
    ~vxl_scopedlock() { Leave(lock_); }
    vxl_scopedlock(const vxl_scopedlock &) = delete;
    vxl_scopedlock &operator=(const vxl_scopedlock &) = delete;

private:
    Lock lock_;
};

using vxl_lockguard = vxl_scopedlock<vxl_kitlock, vxl_lock, vxl_unlock>;

// Null-safe exact comparison of names.
inline bool vxl_sameName(const char *a, const char *b)
{
    if (!a || !b)
        return a == b;
    while (*a && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

// Definition registry lookups (registry lock taken inside).
const vxl_componentdef *vxl_findcomponentdef(const char *name);
const vxl_interfacedef *vxl_findinterfacedef(const char *name);

// ---- objects and class factories (objects, factories, stubs) ----------------
// Makes an object of the factory's class with count 1; returns its primary
// interface and hands back the address of its core (first cell: the
// implementation slot). Null when the block cannot be allocated.
vxl_if vxl_newobject(vxl_classfactory *factory, void ***core);
// The cached definition of the interface a null-name getinterface yields.
const vxl_interfacedef *vxl_getinterfacedef(vxl_if pif);
// Adds a reference as the incref slot does, unless the object's count has
// already reached 0 (its destroy callback is on its way): then it adds none
// and answers false. Interfaces that are not kit objects are simply increfed.
bool vxl_increfifalive(vxl_if pif);
// The identity of a kit object (what getinterface with a null name yields)
// without a reference, when that can be told without calling the slot: the
// object is this runtime's, its class has no getinterface callback, and the
// trace is off, so the skipped incref and decref could not be seen. Null
// otherwise. The caller's own reference on pif keeps the object alive.
vxl_if vxl_quietidentity(vxl_if pif);
// The cached factory of a class; create 1 builds it if needed and takes a use.
vxl_classfactory *vxl_findclassfactory(const char *name, int32_t create);

// ---- library loading ---------------------------------------------------------
// Text of the current error into buffer (size bytes): the system's message
// for GetLastError() without its final ".\r\n", else strerror(errno), else
// empty. Returns the text's length.
int32_t vxl_errortext(char *buffer, int32_t size);
