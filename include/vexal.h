/*
 * vexal: component runtime for 64-bit Windows.
 *
 * The one public header, for C (C11) and C++ (C++17). Component libraries
 * build the definition tables below statically and hand them to the runtime;
 * field order and widths are part of the binary contract.
 */
#ifndef VEXAL_H
#define VEXAL_H

#include <stdint.h>
#include <objbase.h>
#include <oleauto.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef VEXAL_BUILDING_DLL
#define VXL_API __declspec(dllexport)
#else
#define VXL_API __declspec(dllimport)
#endif

/* ---- Kit status codes ------------------------------------------------- */
/* Negative statuses are defined by components and pass through unchanged. */
#define VXL_OK 0
#define VXL_EFAIL 1
#define VXL_ENOINTERFACE 2
#define VXL_ENOMEM 3
#define VXL_ECLASSNOTREG 5

/* Parameter codes of vxl_paramdef. */
#define VXL_TYPE_INT 0
#define VXL_TYPE_FLOAT 1
#define VXL_TYPE_DOUBLE 2
#define VXL_TYPE_STRING 3
#define VXL_TYPE_INTERFACE 4
#define VXL_DIR_IN 0
#define VXL_DIR_OUT 1
#define VXL_DIR_INOUT 2

/* ---- Kit interface pointers ------------------------------------------ */
/*
 * A kit interface pointer points to a cell holding the slot-table pointer,
 * the shape of a COM interface pointer. Slots 0..3 are the generic slots;
 * slot 4 + j forwards to method j of the interface definition.
 */
typedef struct vxl_ifcell *vxl_if;

typedef struct vxl_ifslots {
    int32_t (*getinterface)(vxl_if self, const char *name, vxl_if *out);
    int32_t (*getname)(vxl_if self, const char **out);
    int32_t (*incref)(vxl_if self);
    int32_t (*decref)(vxl_if self);
} vxl_ifslots;

struct vxl_ifcell {
    const vxl_ifslots *slots;
};

/* Slot k of a kit interface as an untyped function pointer. */
#define VXL_SLOT(pif, k) (((void *const *)(pif)->slots)[(k)])
/* Method j of a kit interface, cast to the caller's function type. */
#define VXL_METHOD(pif, j, fntype) ((fntype)VXL_SLOT(pif, 4 + (j)))

/* Any component function; method tables hold these, cast back by callers. */
typedef void (*vxl_fn)(void);

/* ---- Definition records ---------------------------------------------- */
typedef struct vxl_paramdef {
    const char *name;
    int32_t type;       /* VXL_TYPE_* */
    int32_t direction;  /* VXL_DIR_* */
    int32_t array;      /* 0 single value; else kit array, ~k names the count parameter */
    const char *secondname;
} vxl_paramdef;

typedef struct vxl_methoddef {
    const char *name;
    int32_t paramcount;
    const vxl_paramdef *const *params;
} vxl_methoddef;

typedef struct vxl_interfacedef {
    const char *name;
    int32_t methodcount;
    const vxl_methoddef *const *methods;
} vxl_interfacedef;

typedef struct vxl_componentinterface {
    const vxl_interfacedef *def;
    const vxl_fn *methods; /* one per method of def, in its order */
} vxl_componentinterface;

typedef int32_t (*vxl_createfn)(void **implslot, vxl_if primary);
typedef int32_t (*vxl_destroyfn)(void *impl, vxl_if primary);
typedef int32_t (*vxl_getinterfacefn)(void *impl, const char *name, vxl_if *out, vxl_if primary);

typedef struct vxl_componentdef {
    const char *name;
    int32_t ifcount; /* 1..6 */
    const vxl_componentinterface *const *interfaces;
    vxl_createfn create;
    vxl_destroyfn destroy;
    vxl_getinterfacefn getinterface; /* may be null */
} vxl_componentdef;

typedef struct vxl_classfactory vxl_classfactory;

/* ---- COM-side records ------------------------------------------------ */
/* Builds a COM wrapper for a kit interface; leaves *result null on failure. */
typedef int32_t (*vxl_wrapmaker)(vxl_if pif, IUnknown **result);
typedef HRESULT (*vxl_getdispinterfacefn)(IUnknown *object, IDispatch **result);

typedef struct vxl_comlibinfo {
    const char *modulename;
    GUID libid;
} vxl_comlibinfo;

typedef struct vxl_comcomponentinfo {
    const char *name;
    GUID clsid; /* GUID_NULL: not a COM class */
} vxl_comcomponentinfo;

typedef struct vxl_comifinfo {
    const char *name;
    GUID iid_com;
    GUID iid_comS;
    GUID iid_comP;
    GUID iid_CP;
    GUID clsid_CP;
    vxl_wrapmaker wrap_com;
    vxl_wrapmaker wrap_comS;
    vxl_wrapmaker wrap_comP;
    vxl_getdispinterfacefn getdispinterface;
} vxl_comifinfo;

/* ---- Runtime services ------------------------------------------------ */
VXL_API int32_t vxl_init(void);
VXL_API void *vxl_malloc(int32_t size);
VXL_API void vxl_free(void *block);
VXL_API void *vxl_realloc(void *block, int32_t size);
VXL_API char *vxl_strdup(const char *string);

/* ---- Definitions ----------------------------------------------------- */
VXL_API int32_t vxl_register(const char *libname, const vxl_componentdef *const *components,
                             const vxl_interfacedef *const *interfaces);
VXL_API int32_t vxl_unregister(const vxl_componentdef *const *components,
                               const vxl_interfacedef *const *interfaces);
VXL_API const vxl_methoddef *vxl_getmethod(const vxl_interfacedef *def, const char *name);

/* ---- Objects and class factories ------------------------------------- */
VXL_API int32_t vxl_decref(vxl_if pif);
VXL_API int32_t vxl_createclassfactory(vxl_classfactory **out, const char *classname);
VXL_API int32_t vxl_destroyclassfactory(vxl_classfactory *factory);
VXL_API int32_t vxl_getinstancefromcf(vxl_classfactory *factory, const char *ifname, vxl_if *out);
VXL_API int32_t vxl_encapsulatefromcf(vxl_classfactory *factory, const char *ifname, void *impl,
                                      vxl_if *out);
VXL_API int32_t vxl_createinstance(const char *classname, const char *ifname, vxl_if *out);
VXL_API int32_t vxl_encapsulate(const char *classname, const char *ifname, void *impl, vxl_if *out);
VXL_API int32_t vxl_inuse(const vxl_componentdef *const *components);
VXL_API int32_t vxl_loaddynamiclibrary(const char *filename);

/* ---- Strings, BSTRs and status mapping ------------------------------- */
VXL_API BSTR vxl_com_str2bstr(const char *string);
VXL_API char *vxl_com_bstr2str(BSTR bstr);
VXL_API void vxl_com_freebstr(BSTR bstr);
VXL_API char *vxl_com_strdup(const char *string);
VXL_API void vxl_com_free(void *block);
VXL_API int32_t vxl_com_release(IUnknown *punk);
VXL_API int32_t vxl_com_hret2err(HRESULT hr);
VXL_API HRESULT vxl_com_err2hret(int32_t status);

/* ---- Interface wrapping ---------------------------------------------- */
VXL_API int32_t vxl_wrap(vxl_if pif, const char *ifname, const char *wtype, IUnknown **result);
VXL_API IUnknown *vxl_wrapptr(vxl_if pif, const char *ifname, const char *wtype);
VXL_API HRESULT vxl_com_wrapperqueryinterface(REFIID iid, void **result, IUnknown *wrapper, vxl_if pif);
VXL_API void vxl_com_releasewrapper(IUnknown *wrapper, vxl_if pif);
VXL_API int32_t vxl_unwrap(IUnknown *pcom, const char *ifname, const char *wtype, vxl_if *result);
VXL_API vxl_if vxl_unwrapptr(IUnknown *pcom, const char *ifname, const char *wtype);
/* Getinterface and destroy callbacks of kit proxy classes. */
VXL_API int32_t vxl_com_wrappergetinterface(void *pcomif, const char *name, vxl_if *result, vxl_if pif);
VXL_API int32_t vxl_com_wrapperdestructor(void *pcomif, vxl_if pif);

/* ---- COM registration ------------------------------------------------ */
VXL_API int32_t vxl_com_init(void);
VXL_API int32_t vxl_com_uninit(void);
VXL_API int32_t vxl_com_register(const vxl_comlibinfo *library, const vxl_comcomponentinfo *const *components,
                                 const vxl_comifinfo *const *interfaces);
VXL_API int32_t vxl_com_unregister(const vxl_comlibinfo *library, const vxl_comcomponentinfo *const *components,
                                   const vxl_comifinfo *const *interfaces);

/* ---- Kit arrays ------------------------------------------------------ */
/*
 * Elements end to end, no header; the count travels beside the pointer. "com"
 * before the kind means COM task memory (CoTaskMemAlloc), else kit memory
 * (vxl_malloc). Every array returned belongs to the caller.
 */
VXL_API int32_t *vxl_com_createintarray(const int32_t *src, int32_t count);
VXL_API float *vxl_com_createfloatarray(const float *src, int32_t count);
VXL_API double *vxl_com_createdoublearray(const double *src, int32_t count);
VXL_API char **vxl_com_createstringarray(const char *const *src, int32_t count);
VXL_API int32_t *vxl_com_createcomintarray(const int32_t *src, int32_t count);
VXL_API float *vxl_com_createcomfloatarray(const float *src, int32_t count);
VXL_API double *vxl_com_createcomdoublearray(const double *src, int32_t count);
VXL_API char **vxl_com_createcomstringarray(const char *const *src, int32_t count);
/* Always null: interface arrays are made with the copy functions below. */
VXL_API vxl_if *vxl_com_createinterfacearray(IUnknown *const *src, int32_t count, const char *ifname,
                                             const char *wtype);
VXL_API IUnknown **vxl_com_createcominterfacearray(const vxl_if *src, int32_t count, const char *ifname,
                                                   const char *wtype);

VXL_API int32_t *vxl_com_createemptyintarray(int32_t count);
VXL_API float *vxl_com_createemptyfloatarray(int32_t count);
VXL_API double *vxl_com_createemptydoublearray(int32_t count);
VXL_API char **vxl_com_createemptystringarray(int32_t count);
VXL_API vxl_if *vxl_com_createemptyinterfacearray(int32_t count);
VXL_API char **vxl_com_createemptycomstringarray(int32_t count);
VXL_API IUnknown **vxl_com_createemptycominterfacearray(int32_t count);

VXL_API void vxl_com_copystringarray(char **dst, const char *const *src, int32_t count);
VXL_API void vxl_com_copycomstringarray(char **dst, const char *const *src, int32_t count);
/* COM interfaces unwrapped into kit interfaces, and kit interfaces wrapped. */
VXL_API void vxl_com_copyinterfacearray(vxl_if *dst, IUnknown *const *src, int32_t count, const char *ifname,
                                        const char *wtype);
VXL_API void vxl_com_copycominterfacearray(IUnknown **dst, const vxl_if *src, int32_t count, const char *ifname,
                                           const char *wtype);

VXL_API void vxl_freestringarray(char **array, int32_t count);
VXL_API void vxl_com_freestringarray(char **array, int32_t count);
VXL_API void vxl_freestringarraycontents(char **array, int32_t count);
VXL_API int32_t vxl_freeinterfacearray(vxl_if *array, int32_t count);
VXL_API void vxl_freeinterfacearraycontents(vxl_if *array, int32_t count);
/* A kit-memory array of kit interfaces, like vxl_freeinterfacearray. */
VXL_API int32_t vxl_com_freeinterfacearray(vxl_if *array, int32_t count, const char *ifname, const char *wtype);
VXL_API void vxl_com_freecomstringarray(char **array, int32_t count);
VXL_API int32_t vxl_com_freecomstringarraycontents(char **array, int32_t count);
VXL_API int32_t vxl_com_freecominterfacearray(IUnknown **array, int32_t count, const char *ifname,
                                              const char *wtype);
VXL_API int32_t vxl_com_freecominterfacearraycontents(IUnknown **array, int32_t count);

/* ---- Safe arrays ----------------------------------------------------- */
/*
 * One dimension, lower bound 0. The "variant" creators make arrays of
 * VARIANTs. Readers read at most count elements from the start of the data,
 * and never more than the array holds; an element they cannot read leaves
 * its destination as it was (0 or null in the arrays the creating readers
 * return).
 */
VXL_API SAFEARRAY *vxl_com_createintsafearray(const int32_t *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createfloatsafearray(const float *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createdoublesafearray(const double *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createstringsafearray(const char *const *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createinterfacesafearray(const vxl_if *src, int32_t count, const char *ifname,
                                                    const char *wtype);
VXL_API SAFEARRAY *vxl_com_createvariantintsafearray(const int32_t *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createvariantfloatsafearray(const float *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createvariantdoublesafearray(const double *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createvariantstringsafearray(const char *const *src, int32_t count);
VXL_API SAFEARRAY *vxl_com_createvariantinterfacesafearray(const vxl_if *src, int32_t count, const char *ifname,
                                                           const char *wtype);

VXL_API void vxl_com_copyintarrayfromsafearray(int32_t *dst, SAFEARRAY *sa, int32_t count);
VXL_API void vxl_com_copyfloatarrayfromsafearray(float *dst, SAFEARRAY *sa, int32_t count);
VXL_API void vxl_com_copydoublearrayfromsafearray(double *dst, SAFEARRAY *sa, int32_t count);
VXL_API void vxl_com_copystringarrayfromsafearray(char **dst, SAFEARRAY *sa, int32_t count);
VXL_API void vxl_com_copyinterfacearrayfromsafearray(vxl_if *dst, SAFEARRAY *sa, int32_t count, const char *ifname,
                                                     const char *wtype);

VXL_API int32_t *vxl_com_createintarrayfromsafearray(SAFEARRAY *sa, int32_t count);
VXL_API float *vxl_com_createfloatarrayfromsafearray(SAFEARRAY *sa, int32_t count);
VXL_API double *vxl_com_createdoublearrayfromsafearray(SAFEARRAY *sa, int32_t count);
VXL_API char **vxl_com_createstringarrayfromsafearray(SAFEARRAY *sa, int32_t count);
VXL_API vxl_if *vxl_com_createinterfacearrayfromsafearray(SAFEARRAY *sa, int32_t count, const char *ifname,
                                                          const char *wtype);

VXL_API int32_t vxl_com_safearraylen(SAFEARRAY *sa);
VXL_API int32_t vxl_com_variantsafearraylen(const VARIANT *v);
VXL_API int32_t vxl_com_freesafearray(SAFEARRAY *sa);

/* ---- Variant conversion ---------------------------------------------- */
/*
 * A VARIANT of type VT_BYREF|VT_VARIANT is first replaced by the one it
 * points to (once). Readers answer 0, 0.0 or null for a tag they do not
 * accept; writers answer VXL_OK, or VXL_EFAIL when nothing could be written.
 */
VXL_API int32_t vxl_com_readintfromvariant(const VARIANT *v);
VXL_API float vxl_com_readfloatfromvariant(const VARIANT *v);
VXL_API double vxl_com_readdoublefromvariant(const VARIANT *v);
VXL_API char *vxl_com_readstringfromvariant(const VARIANT *v);
VXL_API vxl_if vxl_com_readinterfacefromvariant(const VARIANT *v, const char *ifname, const char *wtype);

VXL_API int32_t vxl_com_putinttovariant(VARIANT *v, int32_t value);
VXL_API int32_t vxl_com_putfloattovariant(VARIANT *v, float value);
VXL_API int32_t vxl_com_putdoubletovariant(VARIANT *v, double value);
VXL_API int32_t vxl_com_putstringtovariant(VARIANT *v, const char *value);
VXL_API int32_t vxl_com_putinterfacetovariant(VARIANT *v, vxl_if value, const char *ifname, const char *wtype);

VXL_API int32_t vxl_com_copyintarraytovariantsafearrayvariant(VARIANT *v, const int32_t *src, int32_t count);
VXL_API int32_t vxl_com_copyfloatarraytovariantsafearrayvariant(VARIANT *v, const float *src, int32_t count);
VXL_API int32_t vxl_com_copydoublearraytovariantsafearrayvariant(VARIANT *v, const double *src, int32_t count);
VXL_API int32_t vxl_com_copystringarraytovariantsafearrayvariant(VARIANT *v, const char *const *src, int32_t count);
VXL_API int32_t vxl_com_copyinterfacearraytovariantsafearrayvariant(VARIANT *v, const vxl_if *src, int32_t count,
                                                                    const char *ifname, const char *wtype);

/* count is the caller's: the new kit array has count elements. */
VXL_API int32_t *vxl_com_copyintarrayfromvariantsafearrayvariant(const VARIANT *v, int32_t count);
VXL_API float *vxl_com_copyfloatarrayfromvariantsafearrayvariant(const VARIANT *v, int32_t count);
VXL_API double *vxl_com_copydoublearrayfromvariantsafearrayvariant(const VARIANT *v, int32_t count);
VXL_API char **vxl_com_copystringarrayfromvariantsafearrayvariant(const VARIANT *v, int32_t count);
VXL_API vxl_if *vxl_com_copyinterfacearrayfromvariantsafearrayvariant(const VARIANT *v, int32_t count,
                                                                      const char *ifname, const char *wtype);

/* ---- Dispatch calls, combined values, events, type information ------- */
/* Variadic arguments, one 64-bit slot each, in declaration order: for the
 * two calls one per parameter that is not a length parameter; for
 * vxl_com_createcombined those of the out values and of out or in/out
 * lengths (an out interface takes three: pointer, wrapper type, name). */
VXL_API HRESULT vxl_com_dispcall(IDispatch *object, const vxl_methoddef *method, ...);
VXL_API HRESULT vxl_com_directdispcall(IDispatch *object, const vxl_methoddef *method, ...);
VXL_API SAFEARRAY *vxl_com_createcombined(const vxl_methoddef *method, ...);
VXL_API HRESULT vxl_com_cpinvoke(const char *ifname, DISPID member, REFIID riid, LCID lcid, WORD flags,
                                 DISPPARAMS *params, VARIANT *result, EXCEPINFO *excepinfo, UINT *argerr,
                                 int32_t sinkcount, IDispatch **sinks);
/* Owned by the runtime's cache: not to be released. kind is "S" or "CP". */
VXL_API ITypeInfo *vxl_com_gettypeinfo(const char *ifname, const char *kind);
VXL_API HRESULT vxl_com_getdispinterface(BSTR ifname, IDispatch **result, IUnknown *object);
/* With its own reference, which the caller releases. */
VXL_API ITypeInfo *vxl_com_getcomponentobjecttypeinfo(const GUID *libid, const GUID *guid);

/* ---- Class objects --------------------------------------------------- */
/*
 * The body of a component library's DllGetClassObject: hands out the class
 * object (an IClassFactory) of the registered COM component with that CLSID.
 */
VXL_API HRESULT vxl_com_getclassobject(const CLSID *clsid, const IID *iid, void **out);
/*
 * For DllCanUnloadNow: 1 while a class object of one of the components is
 * referenced, else 0; destroys the idle class objects it passes. Only the
 * name of each record is read. Call it before vxl_inuse, since a class
 * object keeps its kit class factory in use.
 */
VXL_API int32_t vxl_com_inuse(const vxl_comcomponentinfo *const *components, void *unused);
/* For a local server: makes a class object reachable from other processes. */
VXL_API int32_t vxl_com_registerclassobject(const CLSID *clsid, IUnknown *classobject, DWORD *cookie);
/* Takes it back and releases one reference of the class object. */
VXL_API int32_t vxl_com_revokeclassobject(DWORD cookie, IUnknown *classobject);

/* ---- Server registration --------------------------------------------- */
/*
 * For DllRegisterServer (or a local server's "/RegServer"): registers the
 * type library embedded in module, writes the registry entries of each
 * component with a CLSID (its name serves as ProgID) and of the
 * connection-point class "CP<interface>" of each proxy interface, and
 * records module as the wrapper library of those interfaces. Components and
 * proxy interfaces must have been registered with vxl_com_register. proxies:
 * null-terminated interface names, or null. 0, or 1 when the type library
 * cannot be registered (nothing is written then).
 */
VXL_API int32_t vxl_com_registerserver(HMODULE module, const vxl_comlibinfo *library,
                                       const vxl_comcomponentinfo *const *components, const char *const *proxies);
/* Removes all of it again: S_OK, or the failure of the type library's removal. */
VXL_API HRESULT vxl_com_unregisterserver(HMODULE module, const vxl_comlibinfo *library,
                                         const vxl_comcomponentinfo *const *components, const char *const *proxies);

#ifdef __cplusplus
}
#endif

#endif /* VEXAL_H */
