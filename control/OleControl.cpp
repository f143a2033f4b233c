// The OLE control base: the object, its window and drawing, IOleObject,
// IOleControl, in-place activation and IViewObject2.
#include "control/OleControl.h"

#include <olectl.h>

#include "control/Guids.h"
#include "control/Module.h"

namespace {

const wchar_t kWindowClass[] = L"BrennockControlWindow";

template <class T>
void ReleaseAndNull(T*& p)
{
    if (p != nullptr) {
        T* old = p;
        p = nullptr;
        old->Release();
    }
}

}  // namespace

COleControlBase::COleControlBase(REFCLSID clsid, REFGUID libid, WORD major, WORD minor,
                                 REFIID eventsIid, DWORD miscStatus)
    : m_clsid(clsid),
      m_libid(libid),
      m_major(major),
      m_minor(minor),
      m_eventsIid(eventsIid),
      m_miscStatus(miscStatus)
{
    m_extent.cx = kDefaultExtent;
    m_extent.cy = kDefaultExtent;
}

COleControlBase::~COleControlBase()
{
    OleTeardown();
}

HRESULT COleControlBase::OleQueryInterface(REFIID riid, void** ppv)
{
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IOleObject)
        *ppv = static_cast<IOleObject*>(this);
    else if (riid == IID_IOleControl)
        *ppv = static_cast<IOleControl*>(this);
    else if (riid == IID_IOleWindow || riid == IID_IOleInPlaceObject)
        *ppv = static_cast<IOleInPlaceObject*>(this);
    else if (riid == IID_IOleInPlaceActiveObject)
        *ppv = static_cast<IOleInPlaceActiveObject*>(this);
    else if (riid == IID_IViewObject || riid == IID_IViewObject2)
        *ppv = static_cast<IViewObject2*>(this);
    else if (riid == IID_IPersist || riid == IID_IPersistStreamInit)
        *ppv = static_cast<IPersistStreamInit*>(this);
    else if (riid == IID_IPersistPropertyBag)
        *ppv = static_cast<IPersistPropertyBag*>(this);
    else if (riid == IID_IPersistStorage)
        *ppv = static_cast<IPersistStorage*>(this);
    else if (riid == IID_IQuickActivate)
        *ppv = static_cast<IQuickActivate*>(this);
    else if (riid == IID_IProvideClassInfo || riid == IID_IProvideClassInfo2)
        *ppv = static_cast<IProvideClassInfo2*>(this);
    else if (riid == IID_IDataObject)
        *ppv = static_cast<IDataObject*>(this);
    else
        return E_NOINTERFACE;
    static_cast<IUnknown*>(*ppv)->AddRef();
    return S_OK;
}

void COleControlBase::OleTeardown()
{
    if (m_inPlaceActive)
        InPlaceDeactivate();
    if (m_hwnd != nullptr) {
        SetWindowLongPtrW(m_hwnd, GWLP_USERDATA, 0);
        DestroyWindow(m_hwnd);
        m_hwnd = nullptr;
    }
    ReleaseAndNull(m_pInPlaceSite);
    ReleaseAndNull(m_pClientSite);
    ReleaseAndNull(m_pViewSink);
    ReleaseAndNull(m_pOleAdviseHolder);
    ReleaseAndNull(m_pDataAdviseHolder);
}

// ---------------------------------------------------------------------------
// Drawing

void COleControlBase::DrawPicture(HDC hdc, const RECT& rc)
{
    HGDIOBJ oldBrush = SelectObject(hdc, GetStockObject(WHITE_BRUSH));
    HGDIOBJ oldPen = SelectObject(hdc, GetStockObject(BLACK_PEN));
    Rectangle(hdc, rc.left, rc.top, rc.right, rc.bottom);
    SelectObject(hdc, oldPen);
    SelectObject(hdc, oldBrush);

    int oldMode = SetBkMode(hdc, TRANSPARENT);
    COLORREF oldColor = SetTextColor(hdc, RGB(0, 0, 0));
    RECT text = rc;
    DrawTextW(hdc, kLabel, -1, &text, DT_CENTER | DT_VCENTER | DT_SINGLELINE);
    SetTextColor(hdc, oldColor);
    SetBkMode(hdc, oldMode);
}

LRESULT CALLBACK COleControlBase::WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case WM_PAINT: {
        PAINTSTRUCT ps;
        HDC hdc = BeginPaint(hwnd, &ps);
        RECT rc;
        GetClientRect(hwnd, &rc);
        DrawPicture(hdc, rc);
        EndPaint(hwnd, &ps);
        return 0;
    }
    case WM_ERASEBKGND:
        return 1;
    default:
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    }
}

HRESULT COleControlBase::CreateControlWindow(HWND parent, const RECT& pos)
{
    HINSTANCE instance = BrennockModule::Instance();
    WNDCLASSW existing;
    if (!::GetClassInfoW(instance, kWindowClass, &existing)) {
        WNDCLASSW wc = {};
        wc.lpfnWndProc = WindowProc;
        wc.hInstance = instance;
        wc.hCursor = LoadCursorW(nullptr, reinterpret_cast<LPCWSTR>(IDC_ARROW));
        wc.lpszClassName = kWindowClass;
        if (RegisterClassW(&wc) == 0 && GetLastError() != ERROR_CLASS_ALREADY_EXISTS)
            return HRESULT_FROM_WIN32(GetLastError());
    }
    m_hwnd = CreateWindowExW(0, kWindowClass, L"", WS_CHILD | WS_VISIBLE | WS_CLIPSIBLINGS,
                             pos.left, pos.top, pos.right - pos.left, pos.bottom - pos.top, parent,
                             nullptr, instance, nullptr);
    if (m_hwnd == nullptr)
        return HRESULT_FROM_WIN32(GetLastError());
    SetWindowLongPtrW(m_hwnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    return S_OK;
}

void COleControlBase::SendViewChange()
{
    if (m_pViewSink != nullptr)
        m_pViewSink->OnViewChange(DVASPECT_CONTENT, -1);
    if (m_pViewSink != nullptr && (m_viewFlags & ADVF_ONLYONCE) != 0)
        ReleaseAndNull(m_pViewSink);
}

// ---------------------------------------------------------------------------
// IOleObject

STDMETHODIMP COleControlBase::SetClientSite(IOleClientSite* site)
{
    if (site != nullptr)
        site->AddRef();
    ReleaseAndNull(m_pClientSite);
    m_pClientSite = site;
    return S_OK;
}

STDMETHODIMP COleControlBase::GetClientSite(IOleClientSite** ppSite)
{
    if (ppSite == nullptr)
        return E_POINTER;
    *ppSite = m_pClientSite;
    if (m_pClientSite != nullptr)
        m_pClientSite->AddRef();
    return S_OK;
}

STDMETHODIMP COleControlBase::SetHostNames(LPCOLESTR, LPCOLESTR)
{
    return S_OK;
}

STDMETHODIMP COleControlBase::Close(DWORD saveOption)
{
    if (m_inPlaceActive)
        InPlaceDeactivate();
    if (m_dirty && m_pClientSite != nullptr &&
        (saveOption == OLECLOSE_SAVEIFDIRTY || saveOption == OLECLOSE_PROMPTSAVE)) {
        m_pClientSite->SaveObject();
        if (m_pOleAdviseHolder != nullptr)
            m_pOleAdviseHolder->SendOnSave();
    }
    ReleaseAndNull(m_pInPlaceSite);
    if (m_pOleAdviseHolder != nullptr)
        m_pOleAdviseHolder->SendOnClose();
    return S_OK;
}

STDMETHODIMP COleControlBase::SetMoniker(DWORD, IMoniker*)
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::GetMoniker(DWORD, DWORD, IMoniker** ppmk)
{
    if (ppmk != nullptr)
        *ppmk = nullptr;
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::InitFromData(IDataObject*, BOOL, DWORD)
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::GetClipboardData(DWORD, IDataObject** ppData)
{
    if (ppData != nullptr)
        *ppData = nullptr;
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::DoVerb(LONG verb, LPMSG, IOleClientSite* site, LONG, HWND,
                                     LPCRECT posRect)
{
    if (site != nullptr && m_pClientSite == nullptr)
        SetClientSite(site);
    if (posRect != nullptr)
        m_pos = *posRect;

    switch (verb) {
    case OLEIVERB_PRIMARY:
    case OLEIVERB_SHOW:
    case OLEIVERB_INPLACEACTIVATE:
    case OLEIVERB_UIACTIVATE:
        return InPlaceActivate(verb);
    case OLEIVERB_HIDE:
        UIDeactivate();
        if (m_hwnd != nullptr)
            ShowWindow(m_hwnd, SW_HIDE);
        return S_OK;
    case OLEIVERB_OPEN:
    case OLEIVERB_DISCARDUNDOSTATE:
        return S_OK;
    default:
        return verb > 0 ? OLEOBJ_S_INVALIDVERB : E_NOTIMPL;
    }
}

HRESULT COleControlBase::InPlaceActivate(LONG verb)
{
    if (m_pClientSite == nullptr)
        return E_UNEXPECTED;

    if (!m_inPlaceActive) {
        if (m_pInPlaceSite == nullptr &&
            FAILED(m_pClientSite->QueryInterface(IID_IOleInPlaceSite,
                                                 reinterpret_cast<void**>(&m_pInPlaceSite))))
            return E_FAIL;
        if (m_pInPlaceSite->CanInPlaceActivate() != S_OK)
            return E_FAIL;
        m_pInPlaceSite->OnInPlaceActivate();
        m_inPlaceActive = true;

        HWND parent = nullptr;
        m_pInPlaceSite->GetWindow(&parent);

        IOleInPlaceFrame* frame = nullptr;
        IOleInPlaceUIWindow* doc = nullptr;
        RECT pos = m_pos;
        RECT clip = m_pos;
        OLEINPLACEFRAMEINFO frameInfo = {};
        frameInfo.cb = sizeof(frameInfo);
        if (SUCCEEDED(m_pInPlaceSite->GetWindowContext(&frame, &doc, &pos, &clip, &frameInfo)))
            m_pos = pos;
        if (frame != nullptr)
            frame->Release();
        if (doc != nullptr)
            doc->Release();

        if (m_hwnd == nullptr) {
            HRESULT hr = CreateControlWindow(parent, m_pos);
            if (FAILED(hr)) {
                m_inPlaceActive = false;
                m_pInPlaceSite->OnInPlaceDeactivate();
                return hr;
            }
        } else {
            SetParent(m_hwnd, parent);
            MoveWindow(m_hwnd, m_pos.left, m_pos.top, m_pos.right - m_pos.left,
                       m_pos.bottom - m_pos.top, TRUE);
        }
    }
    if (m_hwnd != nullptr)
        ShowWindow(m_hwnd, SW_SHOW);

    if ((verb == OLEIVERB_PRIMARY || verb == OLEIVERB_UIACTIVATE) && !m_uiActive) {
        m_uiActive = true;
        m_pInPlaceSite->OnUIActivate();
        IOleInPlaceFrame* frame = nullptr;
        IOleInPlaceUIWindow* doc = nullptr;
        RECT pos, clip;
        OLEINPLACEFRAMEINFO frameInfo = {};
        frameInfo.cb = sizeof(frameInfo);
        if (SUCCEEDED(m_pInPlaceSite->GetWindowContext(&frame, &doc, &pos, &clip, &frameInfo))) {
            if (frame != nullptr) {
                frame->SetActiveObject(static_cast<IOleInPlaceActiveObject*>(this), nullptr);
                frame->Release();
            }
            if (doc != nullptr) {
                doc->SetActiveObject(static_cast<IOleInPlaceActiveObject*>(this), nullptr);
                doc->Release();
            }
        }
    }
    return S_OK;
}

STDMETHODIMP COleControlBase::EnumVerbs(IEnumOLEVERB** ppEnum)
{
    if (ppEnum == nullptr)
        return E_POINTER;
    return OleRegEnumVerbs(m_clsid, ppEnum);
}

STDMETHODIMP COleControlBase::Update()
{
    return S_OK;
}

STDMETHODIMP COleControlBase::IsUpToDate()
{
    return S_OK;
}

STDMETHODIMP COleControlBase::GetUserClassID(CLSID* pClsid)
{
    if (pClsid == nullptr)
        return E_POINTER;
    *pClsid = m_clsid;
    return S_OK;
}

STDMETHODIMP COleControlBase::GetUserType(DWORD form, LPOLESTR* pszUserType)
{
    if (pszUserType == nullptr)
        return E_POINTER;
    return OleRegGetUserType(m_clsid, form, pszUserType);
}

STDMETHODIMP COleControlBase::SetExtent(DWORD aspect, SIZEL* size)
{
    if (aspect != DVASPECT_CONTENT)
        return DV_E_DVASPECT;
    if (size == nullptr)
        return E_POINTER;
    if (size->cx != m_extent.cx || size->cy != m_extent.cy) {
        m_extent = *size;
        m_dirty = true;
        SendViewChange();
    }
    return S_OK;
}

STDMETHODIMP COleControlBase::GetExtent(DWORD aspect, SIZEL* size)
{
    if (aspect != DVASPECT_CONTENT)
        return E_FAIL;
    if (size == nullptr)
        return E_POINTER;
    *size = m_extent;
    return S_OK;
}

STDMETHODIMP COleControlBase::Advise(IAdviseSink* sink, DWORD* cookie)
{
    if (cookie == nullptr)
        return E_POINTER;
    *cookie = 0;
    if (m_pOleAdviseHolder == nullptr && FAILED(CreateOleAdviseHolder(&m_pOleAdviseHolder)))
        return E_OUTOFMEMORY;
    return m_pOleAdviseHolder->Advise(sink, cookie);
}

STDMETHODIMP COleControlBase::Unadvise(DWORD cookie)
{
    if (m_pOleAdviseHolder == nullptr)
        return OLE_E_NOCONNECTION;
    return m_pOleAdviseHolder->Unadvise(cookie);
}

STDMETHODIMP COleControlBase::EnumAdvise(IEnumSTATDATA** ppEnum)
{
    if (ppEnum == nullptr)
        return E_POINTER;
    *ppEnum = nullptr;
    if (m_pOleAdviseHolder == nullptr)
        return S_FALSE;
    return m_pOleAdviseHolder->EnumAdvise(ppEnum);
}

STDMETHODIMP COleControlBase::GetMiscStatus(DWORD, DWORD* status)
{
    if (status == nullptr)
        return E_POINTER;
    *status = m_miscStatus;
    return S_OK;
}

STDMETHODIMP COleControlBase::SetColorScheme(LOGPALETTE*)
{
    return E_NOTIMPL;
}

// ---------------------------------------------------------------------------
// IOleControl

STDMETHODIMP COleControlBase::GetControlInfo(CONTROLINFO* info)
{
    if (info == nullptr)
        return E_POINTER;
    // No mnemonics: the control takes no keyboard input.
    info->cb = sizeof(CONTROLINFO);
    info->hAccel = nullptr;
    info->cAccel = 0;
    info->dwFlags = 0;
    return S_OK;
}

STDMETHODIMP COleControlBase::OnMnemonic(MSG*)
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::OnAmbientPropertyChange(DISPID)
{
    return S_OK;
}

STDMETHODIMP COleControlBase::FreezeEvents(BOOL freeze)
{
    if (freeze)
        ++m_freezeEvents;
    else if (m_freezeEvents > 0)
        --m_freezeEvents;
    return S_OK;
}

// ---------------------------------------------------------------------------
// In-place activation

STDMETHODIMP COleControlBase::GetWindow(HWND* phwnd)
{
    if (phwnd == nullptr)
        return E_POINTER;
    *phwnd = m_hwnd;
    return m_hwnd != nullptr ? S_OK : E_FAIL;
}

STDMETHODIMP COleControlBase::ContextSensitiveHelp(BOOL)
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::InPlaceDeactivate()
{
    if (!m_inPlaceActive)
        return S_OK;
    UIDeactivate();
    m_inPlaceActive = false;
    if (m_hwnd != nullptr) {
        SetWindowLongPtrW(m_hwnd, GWLP_USERDATA, 0);
        DestroyWindow(m_hwnd);
        m_hwnd = nullptr;
    }
    if (m_pInPlaceSite != nullptr)
        m_pInPlaceSite->OnInPlaceDeactivate();
    return S_OK;
}

STDMETHODIMP COleControlBase::UIDeactivate()
{
    if (!m_uiActive)
        return S_OK;
    m_uiActive = false;
    if (m_pInPlaceSite != nullptr) {
        IOleInPlaceFrame* frame = nullptr;
        IOleInPlaceUIWindow* doc = nullptr;
        RECT pos, clip;
        OLEINPLACEFRAMEINFO frameInfo = {};
        frameInfo.cb = sizeof(frameInfo);
        if (SUCCEEDED(m_pInPlaceSite->GetWindowContext(&frame, &doc, &pos, &clip, &frameInfo))) {
            if (doc != nullptr) {
                doc->SetActiveObject(nullptr, nullptr);
                doc->Release();
            }
            if (frame != nullptr) {
                frame->SetActiveObject(nullptr, nullptr);
                frame->Release();
            }
        }
        m_pInPlaceSite->OnUIDeactivate(FALSE);
    }
    return S_OK;
}

STDMETHODIMP COleControlBase::SetObjectRects(LPCRECT posRect, LPCRECT)
{
    if (posRect == nullptr)
        return E_POINTER;
    m_pos = *posRect;
    if (m_hwnd != nullptr)
        MoveWindow(m_hwnd, m_pos.left, m_pos.top, m_pos.right - m_pos.left,
                   m_pos.bottom - m_pos.top, TRUE);
    return S_OK;
}

STDMETHODIMP COleControlBase::ReactivateAndUndo()
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::TranslateAccelerator(LPMSG)
{
    return S_FALSE;
}

STDMETHODIMP COleControlBase::OnFrameWindowActivate(BOOL)
{
    return S_OK;
}

STDMETHODIMP COleControlBase::OnDocWindowActivate(BOOL)
{
    return S_OK;
}

STDMETHODIMP COleControlBase::ResizeBorder(LPCRECT, IOleInPlaceUIWindow*, BOOL)
{
    return S_OK;
}

STDMETHODIMP COleControlBase::EnableModeless(BOOL)
{
    return S_OK;
}

// ---------------------------------------------------------------------------
// IViewObject2

STDMETHODIMP COleControlBase::Draw(DWORD aspect, LONG, void*, DVTARGETDEVICE*, HDC, HDC drawDC,
                                   LPCRECTL bounds, LPCRECTL, BOOL(STDMETHODCALLTYPE*)(ULONG_PTR),
                                   ULONG_PTR)
{
    if (aspect != DVASPECT_CONTENT)
        return DV_E_DVASPECT;
    if (drawDC == nullptr)
        return E_INVALIDARG;
    RECT rc;
    if (bounds != nullptr) {
        rc = {bounds->left, bounds->top, bounds->right, bounds->bottom};
    } else if (m_inPlaceActive) {
        rc = m_pos;
    } else {
        return E_INVALIDARG;
    }
    DrawPicture(drawDC, rc);
    return S_OK;
}

STDMETHODIMP COleControlBase::GetColorSet(DWORD, LONG, void*, DVTARGETDEVICE*, HDC,
                                          LOGPALETTE** colors)
{
    if (colors != nullptr)
        *colors = nullptr;
    return S_FALSE;  // any palette will do
}

STDMETHODIMP COleControlBase::Freeze(DWORD, LONG, void*, DWORD* freeze)
{
    if (freeze != nullptr)
        *freeze = 0;
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::Unfreeze(DWORD)
{
    return E_NOTIMPL;
}

STDMETHODIMP COleControlBase::SetAdvise(DWORD aspects, DWORD flags, IAdviseSink* sink)
{
    if (sink != nullptr)
        sink->AddRef();
    ReleaseAndNull(m_pViewSink);
    m_pViewSink = sink;
    m_viewAspects = aspects;
    m_viewFlags = flags;
    if (sink != nullptr && (flags & ADVF_PRIMEFIRST) != 0)
        SendViewChange();
    return S_OK;
}

STDMETHODIMP COleControlBase::GetAdvise(DWORD* aspects, DWORD* flags, IAdviseSink** ppSink)
{
    if (aspects != nullptr)
        *aspects = m_viewAspects;
    if (flags != nullptr)
        *flags = m_viewFlags;
    if (ppSink != nullptr) {
        *ppSink = m_pViewSink;
        if (m_pViewSink != nullptr)
            m_pViewSink->AddRef();
    }
    return S_OK;
}

STDMETHODIMP COleControlBase::GetExtent(DWORD aspect, LONG, DVTARGETDEVICE*, LPSIZEL size)
{
    return GetExtent(aspect, size);
}
