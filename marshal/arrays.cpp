// Kit arrays: elements end to end, no header, the count travels beside the
// pointer. Two homes, kit memory (vxl_malloc) and COM task memory
// (CoTaskMemAlloc); each exported function is one instance of the creating,
// copying or freeing template below.
#include "marshal/marshal.h"

namespace {

struct KitHome {
    static void *alloc(uint64_t bytes) // vxl_malloc takes a signed 32-bit size
    {
        return bytes > 0 && bytes <= INT32_MAX ? vxl_malloc(static_cast<int32_t>(bytes)) : nullptr;
    }
    static void release(void *block) { vxl_free(block); }
    static char *dup(const char *string) { return vxl_strdup(string); }
    static constexpr bool zeroEmpty = false; // the caller fills every element
};

struct TaskHome {
    static void *alloc(uint64_t bytes) { return CoTaskMemAlloc(static_cast<SIZE_T>(bytes)); }
    static void release(void *block) { CoTaskMemFree(block); }
    static char *dup(const char *string) { return vxl_com_strdup(string); }
    static constexpr bool zeroEmpty = true; // arrays of null pointers, even of 0 elements
};

// ---- creating a copy ----------------------------------------------------------
// Numbers are one block copy; strings are duplicated one by one into the
// same home, and a duplicate that cannot be made undoes the whole copy.

template <class Home, class T> bool fillCopy(T *dst, const T *src, int32_t count)
{
    memcpy(dst, src, static_cast<size_t>(count) * sizeof(T));
    return true;
}

template <class Home> bool fillCopy(char **dst, const char *const *src, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) {
        dst[i] = Home::dup(src[i]);
        if (src[i] && !dst[i]) {
            for (int32_t made = 0; made < i; ++made)
                Home::release(dst[made]);
            return false;
        }
    }
    return true;
}

template <class Home, class Out, class In> Out *createCopy(const In *src, int32_t count)
{
    if (count <= 0 || !src)
        return nullptr;
    Out *block = static_cast<Out *>(Home::alloc(static_cast<uint64_t>(count) * sizeof(Out)));
    if (block && !fillCopy<Home>(block, src, count)) {
        Home::release(block);
        return nullptr;
    }
    return block;
}

// ---- creating without contents --------------------------------------------------
// Kit memory is left uninitialised (null for count 0, as vxl_malloc(0)); the
// task-memory arrays of pointers are zeroed and exist even for count 0.

template <class Home, class T> T *createEmpty(int32_t count)
{
    if (count < 0)
        return nullptr;
    uint64_t bytes = static_cast<uint64_t>(count) * sizeof(T);
    T *block = static_cast<T *>(Home::alloc(bytes));
    if (block && Home::zeroEmpty)
        memset(block, 0, bytes);
    return block;
}

// ---- copying into the caller's array --------------------------------------------

char *dupKit(const char *string, const vxl_ifctx &) { return vxl_strdup(string); }
char *dupTask(const char *string, const vxl_ifctx &) { return vxl_com_strdup(string); }
vxl_if unwrapElement(IUnknown *punk, const vxl_ifctx &ctx) { return vxl_unwrapptr(punk, ctx.ifname, ctx.wtype); }
IUnknown *wrapElement(vxl_if pif, const vxl_ifctx &ctx) { return vxl_wrapptr(pif, ctx.ifname, ctx.wtype); }

template <class Out, class In, Out (*Convert)(In, const vxl_ifctx &)>
void copyInto(Out *dst, const In *src, int32_t count, const vxl_ifctx &ctx)
{
    if (!dst || !src)
        return;
    for (int32_t i = 0; i < count; ++i)
        dst[i] = Convert(src[i], ctx);
}

// ---- freeing ------------------------------------------------------------------------

void freeKitString(char *string) { vxl_free(string); }
void freeTaskString(char *string) { CoTaskMemFree(string); }
void decrefElement(vxl_if pif) { vxl_decref(pif); }
void releaseElement(IUnknown *punk) { vxl_com_release(punk); }
void keepBlock(void *) {}

template <class T, void (*Element)(T), void (*Block)(void *)> void freeArray(T *array, int32_t count)
{
    if (!array)
        return;
    for (int32_t i = 0; i < count; ++i)
        Element(array[i]);
    Block(array);
}

#define VXL_NUMBER_KINDS(X) X(int, int32_t) X(float, float) X(double, double)
#define VXL_COUNT_NUMBER(name, T) +1
static_assert(0 VXL_NUMBER_KINDS(VXL_COUNT_NUMBER) == 3, "int, float and double arrays");

} // namespace

#define VXL_NUMBER_ARRAYS(name, T)                                                                 \
    T *vxl_com_create##name##array(const T *src, int32_t count)                                    \
    {                                                                                              \
        return createCopy<KitHome, T>(src, count);                                                 \
    }                                                                                              \
    T *vxl_com_createcom##name##array(const T *src, int32_t count)                                 \
    {                                                                                              \
        return createCopy<TaskHome, T>(src, count);                                                \
    }                                                                                              \
    T *vxl_com_createempty##name##array(int32_t count)                                             \
    {                                                                                              \
        return createEmpty<KitHome, T>(count);                                              \
    }
VXL_NUMBER_KINDS(VXL_NUMBER_ARRAYS)
#undef VXL_NUMBER_ARRAYS

char **vxl_com_createstringarray(const char *const *src, int32_t count)
{
    return createCopy<KitHome, char *>(src, count);
}

char **vxl_com_createcomstringarray(const char *const *src, int32_t count)
{
    return createCopy<TaskHome, char *>(src, count);
}

// Interface arrays are made by the copy operations, which know their
// direction; these two only answer null.
vxl_if *vxl_com_createinterfacearray(IUnknown *const *, int32_t, const char *, const char *)
{
    return nullptr;
}

IUnknown **vxl_com_createcominterfacearray(const vxl_if *, int32_t, const char *, const char *)
{
    return nullptr;
}

char **vxl_com_createemptystringarray(int32_t count)
{
    return createEmpty<KitHome, char *>(count);
}

vxl_if *vxl_com_createemptyinterfacearray(int32_t count)
{
    return createEmpty<KitHome, vxl_if>(count);
}

char **vxl_com_createemptycomstringarray(int32_t count)
{
    return createEmpty<TaskHome, char *>(count);
}

IUnknown **vxl_com_createemptycominterfacearray(int32_t count)
{
    return createEmpty<TaskHome, IUnknown *>(count);
}

void vxl_com_copystringarray(char **dst, const char *const *src, int32_t count)
{
    copyInto<char *, const char *, dupKit>(dst, src, count, {});
}

void vxl_com_copycomstringarray(char **dst, const char *const *src, int32_t count)
{
    copyInto<char *, const char *, dupTask>(dst, src, count, {});
}

void vxl_com_copyinterfacearray(vxl_if *dst, IUnknown *const *src, int32_t count, const char *ifname,
                                const char *wtype)
{
    copyInto<vxl_if, IUnknown *, unwrapElement>(dst, src, count, {ifname, wtype});
}

void vxl_com_copycominterfacearray(IUnknown **dst, const vxl_if *src, int32_t count, const char *ifname,
                                   const char *wtype)
{
    copyInto<IUnknown *, vxl_if, wrapElement>(dst, src, count, {ifname, wtype});
}

void vxl_freestringarray(char **array, int32_t count)
{
    freeArray<char *, freeKitString, vxl_free>(array, count);
}

void vxl_com_freestringarray(char **array, int32_t count)
{
    freeArray<char *, freeKitString, vxl_free>(array, count);
}

void vxl_freestringarraycontents(char **array, int32_t count)
{
    freeArray<char *, freeKitString, keepBlock>(array, count);
}

int32_t vxl_freeinterfacearray(vxl_if *array, int32_t count)
{
    freeArray<vxl_if, decrefElement, vxl_free>(array, count);
    return 0;
}

void vxl_freeinterfacearraycontents(vxl_if *array, int32_t count)
{
    freeArray<vxl_if, decrefElement, keepBlock>(array, count);
}

int32_t vxl_com_freeinterfacearray(vxl_if *array, int32_t count, const char *, const char *)
{
    freeArray<vxl_if, decrefElement, vxl_free>(array, count);
    return 0;
}

void vxl_com_freecomstringarray(char **array, int32_t count)
{
    freeArray<char *, freeTaskString, CoTaskMemFree>(array, count);
}

int32_t vxl_com_freecomstringarraycontents(char **array, int32_t count)
{
    freeArray<char *, freeTaskString, keepBlock>(array, count);
    return 0;
}

int32_t vxl_com_freecominterfacearray(IUnknown **array, int32_t count, const char *, const char *)
{
    freeArray<IUnknown *, releaseElement, vxl_com_free>(array, count);
    return 0;
}

int32_t vxl_com_freecominterfacearraycontents(IUnknown **array, int32_t count)
{
    freeArray<IUnknown *, releaseElement, keepBlock>(array, count);
    return 0;
}
