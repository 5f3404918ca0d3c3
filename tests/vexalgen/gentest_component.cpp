// The author's side of gentest.idl: one class per coclass over the classes
// that vexalgen generates. Both keep what Put, Swap and PutArrays hand them
// and give it back through Get, Swap and GetArrays; a Recorder keeps what a
// Ping brings in its int and string, where the tests read it through IAll.
#include "gentest_vexal.h"

#include <utility>

namespace VexalGenTest {
namespace {

// Owning copies: strings in kit memory, interfaces with a reference of their own.
int32_t own(int32_t value) { return value; }
float own(float value) { return value; }
double own(double value) { return value; }
char *own(const char *text) { return vxl_strdup(text); }
vxl_if own(vxl_if pif) { return pif && pif->slots->incref(pif) == VXL_OK ? pif : nullptr; }
template <class Number> void drop(Number) {}
void drop(char *text) { vxl_free(text); }
void drop(vxl_if pif) { vxl_decref(pif); }

template <class T> struct Single {
    T value{};
    ~Single() { drop(value); }
    template <class In> void put(In in)
    {
        T old = value;
        value = own(in);
        drop(old);
    }
    void get(T *out) const { *out = own(value); }
    void swap(T *inout) { std::swap(value, *inout); }
};

template <class T> struct Array {
    T *items = nullptr;
    int32_t count = 0;
    ~Array() { clear(); }
    void clear()
    {
        for (int32_t k = 0; k < count; ++k)
            drop(items[k]);
        vxl_free(items);
        items = nullptr, count = 0;
    }
    template <class In> static T *copy(const In *src, int32_t n)
    {
        T *dst = n > 0 ? static_cast<T *>(vxl_malloc(n * static_cast<int32_t>(sizeof(T)))) : nullptr;
        for (int32_t k = 0; dst && k < n; ++k)
            dst[k] = own(src[k]);
        return dst;
    }
    template <class In> void put(const In *src, int32_t n)
    {
        T *fresh = copy(src, n);
        clear();
        items = fresh, count = fresh ? n : 0;
    }
    void get(T **out, int32_t *n) const { *out = copy(items, count), *n = count; }
    void swap(T **inout, int32_t *n) { std::swap(items, *inout), std::swap(count, *n); }
};

template <class Base> class Store : public Base {
public:
    int32_t Put(int32_t n, float f, double d, const char *s, vxl_if x) override
    {
        return n_.put(n), f_.put(f), d_.put(d), s_.put(s), x_.put(x), VXL_OK;
    }
    int32_t Get(int32_t *n, float *f, double *d, char **s, vxl_if *x) override
    {
        return n_.get(n), f_.get(f), d_.get(d), s_.get(s), x_.get(x), VXL_OK;
    }
    int32_t Swap(int32_t *n, float *f, double *d, char **s, vxl_if *x) override
    {
        return n_.swap(n), f_.swap(f), d_.swap(d), s_.swap(s), x_.swap(x), VXL_OK;
    }
    int32_t PutArrays(const int32_t *ns, int32_t ns_count, const float *fs, int32_t fs_count, const double *ds,
                      int32_t ds_count, const char *const *ss, int32_t ss_count, const vxl_if *xs,
                      int32_t xs_count) override
    {
        ns_.put(ns, ns_count), fs_.put(fs, fs_count), ds_.put(ds, ds_count), ss_.put(ss, ss_count);
        return xs_.put(xs, xs_count), VXL_OK;
    }
    int32_t GetArrays(int32_t **ns, int32_t *ns_count, float **fs, int32_t *fs_count, double **ds,
                      int32_t *ds_count, char ***ss, int32_t *ss_count, vxl_if **xs, int32_t *xs_count) override
    {
        ns_.get(ns, ns_count), fs_.get(fs, fs_count), ds_.get(ds, ds_count), ss_.get(ss, ss_count);
        return xs_.get(xs, xs_count), VXL_OK;
    }
    int32_t SwapArrays(int32_t **ns, int32_t *ns_count, float **fs, int32_t *fs_count, double **ds,
                       int32_t *ds_count, char ***ss, int32_t *ss_count, vxl_if **xs, int32_t *xs_count,
                       int32_t *taken, int32_t *given) override
    {
        *taken = *ns_count + *fs_count + *ds_count + *ss_count + *xs_count;
        ns_.swap(ns, ns_count), fs_.swap(fs, fs_count), ds_.swap(ds, ds_count), ss_.swap(ss, ss_count);
        xs_.swap(xs, xs_count);
        *given = *ns_count + *fs_count + *ds_count + *ss_count + *xs_count;
        return VXL_OK;
    }
    int32_t Listen(vxl_if listener) override { return listener_.put(listener), VXL_OK; }
    int32_t Fire(int32_t n, const char *text) override
    {
        if (n < 0)
            return n; // a status of the component's own
        return listener_.value ? IAllEvents_Ping(listener_.value, n, text) : VXL_OK;
    }

protected:
    Single<int32_t> n_;
    Single<float> f_;
    Single<double> d_;
    Single<char *> s_;
    Single<vxl_if> x_, listener_;
    Array<int32_t> ns_;
    Array<float> fs_;
    Array<double> ds_;
    Array<char *> ss_;
    Array<vxl_if> xs_;
};

class Recording : public Store<Recorder> {
public:
    int32_t Ping(int32_t n, const char *text) override { return n_.put(n), s_.put(text), VXL_OK; }
};

} // namespace

All *All::create() { return new Store<All>; }
Recorder *Recorder::create() { return new Recording; }

} // namespace VexalGenTest
