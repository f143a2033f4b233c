// The control's OLE bases: what a container needs to site the control,
// activate it in place, persist it and have it draw itself.
//
// The control has no user interface of its own (the device's screens are the
// script host's): when a container paints it, it draws a white rectangle over
// its bounds with "Brennock Control" centred on one line, and in-place
// activation gives it a child window that paints the same. It keeps no
// properties beyond its extent, which is what the persistence interfaces save.
//
// The derived class supplies the IUnknown of the object (QueryInterface,
// AddRef and Release are its own); this base answers QueryInterface for the
// OLE interfaces through OleQueryInterface, and advises a container's event
// sink (quick activation) through AdviseEventSink.
#pragma once

#include <windows.h>
#include <ocidl.h>
#include <oleidl.h>

class COleControlBase : public IOleObject,
                        public IOleControl,
                        public IOleInPlaceObject,
                        public IOleInPlaceActiveObject,
                        public IViewObject2,
                        public IPersistStreamInit,
                        public IPersistPropertyBag,
                        public IPersistStorage,
                        public IQuickActivate,
                        public IProvideClassInfo2,
                        public IDataObject
{
public:
    // The text the control draws, centred on white.
    static constexpr const wchar_t* kLabel = L"Brennock Control";
    // Default size of a newly sited control: 1 x 1 inch, in HIMETRIC.
    static constexpr LONG kDefaultExtent = 2540;

    // IOleObject
    STDMETHODIMP SetClientSite(IOleClientSite* site) override;
    STDMETHODIMP GetClientSite(IOleClientSite** ppSite) override;
    STDMETHODIMP SetHostNames(LPCOLESTR app, LPCOLESTR obj) override;
    STDMETHODIMP Close(DWORD saveOption) override;
    STDMETHODIMP SetMoniker(DWORD which, IMoniker* mk) override;
    STDMETHODIMP GetMoniker(DWORD assign, DWORD which, IMoniker** ppmk) override;
    STDMETHODIMP InitFromData(IDataObject* data, BOOL creation, DWORD reserved) override;
    STDMETHODIMP GetClipboardData(DWORD reserved, IDataObject** ppData) override;
    STDMETHODIMP DoVerb(LONG verb, LPMSG msg, IOleClientSite* site, LONG index, HWND parent,
                        LPCRECT posRect) override;
    STDMETHODIMP EnumVerbs(IEnumOLEVERB** ppEnum) override;
    STDMETHODIMP Update() override;
    STDMETHODIMP IsUpToDate() override;
    STDMETHODIMP GetUserClassID(CLSID* pClsid) override;
    STDMETHODIMP GetUserType(DWORD form, LPOLESTR* pszUserType) override;
    STDMETHODIMP SetExtent(DWORD aspect, SIZEL* size) override;
    STDMETHODIMP GetExtent(DWORD aspect, SIZEL* size) override;
    STDMETHODIMP Advise(IAdviseSink* sink, DWORD* cookie) override;
    STDMETHODIMP Unadvise(DWORD cookie) override;
    STDMETHODIMP EnumAdvise(IEnumSTATDATA** ppEnum) override;
    STDMETHODIMP GetMiscStatus(DWORD aspect, DWORD* status) override;
    STDMETHODIMP SetColorScheme(LOGPALETTE* pal) override;

    // IOleControl
    STDMETHODIMP GetControlInfo(CONTROLINFO* info) override;
    STDMETHODIMP OnMnemonic(MSG* msg) override;
    STDMETHODIMP OnAmbientPropertyChange(DISPID id) override;
    STDMETHODIMP FreezeEvents(BOOL freeze) override;

    // IOleWindow (shared by the two in-place interfaces)
    STDMETHODIMP GetWindow(HWND* phwnd) override;
    STDMETHODIMP ContextSensitiveHelp(BOOL enter) override;

    // IOleInPlaceObject
    STDMETHODIMP InPlaceDeactivate() override;
    STDMETHODIMP UIDeactivate() override;
    STDMETHODIMP SetObjectRects(LPCRECT posRect, LPCRECT clipRect) override;
    STDMETHODIMP ReactivateAndUndo() override;

    // IOleInPlaceActiveObject
    STDMETHODIMP TranslateAccelerator(LPMSG msg) override;
    STDMETHODIMP OnFrameWindowActivate(BOOL activate) override;
    STDMETHODIMP OnDocWindowActivate(BOOL activate) override;
    STDMETHODIMP ResizeBorder(LPCRECT border, IOleInPlaceUIWindow* ui, BOOL frame) override;
    STDMETHODIMP EnableModeless(BOOL enable) override;

    // IViewObject2
    STDMETHODIMP Draw(DWORD aspect, LONG index, void* aspectInfo, DVTARGETDEVICE* target,
                      HDC targetDC, HDC drawDC, LPCRECTL bounds, LPCRECTL wBounds,
                      BOOL(STDMETHODCALLTYPE* cont)(ULONG_PTR), ULONG_PTR contArg) override;
    STDMETHODIMP GetColorSet(DWORD aspect, LONG index, void* aspectInfo, DVTARGETDEVICE* target,
                             HDC targetDC, LOGPALETTE** colors) override;
    STDMETHODIMP Freeze(DWORD aspect, LONG index, void* aspectInfo, DWORD* freeze) override;
    STDMETHODIMP Unfreeze(DWORD freeze) override;
    STDMETHODIMP SetAdvise(DWORD aspects, DWORD flags, IAdviseSink* sink) override;
    STDMETHODIMP GetAdvise(DWORD* aspects, DWORD* flags, IAdviseSink** ppSink) override;
    STDMETHODIMP GetExtent(DWORD aspect, LONG index, DVTARGETDEVICE* target,
                           LPSIZEL size) override;

    // IPersist (shared by the three persistence interfaces)
    STDMETHODIMP GetClassID(CLSID* pClsid) override;

    // IPersistStreamInit
    STDMETHODIMP IsDirty() override;
    STDMETHODIMP Load(LPSTREAM stream) override;
    STDMETHODIMP Save(LPSTREAM stream, BOOL clearDirty) override;
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override;
    STDMETHODIMP InitNew() override;

    // IPersistPropertyBag
    STDMETHODIMP Load(IPropertyBag* bag, IErrorLog* log) override;
    STDMETHODIMP Save(IPropertyBag* bag, BOOL clearDirty, BOOL saveAll) override;

    // IPersistStorage
    STDMETHODIMP InitNew(IStorage* storage) override;
    STDMETHODIMP Load(IStorage* storage) override;
    STDMETHODIMP Save(IStorage* storage, BOOL sameAsLoad) override;
    STDMETHODIMP SaveCompleted(IStorage* storage) override;
    STDMETHODIMP HandsOffStorage() override;

    // IQuickActivate
    STDMETHODIMP QuickActivate(QACONTAINER* container, QACONTROL* control) override;
    STDMETHODIMP SetContentExtent(LPSIZEL size) override;
    STDMETHODIMP GetContentExtent(LPSIZEL size) override;

    // IProvideClassInfo2
    STDMETHODIMP GetClassInfo(ITypeInfo** ppTI) override;
    STDMETHODIMP GetGUID(DWORD kind, GUID* guid) override;

    // IDataObject: the control's picture as a metafile.
    STDMETHODIMP GetData(FORMATETC* format, STGMEDIUM* medium) override;
    STDMETHODIMP GetDataHere(FORMATETC* format, STGMEDIUM* medium) override;
    STDMETHODIMP QueryGetData(FORMATETC* format) override;
    STDMETHODIMP GetCanonicalFormatEtc(FORMATETC* in, FORMATETC* out) override;
    STDMETHODIMP SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release) override;
    STDMETHODIMP EnumFormatEtc(DWORD direction, IEnumFORMATETC** ppEnum) override;
    STDMETHODIMP DAdvise(FORMATETC* format, DWORD flags, IAdviseSink* sink,
                         DWORD* cookie) override;
    STDMETHODIMP DUnadvise(DWORD cookie) override;
    STDMETHODIMP EnumDAdvise(IEnumSTATDATA** ppEnum) override;

    // Draws the control's picture into rc of hdc.
    static void DrawPicture(HDC hdc, const RECT& rc);

protected:
    COleControlBase(REFCLSID clsid, REFGUID libid, WORD major, WORD minor, REFIID eventsIid,
                    DWORD miscStatus);
    virtual ~COleControlBase();

    // QueryInterface for the OLE interfaces; AddRefs what it hands out.
    HRESULT OleQueryInterface(REFIID riid, void** ppv);

    // Drops the site, the window and every advise sink (final release).
    void OleTeardown();

    // Connects a container's event sink to the control's events (quick activation).
    virtual HRESULT AdviseEventSink(IUnknown* sink, DWORD* cookie) = 0;

private:
    HRESULT InPlaceActivate(LONG verb);
    HRESULT CreateControlWindow(HWND parent, const RECT& pos);
    void SendViewChange();
    static LRESULT CALLBACK WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam);

    CLSID m_clsid;
    GUID m_libid;
    WORD m_major;
    WORD m_minor;
    IID m_eventsIid;
    DWORD m_miscStatus;

    IOleClientSite* m_pClientSite = nullptr;
    IOleInPlaceSite* m_pInPlaceSite = nullptr;
    IOleAdviseHolder* m_pOleAdviseHolder = nullptr;
    IDataAdviseHolder* m_pDataAdviseHolder = nullptr;
    IAdviseSink* m_pViewSink = nullptr;
    DWORD m_viewAspects = 0;
    DWORD m_viewFlags = 0;

    HWND m_hwnd = nullptr;
    bool m_inPlaceActive = false;
    bool m_uiActive = false;
    bool m_dirty = false;
    LONG m_freezeEvents = 0;
    SIZEL m_extent;  // HIMETRIC
    RECT m_pos = {};
};
