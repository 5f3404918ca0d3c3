// Registries at scale: the same checks of lookup order and unregistering,
// run with 3 registrations and with 100,000, so that the hash indexes are
// seen to answer exactly as the lists they stand beside.
//
// The COM registrations are compared with a model that walks the live
// registrations newest first, as the lookups are defined; the kit registry
// and the factory cache with what each registration lists.
#include "comserver/comserver.h"
#include "core/kit.h"
#include "core/object.h"
#include "quiet.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

QUIET_TEST_CHILD()

namespace {

GUID guid(uint32_t n, uint16_t kind)
{
    return GUID{n, kind, 0x4f00, {0x81, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48}};
}

bool same(const GUID &a, const GUID &b) { return memcmp(&a, &b, sizeof a) == 0; }

// Distinct bodies, so the linker cannot fold them into one address.
int32_t makerA(vxl_if, IUnknown **) { return 1; }
int32_t makerB(vxl_if, IUnknown **) { return 2; }
HRESULT dispA(IUnknown *, IDispatch **) { return 3; }

const GUID kSharedClsid = guid(0xffff0001u, 9);
const GUID kSharedIid = guid(0xffff0002u, 9);
const GUID kNamelessIid = guid(0xffff0003u, 9);

// ---- the COM side -------------------------------------------------------------------------------
// Registration i: component "C<i>" (CLSID i); every other one also "Shared"
// with a CLSID they all share; every seventh a nameless component. Interface
// entries: "I<i>" (iid_com i); "IShared", whose fields each registration
// sets or leaves by a pattern of its own, so a merge shows which
// registration gave each field; every eleventh a nameless entry whose
// iid_com is one no named entry has.

struct ComLib {
    vxl_comlibinfo lib;
    std::string compname, ifname;
    std::vector<vxl_comcomponentinfo> comps;
    std::vector<const vxl_comcomponentinfo *> compptrs;
    std::vector<vxl_comifinfo> ifs;
    std::vector<const vxl_comifinfo *> ifptrs;
};

std::unique_ptr<ComLib> makeComLib(uint32_t i)
{
    auto l = std::make_unique<ComLib>();
    l->lib = {"scale_test.exe", guid(i, 7)};
    l->compname = "C" + std::to_string(i);
    l->ifname = "I" + std::to_string(i);
    l->comps.push_back({l->compname.c_str(), guid(i, 1)});
    if (i % 2 == 0)
        l->comps.push_back({"Shared", kSharedClsid});
    if (i % 7 == 0)
        l->comps.push_back({nullptr, guid(i, 3)});
    vxl_comifinfo own = {l->ifname.c_str(), guid(i, 2), {}, {}, {}, {}, nullptr, nullptr, nullptr, nullptr};
    vxl_comifinfo shared = {"IShared", {}, {}, {}, {}, {}, nullptr, nullptr, nullptr, nullptr};
    if (i % 3 == 0)
        shared.iid_com = guid(i, 4);
    if (i % 4 == 1)
        shared.iid_comS = kSharedIid;
    if (i % 5 == 2)
        shared.iid_comP = guid(i, 5);
    if (i % 6 == 3)
        shared.clsid_CP = guid(i, 6);
    if (i % 2 == 1)
        shared.wrap_com = i % 4 == 1 ? makerA : makerB;
    if (i % 9 == 4)
        shared.getdispinterface = dispA;
    l->ifs.push_back(own);
    l->ifs.push_back(shared);
    if (i % 11 == 0)
        l->ifs.push_back({nullptr, kNamelessIid, {}, {}, {}, {}, makerA, nullptr, nullptr, nullptr});
    for (const vxl_comcomponentinfo &c : l->comps)
        l->compptrs.push_back(&c);
    l->compptrs.push_back(nullptr);
    for (const vxl_comifinfo &f : l->ifs)
        l->ifptrs.push_back(&f);
    l->ifptrs.push_back(nullptr);
    return l;
}

// The registrations as the lookups must see them: newest first. Lookups
// walk a flat copy of the live entries in that order (made once per check),
// which a hundred thousand registrations walk quickly.
class ComModel {
public:
    void add(const ComLib *l) { registered_[l].push_back(live_.insert(live_.begin(), l)); }
    // The newest registration with exactly these pointers leaves.
    void remove(const ComLib *l)
    {
        auto &mine = registered_[l];
        live_.erase(mine.back());
        mine.pop_back();
    }
    bool has(const ComLib *l) const
    {
        auto it = registered_.find(l);
        return it != registered_.end() && !it->second.empty();
    }
    const std::list<const ComLib *> &live() const { return live_; }

    void flatten()
    {
        ifs_.clear();
        comps_.clear();
        for (const ComLib *l : live_) {
            ifs_.insert(ifs_.end(), l->ifs.begin(), l->ifs.end());
            for (const vxl_comcomponentinfo &c : l->comps)
                comps_.push_back({c, &c});
        }
    }

    int32_t ifinfo(const char *name, vxl_comifinfo *out) const
    {
        memset(out, 0, sizeof *out);
        int32_t status = 1;
        for (const vxl_comifinfo &e : ifs_) {
            if (!e.name || strcmp(e.name, name) != 0)
                continue;
            status = 0;
            out->name = e.name;
            for (GUID vxl_comifinfo::*g : {&vxl_comifinfo::iid_com, &vxl_comifinfo::iid_comS, &vxl_comifinfo::iid_comP,
                                           &vxl_comifinfo::iid_CP, &vxl_comifinfo::clsid_CP})
                if (!same(e.*g, GUID_NULL))
                    out->*g = e.*g;
            for (vxl_wrapmaker vxl_comifinfo::*f :
                 {&vxl_comifinfo::wrap_com, &vxl_comifinfo::wrap_comS, &vxl_comifinfo::wrap_comP})
                if (e.*f)
                    out->*f = e.*f;
            if (e.getdispinterface)
                out->getdispinterface = e.getdispinterface;
        }
        return status;
    }
    int32_t ifinfobyiid(const GUID &iid, const char **wtype, vxl_comifinfo *out) const
    {
        static const char *const types[] = {"com", "comS", "comP"};
        for (const vxl_comifinfo &e : ifs_) {
            if (!e.name)
                continue;
            const GUID *fields[] = {&e.iid_com, &e.iid_comS, &e.iid_comP};
            for (int k = 0; k < 3; ++k)
                if (same(*fields[k], iid)) {
                    *wtype = types[k];
                    return ifinfo(e.name, out);
                }
        }
        *wtype = nullptr;
        memset(out, 0, sizeof *out);
        return 1;
    }
    // The component found by CLSID (name null) or by exact name.
    const vxl_comcomponentinfo *component(const GUID &clsid, const char *name = nullptr) const
    {
        for (const Component &c : comps_)
            if (name ? c.copy.name && strcmp(c.copy.name, name) == 0 : same(c.copy.clsid, clsid))
                return c.original;
        return nullptr;
    }

private:
    struct Component {
        vxl_comcomponentinfo copy;
        const vxl_comcomponentinfo *original;
    };
    std::list<const ComLib *> live_;
    std::map<const ComLib *, std::vector<std::list<const ComLib *>::iterator>> registered_;
    std::vector<vxl_comifinfo> ifs_;
    std::vector<Component> comps_;
};

// Every lookup the COM side answers, for the keys that tell orders apart,
// against the model; and the list itself, newest first.
void expectComLookups(ComModel &model, uint32_t count, const char *phase)
{
    SCOPED_TRACE(phase);
    model.flatten();
    std::vector<uint32_t> indexes = {0, count / 2, count - 1};
    std::vector<std::string> names = {"IShared", "ishared", "INone", ""};
    std::vector<GUID> iids = {kSharedIid, kNamelessIid, GUID_NULL, guid(12345678u, 2)};
    std::vector<GUID> clsids = {kSharedClsid, GUID_NULL, guid(12345678u, 1)};
    std::vector<std::string> compnames = {"Shared", "None"};
    for (uint32_t i : indexes) {
        names.push_back("I" + std::to_string(i));
        iids.push_back(guid(i, 2));
        iids.push_back(guid(i, 4));
        iids.push_back(guid(i, 5));
        clsids.push_back(guid(i, 1));
        clsids.push_back(guid(i, 3));
        compnames.push_back("C" + std::to_string(i));
    }
    for (const std::string &name : names) {
        SCOPED_TRACE("getifinfo " + name);
        vxl_comifinfo got, want;
        memset(&got, 0xde, sizeof got);
        ASSERT_EQ(model.ifinfo(name.c_str(), &want), vxl_com_getifinfo(name.c_str(), &got));
        EXPECT_EQ(0, memcmp(&want, &got, sizeof got));
    }
    for (const GUID &iid : iids) {
        SCOPED_TRACE(testing::PrintToString(iid));
        vxl_comifinfo got, want;
        memset(&got, 0xde, sizeof got);
        const char *gottype = "poison", *wanttype = nullptr;
        ASSERT_EQ(model.ifinfobyiid(iid, &wanttype, &want), vxl_com_getifinfobyiid(iid, &gottype, &got));
        EXPECT_STREQ(wanttype, gottype);
        EXPECT_EQ(0, memcmp(&want, &got, sizeof got));
    }
    for (const GUID &clsid : clsids)
        EXPECT_EQ(model.component(clsid), vxl_com_findcomponentbyclsid(clsid)) << testing::PrintToString(clsid);
    for (const std::string &name : compnames)
        EXPECT_EQ(model.component(GUID_NULL, name.c_str()), vxl_com_findcomponent(name.c_str())) << name;

    vxl_comlockguard lock(VXL_REGISTRATION_LOCK);
    vxl_comregistration *reg = vxl_com_registrations();
    for (const ComLib *l : model.live()) {
        ASSERT_NE(nullptr, reg) << "the list ends early";
        ASSERT_EQ(l->compptrs.data(), reg->components);
        ASSERT_EQ(l->ifptrs.data(), reg->interfaces);
        ASSERT_EQ(&l->lib, reg->library);
        reg = reg->next;
    }
    EXPECT_EQ(nullptr, reg) << "the list holds more than the live registrations";
}

void comRegistrationsAtScale(uint32_t count)
{
    std::vector<std::unique_ptr<ComLib>> libs;
    for (uint32_t i = 0; i < count; ++i)
        libs.push_back(makeComLib(i));
    ComModel model;
    auto reg = [&](uint32_t i) {
        const ComLib &l = *libs[i];
        ASSERT_EQ(0, vxl_com_register(&l.lib, l.compptrs.data(), l.ifptrs.data()));
        model.add(&l);
    };
    auto unreg = [&](uint32_t i) {
        const ComLib &l = *libs[i];
        ASSERT_EQ(0, vxl_com_unregister(&l.lib, l.compptrs.data(), l.ifptrs.data()));
        model.remove(&l);
    };
    for (uint32_t i = 0; i < count; ++i)
        reg(i);
    expectComLookups(model, count, "all registered");

    // The newest, the oldest and one between them leave; the list closes up
    // around each.
    unreg(count - 1);
    unreg(0);
    unreg(count / 2);
    const ComLib &gone = *libs[0];
    EXPECT_EQ(1, vxl_com_unregister(&gone.lib, gone.compptrs.data(), gone.ifptrs.data())) << "already gone";
    const ComLib &other = *libs[1];
    EXPECT_EQ(1, vxl_com_unregister(&gone.lib, other.compptrs.data(), other.ifptrs.data())) << "another library";
    expectComLookups(model, count, "newest, oldest and middle unregistered");

    // One library registered twice and unregistered once still answers, now
    // as the newest registration.
    reg(1);
    expectComLookups(model, count, "registered twice");
    unreg(1);
    expectComLookups(model, count, "registered twice, unregistered once");

    // Every other one, oldest first; then the rest, oldest first.
    for (const char *phase : {"every other unregistered", "all unregistered"}) {
        for (uint32_t i = 0; i < count; ++i)
            if ((i % 2 == 0 || phase[0] == 'a') && model.has(libs[i].get()))
                unreg(i);
        expectComLookups(model, count, phase);
    }
}

// ---- the kit side -------------------------------------------------------------------------------
// Registration i lists class "K<i>" (its interface "IK<i>") and the
// interface "IShared", which every registration lists identically.

const vxl_paramdef kArg = {"x", VXL_TYPE_INT, VXL_DIR_IN, 0, nullptr};
const vxl_paramdef *const kArgs[] = {&kArg};
const vxl_methoddef kMethod = {"get", 1, kArgs};
const vxl_methoddef *const kMethods[] = {&kMethod};
const vxl_interfacedef kShared = {"IShared", 1, kMethods};

int32_t kitGet(void *impl, int32_t x)
{
    return static_cast<int32_t>(reinterpret_cast<intptr_t>(impl)) + x;
}
const vxl_fn kFunctions[] = {reinterpret_cast<vxl_fn>(kitGet)};
using GetSlot = int32_t (*)(vxl_if, int32_t);

int32_t kitCreate(void **implslot, vxl_if)
{
    *implslot = reinterpret_cast<void *>(intptr_t(1000));
    return 0;
}
int32_t kitDestroy(void *, vxl_if) { return 0; }

struct KitLib {
    std::string name, ifname;
    vxl_interfacedef iface;
    vxl_componentinterface entry;
    const vxl_componentinterface *entries[1];
    vxl_componentdef def;
    const vxl_componentdef *components[2];
    const vxl_interfacedef *interfaces[3];
};

std::unique_ptr<KitLib> makeKitLib(uint32_t i)
{
    auto l = std::make_unique<KitLib>();
    l->name = "K" + std::to_string(i);
    l->ifname = "IK" + std::to_string(i);
    l->iface = {l->ifname.c_str(), 1, kMethods};
    l->entry = {&l->iface, kFunctions};
    l->entries[0] = &l->entry;
    l->def = {l->name.c_str(), 1, l->entries, kitCreate, kitDestroy, nullptr};
    l->components[0] = &l->def;
    l->components[1] = nullptr;
    l->interfaces[0] = &l->iface;
    l->interfaces[1] = &kShared;
    l->interfaces[2] = nullptr;
    return l;
}

void kitRegistryAtScale(uint32_t count)
{
    std::vector<std::unique_ptr<KitLib>> libs;
    for (uint32_t i = 0; i < count; ++i)
        libs.push_back(makeKitLib(i));
    std::vector<bool> live(count, false);
    for (uint32_t i = 0; i < count; ++i) {
        ASSERT_EQ(0, vxl_register(libs[i]->name.c_str(), libs[i]->components, libs[i]->interfaces)) << i;
        live[i] = true;
    }
    const vxl_interfacedef *shared = vxl_findinterfacedef("IShared");
    ASSERT_NE(nullptr, shared);
    EXPECT_NE(&kShared, shared) << "a copy";

    auto expectRegistry = [&](const char *phase) {
        SCOPED_TRACE(phase);
        for (uint32_t i : {0u, 1u, count / 2, count - 2, count - 1}) {
            SCOPED_TRACE(libs[i]->name);
            EXPECT_EQ(live[i] ? &libs[i]->def : nullptr, vxl_findcomponentdef(libs[i]->name.c_str()));
            const vxl_interfacedef *copy = vxl_findinterfacedef(libs[i]->ifname.c_str());
            EXPECT_EQ(live[i], copy != nullptr);
            if (copy) {
                EXPECT_NE(&libs[i]->iface, copy);
                EXPECT_EQ(libs[i]->ifname, copy->name);
            }
        }
        bool any = std::find(live.begin(), live.end(), true) != live.end();
        EXPECT_EQ(any ? shared : nullptr, vxl_findinterfacedef("IShared")) << "one copy while any lists it";
        EXPECT_EQ(nullptr, vxl_findcomponentdef("k0")) << "names are exact";
    };
    expectRegistry("all registered");

    // Refusals change nothing: a taken class name; another IShared.
    const vxl_componentdef *const taken[] = {&libs[count - 1]->def, nullptr};
    const vxl_interfacedef *const none[] = {nullptr};
    EXPECT_EQ(1, vxl_register("again", taken, none));
    const vxl_interfacedef otherShared = {"IShared", 0, nullptr};
    const vxl_componentdef *const noComponents[] = {nullptr};
    const vxl_interfacedef *const otherList[] = {&otherShared, nullptr};
    EXPECT_EQ(1, vxl_register("other", noComponents, otherList));
    expectRegistry("after refusals");

    // An object of every class: every factory built and cached.
    for (uint32_t i = 0; i < count; ++i) {
        vxl_if obj = nullptr;
        ASSERT_EQ(0, vxl_createinstance(libs[i]->name.c_str(), libs[i]->ifname.c_str(), &obj));
        ASSERT_EQ(1005, VXL_METHOD(obj, 0, GetSlot)(obj, 5));
        vxl_decref(obj);
    }
    for (uint32_t i : {0u, count / 2, count - 1}) {
        vxl_classfactory *f = nullptr;
        ASSERT_EQ(0, vxl_createclassfactory(&f, libs[i]->name.c_str()));
        EXPECT_EQ(&libs[i]->def, f->componentdef) << "the factory of its own class";
        vxl_destroyclassfactory(f);
    }

    // Unregistering needs the very list pointers.
    const vxl_componentdef *const copied[] = {&libs[0]->def, nullptr};
    EXPECT_EQ(1, vxl_unregister(copied, libs[0]->interfaces));

    // Every other one leaves (its factories freed first, as a library would
    // do before it unloads), oldest first; then the rest, newest first.
    std::vector<const vxl_componentdef *> idle;
    for (uint32_t i = 0; i < count; i += 2)
        idle.push_back(&libs[i]->def);
    idle.push_back(nullptr);
    EXPECT_EQ(0, vxl_inuse(idle.data()));
    for (uint32_t i = 0; i < count; i += 2) {
        ASSERT_EQ(0, vxl_unregister(libs[i]->components, libs[i]->interfaces));
        live[i] = false;
    }
    expectRegistry("every other unregistered");
    vxl_classfactory *gone = nullptr;
    EXPECT_EQ(VXL_ECLASSNOTREG, vxl_createclassfactory(&gone, libs[0]->name.c_str())) << "its factory went too";
    vxl_if kept = nullptr;
    ASSERT_EQ(0, vxl_createinstance(libs[1]->name.c_str(), nullptr, &kept)) << "the others' stay cached";
    vxl_decref(kept);

    for (uint32_t i = count; i-- > 0;) {
        if (!live[i])
            continue;
        const vxl_componentdef *const mine[] = {&libs[i]->def, nullptr};
        ASSERT_EQ(0, vxl_inuse(mine));
        ASSERT_EQ(0, vxl_unregister(libs[i]->components, libs[i]->interfaces));
        live[i] = false;
    }
    expectRegistry("all unregistered");
    EXPECT_EQ(1, vxl_unregister(libs[1]->components, libs[1]->interfaces)) << "already gone";

    // An identical IShared registered again is served by the copy kept aside.
    ASSERT_EQ(0, vxl_register(libs[0]->name.c_str(), libs[0]->components, libs[0]->interfaces));
    EXPECT_EQ(shared, vxl_findinterfacedef("IShared"));
    vxl_if again = nullptr;
    ASSERT_EQ(0, vxl_createinstance(libs[0]->name.c_str(), nullptr, &again)) << "a new factory";
    vxl_decref(again);
    const vxl_componentdef *const first[] = {&libs[0]->def, nullptr};
    EXPECT_EQ(0, vxl_inuse(first));
    EXPECT_EQ(0, vxl_unregister(libs[0]->components, libs[0]->interfaces));
}

} // namespace

QUIET_TEST(ComRegistrations, LookupOrderAndUnregisteringWith3) { comRegistrationsAtScale(3); }
QUIET_TEST(ComRegistrations, LookupOrderAndUnregisteringWith100000) { comRegistrationsAtScale(100000); }
QUIET_TEST(KitRegistry, LookupsFactoriesAndUnregisteringWith3) { kitRegistryAtScale(3); }
QUIET_TEST(KitRegistry, LookupsFactoriesAndUnregisteringWith100000) { kitRegistryAtScale(100000); }
