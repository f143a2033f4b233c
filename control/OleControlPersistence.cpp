// What the control keeps and shows its container besides its window:
// persistence of its extent, quick activation, its class information and the
// metafile picture of its data object.
#include "control/OleControl.h"

#include <olectl.h>

#include "control/Guids.h"
#include "control/Module.h"

namespace {

// What IPersistStreamInit writes: a version word and the extent.
constexpr DWORD kStreamVersion = 0x0100;

HRESULT ReadExact(IStream* stream, void* data, ULONG size)
{
    ULONG got = 0;
    HRESULT hr = stream->Read(data, size, &got);
    if (FAILED(hr))
        return hr;
    return got == size ? S_OK : E_FAIL;
}

HRESULT WriteExact(IStream* stream, const void* data, ULONG size)
{
    ULONG put = 0;
    HRESULT hr = stream->Write(data, size, &put);
    if (FAILED(hr))
        return hr;
    return put == size ? S_OK : STG_E_MEDIUMFULL;
}

}  // namespace

// ---------------------------------------------------------------------------
// Persistence: the control's only state worth saving is its extent.

STDMETHODIMP COleControlBase::GetClassID(CLSID* pClsid)
{
    if (pClsid == nullptr)
        return E_POINTER;
    *pClsid = m_clsid;
    return S_OK;
}

STDMETHODIMP COleControlBase::IsDirty()
{
    return m_dirty ? S_OK : S_FALSE;
}

STDMETHODIMP COleControlBase::Load(LPSTREAM stream)
{
    if (stream == nullptr)
        return E_POINTER;
    DWORD version = 0;
    SIZEL extent;
    HRESULT hr = ReadExact(stream, &version, sizeof(version));
    if (SUCCEEDED(hr) && version != kStreamVersion)
        hr = E_FAIL;
    if (SUCCEEDED(hr))
        hr = ReadExact(stream, &extent, sizeof(extent));
    if (FAILED(hr))
        return hr;
    m_extent = extent;
    m_dirty = false;
    return S_OK;
}

STDMETHODIMP COleControlBase::Save(LPSTREAM stream, BOOL clearDirty)
{
    if (stream == nullptr)
        return E_POINTER;
    DWORD version = kStreamVersion;
    HRESULT hr = WriteExact(stream, &version, sizeof(version));
    if (SUCCEEDED(hr))
        hr = WriteExact(stream, &m_extent, sizeof(m_extent));
    if (SUCCEEDED(hr) && clearDirty)
        m_dirty = false;
    return hr;
}

STDMETHODIMP COleControlBase::GetSizeMax(ULARGE_INTEGER* size)
{
    if (size == nullptr)
        return E_POINTER;
    size->QuadPart = sizeof(DWORD) + sizeof(SIZEL);
    return S_OK;
}

STDMETHODIMP COleControlBase::InitNew()
{
    m_extent.cx = kDefaultExtent;
    m_extent.cy = kDefaultExtent;
    m_dirty = false;
    return S_OK;
}

STDMETHODIMP COleControlBase::Load(IPropertyBag* bag, IErrorLog* log)
{
    if (bag == nullptr)
        return E_POINTER;
    // Missing properties keep their defaults.
    const wchar_t* names[2] = {L"_ExtentX", L"_ExtentY"};
    LONG* fields[2] = {&m_extent.cx, &m_extent.cy};
    for (int i = 0; i < 2; ++i) {
        VARIANT v;
        VariantInit(&v);
        v.vt = VT_I4;
        if (SUCCEEDED(bag->Read(names[i], &v, log)) &&
            SUCCEEDED(VariantChangeType(&v, &v, 0, VT_I4)))
            *fields[i] = v.lVal;
        VariantClear(&v);
    }
    m_dirty = false;
    return S_OK;
}

STDMETHODIMP COleControlBase::Save(IPropertyBag* bag, BOOL clearDirty, BOOL)
{
    if (bag == nullptr)
        return E_POINTER;
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_I4;
    v.lVal = m_extent.cx;
    HRESULT hr = bag->Write(L"_ExtentX", &v);
    if (SUCCEEDED(hr)) {
        v.lVal = m_extent.cy;
        hr = bag->Write(L"_ExtentY", &v);
    }
    if (SUCCEEDED(hr) && clearDirty)
        m_dirty = false;
    return hr;
}

STDMETHODIMP COleControlBase::InitNew(IStorage*)
{
    return InitNew();
}

STDMETHODIMP COleControlBase::Load(IStorage* storage)
{
    if (storage == nullptr)
        return E_POINTER;
    IStream* stream = nullptr;
    HRESULT hr = storage->OpenStream(L"Contents", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0,
                                     &stream);
    if (FAILED(hr))
        return hr;
    hr = Load(stream);
    stream->Release();
    return hr;
}

STDMETHODIMP COleControlBase::Save(IStorage* storage, BOOL)
{
    if (storage == nullptr)
        return E_POINTER;
    IStream* stream = nullptr;
    HRESULT hr = storage->CreateStream(
        L"Contents", STGM_WRITE | STGM_SHARE_EXCLUSIVE | STGM_CREATE, 0, 0, &stream);
    if (FAILED(hr))
        return hr;
    hr = Save(stream, TRUE);
    stream->Release();
    return hr;
}

STDMETHODIMP COleControlBase::SaveCompleted(IStorage*)
{
    return S_OK;
}

STDMETHODIMP COleControlBase::HandsOffStorage()
{
    return S_OK;
}

// ---------------------------------------------------------------------------
// IQuickActivate

STDMETHODIMP COleControlBase::QuickActivate(QACONTAINER* container, QACONTROL* control)
{
    if (container == nullptr || control == nullptr)
        return E_POINTER;
    if (container->cbSize < sizeof(QACONTAINER) || control->cbSize < sizeof(QACONTROL))
        return E_INVALIDARG;

    SetClientSite(container->pClientSite);
    if (container->pAdviseSink != nullptr)
        SetAdvise(DVASPECT_CONTENT, 0, container->pAdviseSink);

    ULONG size = control->cbSize;
    ZeroMemory(control, size);
    control->cbSize = size;
    if (container->pUnkEventSink != nullptr)
        AdviseEventSink(container->pUnkEventSink, &control->dwEventCookie);
    GetMiscStatus(DVASPECT_CONTENT, &control->dwMiscStatus);
    return S_OK;
}

STDMETHODIMP COleControlBase::SetContentExtent(LPSIZEL size)
{
    return SetExtent(DVASPECT_CONTENT, size);
}

STDMETHODIMP COleControlBase::GetContentExtent(LPSIZEL size)
{
    return GetExtent(DVASPECT_CONTENT, size);
}

// ---------------------------------------------------------------------------
// IProvideClassInfo2

STDMETHODIMP COleControlBase::GetClassInfo(ITypeInfo** ppTI)
{
    if (ppTI == nullptr)
        return E_POINTER;
    *ppTI = nullptr;
    ITypeLib* lib = nullptr;
    HRESULT hr = LoadRegTypeLib(m_libid, m_major, m_minor, kTypeLibLcid, &lib);
    if (FAILED(hr)) {
        wchar_t path[MAX_PATH];
        if (!BrennockModule::ModulePath(path, MAX_PATH))
            return hr;
        hr = LoadTypeLibEx(path, REGKIND_NONE, &lib);
        if (FAILED(hr))
            return hr;
    }
    hr = lib->GetTypeInfoOfGuid(m_clsid, ppTI);
    lib->Release();
    return hr;
}

STDMETHODIMP COleControlBase::GetGUID(DWORD kind, GUID* guid)
{
    if (guid == nullptr)
        return E_POINTER;
    if (kind != GUIDKIND_DEFAULT_SOURCE_DISP_IID) {
        *guid = GUID_NULL;
        return E_INVALIDARG;
    }
    *guid = m_eventsIid;
    return S_OK;
}

// ---------------------------------------------------------------------------
// IDataObject

STDMETHODIMP COleControlBase::GetData(FORMATETC* format, STGMEDIUM* medium)
{
    if (format == nullptr || medium == nullptr)
        return E_POINTER;
    HRESULT hr = QueryGetData(format);
    if (FAILED(hr))
        return hr;

    // Record the picture at the extent's size, in HIMETRIC units.
    HDC meta = CreateMetaFileW(nullptr);
    if (meta == nullptr)
        return E_OUTOFMEMORY;
    SetMapMode(meta, MM_ANISOTROPIC);
    SetWindowOrgEx(meta, 0, 0, nullptr);
    SetWindowExtEx(meta, m_extent.cx, m_extent.cy, nullptr);
    RECT rc = {0, 0, m_extent.cx, m_extent.cy};
    DrawPicture(meta, rc);
    HMETAFILE mf = CloseMetaFile(meta);
    if (mf == nullptr)
        return E_OUTOFMEMORY;

    HGLOBAL mem = GlobalAlloc(GMEM_MOVEABLE | GMEM_SHARE, sizeof(METAFILEPICT));
    METAFILEPICT* pict = mem ? static_cast<METAFILEPICT*>(GlobalLock(mem)) : nullptr;
    if (pict == nullptr) {
        if (mem != nullptr)
            GlobalFree(mem);
        DeleteMetaFile(mf);
        return E_OUTOFMEMORY;
    }
    pict->mm = MM_ANISOTROPIC;
    pict->xExt = m_extent.cx;
    pict->yExt = m_extent.cy;
    pict->hMF = mf;
    GlobalUnlock(mem);

    medium->tymed = TYMED_MFPICT;
    medium->hMetaFilePict = mem;
    medium->pUnkForRelease = nullptr;
    return S_OK;
}

STDMETHODIMP COleControlBase::GetDataHere(FORMATETC*, STGMEDIUM*)
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::QueryGetData(FORMATETC* format)
{
    if (format == nullptr)
        return E_POINTER;
    if (format->cfFormat != CF_METAFILEPICT)
        return DV_E_FORMATETC;
    if ((format->tymed & TYMED_MFPICT) == 0)
        return DV_E_TYMED;
    if (format->dwAspect != DVASPECT_CONTENT)
        return DV_E_DVASPECT;
    return S_OK;
}

STDMETHODIMP COleControlBase::GetCanonicalFormatEtc(FORMATETC*, FORMATETC* out)
{
    if (out != nullptr)
        out->ptd = nullptr;
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::SetData(FORMATETC*, STGMEDIUM*, BOOL)
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::EnumFormatEtc(DWORD direction, IEnumFORMATETC** ppEnum)
{
    if (ppEnum == nullptr)
        return E_POINTER;
    *ppEnum = nullptr;
    if (direction != DATADIR_GET)
        return E_NOTIMPL;
    return OleRegEnumFormatEtc(m_clsid, direction, ppEnum);
}

STDMETHODIMP COleControlBase::DAdvise(FORMATETC* format, DWORD flags, IAdviseSink* sink,
                                      DWORD* cookie)
{
    if (cookie == nullptr)
        return E_POINTER;
    *cookie = 0;
    if (m_pDataAdviseHolder == nullptr && FAILED(CreateDataAdviseHolder(&m_pDataAdviseHolder)))
        return E_OUTOFMEMORY;
    return m_pDataAdviseHolder->Advise(static_cast<IDataObject*>(this), format, flags, sink,
                                       cookie);
}

STDMETHODIMP COleControlBase::DUnadvise(DWORD cookie)
{
    if (m_pDataAdviseHolder == nullptr)
        return OLE_E_NOCONNECTION;
    return m_pDataAdviseHolder->Unadvise(cookie);
}

STDMETHODIMP COleControlBase::EnumDAdvise(IEnumSTATDATA** ppEnum)
{
    if (ppEnum == nullptr)
        return E_POINTER;
    *ppEnum = nullptr;
    if (m_pDataAdviseHolder == nullptr)
        return E_FAIL;
    return m_pDataAdviseHolder->EnumAdvise(ppEnum);
}
