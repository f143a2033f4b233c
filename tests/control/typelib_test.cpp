// The registered type library, read back as a compiled client or a script
// engine reads it.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/ControlTestKit.h"
#include "tests/support/InterfaceTable.h"

namespace {

std::wstring Doc(ITypeInfo* info, MEMBERID id, std::wstring* helpOut = nullptr)
{
    BSTR name = nullptr, help = nullptr;
    info->GetDocumentation(id, &name, &help, nullptr, nullptr);
    std::wstring n = name ? name : L"";
    if (helpOut)
        *helpOut = help ? help : L"";
    SysFreeString(name);
    SysFreeString(help);
    return n;
}

std::vector<std::wstring> Names(ITypeInfo* info, MEMBERID id)
{
    BSTR names[16] = {};
    UINT count = 0;
    info->GetNames(id, names, 16, &count);
    std::vector<std::wstring> out;
    for (UINT i = 0; i < count; ++i) {
        out.push_back(names[i]);
        SysFreeString(names[i]);
    }
    return out;
}

class TypeLibTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_HRESULT_SUCCEEDED(LoadRegTypeLib(LIBID_BRENNOCKCONTROLLib, 1, 0, kTypeLibLcid,
                                                lib.GetAddressOf()));
    }
    ComApartment com;
    ComPtr<ITypeLib> lib;
};

TEST_F(TypeLibTest, LibraryAttributesAndTypeOrder)
{
    TLIBATTR* attr = nullptr;
    ASSERT_HRESULT_SUCCEEDED(lib->GetLibAttr(&attr));
    EXPECT_EQ(attr->guid, LIBID_BRENNOCKCONTROLLib);
    EXPECT_EQ(attr->wMajorVerNum, 1);
    EXPECT_EQ(attr->wMinorVerNum, 0);
    EXPECT_EQ(attr->lcid, 0x0409u);
    lib->ReleaseTLibAttr(attr);

    BSTR name = nullptr, help = nullptr;
    ASSERT_HRESULT_SUCCEEDED(lib->GetDocumentation(-1, &name, &help, nullptr, nullptr));
    EXPECT_STREQ(name, L"BRENNOCKCONTROLLib");
    EXPECT_STREQ(help, L"BrennockControl 1.0 Type Library");
    SysFreeString(name);
    SysFreeString(help);

    ASSERT_EQ(lib->GetTypeInfoCount(), 3u);
    const struct
    {
        const wchar_t* name;
        const wchar_t* help;
        TYPEKIND kind;
        GUID guid;
    } expected[] = {
        {L"_IBrennockEvents", L"_IBrennockEvents Interface", TKIND_DISPATCH, DIID__IBrennockEvents},
        {L"Brennock", L"Brennock Class", TKIND_COCLASS, CLSID_Brennock},
        {L"IBrennock", L"IBrennock Interface", TKIND_DISPATCH, IID_IBrennock},
    };
    for (UINT i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        TYPEKIND kind;
        ASSERT_HRESULT_SUCCEEDED(lib->GetTypeInfoType(i, &kind));
        EXPECT_EQ(kind, expected[i].kind);
        ComPtr<ITypeInfo> info;
        ASSERT_HRESULT_SUCCEEDED(lib->GetTypeInfo(i, info.GetAddressOf()));
        std::wstring help;
        EXPECT_EQ(Doc(info.Get(), MEMBERID_NIL, &help), expected[i].name);
        EXPECT_EQ(help, expected[i].help);
        TYPEATTR* ta = nullptr;
        ASSERT_HRESULT_SUCCEEDED(info->GetTypeAttr(&ta));
        EXPECT_EQ(ta->guid, expected[i].guid);
        info->ReleaseTypeAttr(ta);
    }
}

TEST_F(TypeLibTest, InterfaceFlagsAndCoclass)
{
    ComPtr<ITypeInfo> events, coclass, iface;
    ASSERT_HRESULT_SUCCEEDED(lib->GetTypeInfoOfGuid(DIID__IBrennockEvents, events.GetAddressOf()));
    ASSERT_HRESULT_SUCCEEDED(lib->GetTypeInfoOfGuid(CLSID_Brennock, coclass.GetAddressOf()));
    ASSERT_HRESULT_SUCCEEDED(lib->GetTypeInfoOfGuid(IID_IBrennock, iface.GetAddressOf()));

    TYPEATTR* ta = nullptr;
    events->GetTypeAttr(&ta);
    EXPECT_EQ(ta->wTypeFlags, TYPEFLAG_FDISPATCHABLE);
    EXPECT_EQ(ta->cFuncs, static_cast<WORD>(BrennockEvents().size()));
    events->ReleaseTypeAttr(ta);

    // A dual interface is found as its dispatch half; its vtable half is the
    // implemented type -1.
    iface->GetTypeAttr(&ta);
    EXPECT_EQ(ta->typekind, TKIND_DISPATCH);
    EXPECT_TRUE(ta->wTypeFlags & TYPEFLAG_FDUAL);
    EXPECT_TRUE(ta->wTypeFlags & TYPEFLAG_FDISPATCHABLE);
    EXPECT_FALSE(ta->wTypeFlags & TYPEFLAG_FNONEXTENSIBLE);
    iface->ReleaseTypeAttr(ta);
    HREFTYPE vtblRef = 0;
    ComPtr<ITypeInfo> vtbl;
    ASSERT_HRESULT_SUCCEEDED(iface->GetRefTypeOfImplType(-1, &vtblRef));
    ASSERT_HRESULT_SUCCEEDED(iface->GetRefTypeInfo(vtblRef, vtbl.GetAddressOf()));
    vtbl->GetTypeAttr(&ta);
    EXPECT_EQ(ta->typekind, TKIND_INTERFACE);
    EXPECT_EQ(ta->wTypeFlags, TYPEFLAG_FDUAL | TYPEFLAG_FOLEAUTOMATION | TYPEFLAG_FDISPATCHABLE);
    vtbl->ReleaseTypeAttr(ta);
    // Its base is IDispatch, from the standard OLE automation library.
    HREFTYPE baseRef = 0;
    ComPtr<ITypeInfo> base;
    ASSERT_HRESULT_SUCCEEDED(vtbl->GetRefTypeOfImplType(0, &baseRef));
    ASSERT_HRESULT_SUCCEEDED(vtbl->GetRefTypeInfo(baseRef, base.GetAddressOf()));
    base->GetTypeAttr(&ta);
    EXPECT_EQ(ta->guid, IID_IDispatch);
    base->ReleaseTypeAttr(ta);

    coclass->GetTypeAttr(&ta);
    EXPECT_TRUE(ta->wTypeFlags & TYPEFLAG_FCANCREATE);
    ASSERT_EQ(ta->cImplTypes, 2);
    coclass->ReleaseTypeAttr(ta);
    const struct
    {
        GUID guid;
        INT flags;
    } impls[] = {{IID_IBrennock, IMPLTYPEFLAG_FDEFAULT},
                 {DIID__IBrennockEvents, IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE}};
    for (UINT i = 0; i < 2; ++i) {
        INT flags = 0;
        ASSERT_HRESULT_SUCCEEDED(coclass->GetImplTypeFlags(i, &flags));
        EXPECT_EQ(flags, impls[i].flags);
        HREFTYPE ref;
        ComPtr<ITypeInfo> implInfo;
        ASSERT_HRESULT_SUCCEEDED(coclass->GetRefTypeOfImplType(i, &ref));
        ASSERT_HRESULT_SUCCEEDED(coclass->GetRefTypeInfo(ref, implInfo.GetAddressOf()));
        TYPEATTR* ia = nullptr;
        implInfo->GetTypeAttr(&ia);
        EXPECT_EQ(ia->guid, impls[i].guid);
        implInfo->ReleaseTypeAttr(ia);
    }
}

TEST_F(TypeLibTest, InterfaceMembersInSlotOrder)
{
    // The vtable side of the dual interface: IDispatch's seven slots, then
    // ours in order, property get before put.
    ComPtr<ITypeInfo> disp, vtbl;
    ASSERT_HRESULT_SUCCEEDED(lib->GetTypeInfoOfGuid(IID_IBrennock, disp.GetAddressOf()));
    HREFTYPE ref;
    ASSERT_HRESULT_SUCCEEDED(disp->GetRefTypeOfImplType(-1, &ref));
    ASSERT_HRESULT_SUCCEEDED(disp->GetRefTypeInfo(ref, vtbl.GetAddressOf()));

    TYPEATTR* ta = nullptr;
    ASSERT_HRESULT_SUCCEEDED(vtbl->GetTypeAttr(&ta));
    EXPECT_EQ(ta->typekind, TKIND_INTERFACE);
    ASSERT_EQ(ta->cFuncs, static_cast<WORD>(BrennockMembers().size()));
    vtbl->ReleaseTypeAttr(ta);

    const auto& members = BrennockMembers();
    for (UINT i = 0; i < members.size(); ++i) {
        const MemberSpec& m = members[i];
        SCOPED_TRACE(testing::PrintToString(std::wstring(m.name)));
        FUNCDESC* fd = nullptr;
        ASSERT_HRESULT_SUCCEEDED(vtbl->GetFuncDesc(i, &fd));
        EXPECT_EQ(fd->memid, m.id);
        EXPECT_EQ(fd->invkind, m.kind);
        EXPECT_EQ(fd->oVft, static_cast<SHORT>((7 + i) * sizeof(void*)));
        EXPECT_EQ(fd->elemdescFunc.tdesc.vt, VT_HRESULT);
        ASSERT_EQ(fd->cParams, static_cast<SHORT>(m.params.size()));
        for (SHORT p = 0; p < fd->cParams; ++p) {
            const ELEMDESC& ed = fd->lprgelemdescParam[p];
            const ParamSpec& ps = m.params[p];
            if (ps.retval) {
                EXPECT_EQ(ed.tdesc.vt, VT_PTR);
                EXPECT_EQ(ed.tdesc.lptdesc->vt, ps.vt);
                EXPECT_TRUE(ed.paramdesc.wParamFlags & PARAMFLAG_FRETVAL);
                EXPECT_TRUE(ed.paramdesc.wParamFlags & PARAMFLAG_FOUT);
            } else {
                EXPECT_EQ(ed.tdesc.vt, ps.vt);
                EXPECT_TRUE(ed.paramdesc.wParamFlags & PARAMFLAG_FIN);
            }
        }
        vtbl->ReleaseFuncDesc(fd);

        std::wstring help;
        EXPECT_EQ(Doc(vtbl.Get(), m.id, &help), m.name);
        EXPECT_EQ(help, m.help);
        if (m.kind != INVOKE_PROPERTYPUT) {
            std::vector<std::wstring> names = Names(vtbl.Get(), m.id);
            ASSERT_EQ(names.size(), 1 + m.params.size());
            for (size_t p = 0; p < m.params.size(); ++p)
                EXPECT_EQ(names[1 + p], m.params[p].name);
        }
    }
}

TEST_F(TypeLibTest, EventMembers)
{
    ComPtr<ITypeInfo> events;
    ASSERT_HRESULT_SUCCEEDED(lib->GetTypeInfoOfGuid(DIID__IBrennockEvents, events.GetAddressOf()));
    const auto& specs = BrennockEvents();
    for (UINT i = 0; i < specs.size(); ++i) {
        const EventSpec& e = specs[i];
        SCOPED_TRACE(testing::PrintToString(std::wstring(e.name)));
        FUNCDESC* fd = nullptr;
        ASSERT_HRESULT_SUCCEEDED(events->GetFuncDesc(i, &fd));
        EXPECT_EQ(fd->memid, e.id);
        EXPECT_EQ(fd->funckind, FUNC_DISPATCH);
        EXPECT_EQ(fd->elemdescFunc.tdesc.vt, e.returnsHresult ? VT_HRESULT : VT_VOID);
        ASSERT_EQ(fd->cParams, static_cast<SHORT>(e.params.size()));
        for (SHORT p = 0; p < fd->cParams; ++p)
            EXPECT_EQ(fd->lprgelemdescParam[p].tdesc.vt, e.params[p].vt);
        events->ReleaseFuncDesc(fd);

        std::wstring help;
        EXPECT_EQ(Doc(events.Get(), e.id, &help), e.name);
        EXPECT_EQ(help, std::wstring(L"method ") + e.name);
        std::vector<std::wstring> names = Names(events.Get(), e.id);
        ASSERT_EQ(names.size(), 1 + e.params.size());
        for (size_t p = 0; p < e.params.size(); ++p)
            EXPECT_EQ(names[1 + p], e.params[p].name);
    }
}

}  // namespace
