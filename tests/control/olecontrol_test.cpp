// The control as a container sees it: sited, activated in place inside a
// window of the container's, drawn, persisted, quick-activated.
#include <gtest/gtest.h>

#include <olectl.h>

#include <cstdlib>

#include "tests/support/ControlTestKit.h"

namespace {

// A minimal in-place container: one hidden top-level window that the control
// becomes a child of, and a site that lets it activate.
class TestSite final : public IOleClientSite, public IOleInPlaceSite
{
public:
    explicit TestSite(HWND window) : m_window(window) {}

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (riid == IID_IUnknown || riid == IID_IOleClientSite)
            *ppv = static_cast<IOleClientSite*>(this);
        else if (riid == IID_IOleWindow || riid == IID_IOleInPlaceSite)
            *ppv = static_cast<IOleInPlaceSite*>(this);
        else {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return InterlockedIncrement(&refs); }
    STDMETHODIMP_(ULONG) Release() override { return InterlockedDecrement(&refs); }

    // IOleClientSite
    STDMETHODIMP SaveObject() override { return S_OK; }
    STDMETHODIMP GetMoniker(DWORD, DWORD, IMoniker** ppmk) override
    {
        *ppmk = nullptr;
        return E_NOTIMPL;
    }
    STDMETHODIMP GetContainer(IOleContainer** pp) override
    {
        *pp = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP ShowObject() override { return S_OK; }
    STDMETHODIMP OnShowWindow(BOOL) override { return S_OK; }
    STDMETHODIMP RequestNewObjectLayout() override { return E_NOTIMPL; }

    // IOleInPlaceSite
    STDMETHODIMP GetWindow(HWND* phwnd) override
    {
        *phwnd = m_window;
        return S_OK;
    }
    STDMETHODIMP ContextSensitiveHelp(BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP CanInPlaceActivate() override { return S_OK; }
    STDMETHODIMP OnInPlaceActivate() override
    {
        ++inPlaceActivations;
        return S_OK;
    }
    STDMETHODIMP OnUIActivate() override
    {
        ++uiActivations;
        return S_OK;
    }
    STDMETHODIMP GetWindowContext(IOleInPlaceFrame** frame, IOleInPlaceUIWindow** doc,
                                  LPRECT pos, LPRECT clip, LPOLEINPLACEFRAMEINFO) override
    {
        *frame = nullptr;
        *doc = nullptr;
        *pos = kPos;
        *clip = kPos;
        return S_OK;
    }
    STDMETHODIMP Scroll(SIZE) override { return E_NOTIMPL; }
    STDMETHODIMP OnUIDeactivate(BOOL) override { return S_OK; }
    STDMETHODIMP OnInPlaceDeactivate() override
    {
        ++inPlaceDeactivations;
        return S_OK;
    }
    STDMETHODIMP DiscardUndoState() override { return S_OK; }
    STDMETHODIMP DeactivateAndUndo() override { return S_OK; }
    STDMETHODIMP OnPosRectChange(LPCRECT) override { return S_OK; }

    static constexpr RECT kPos = {10, 20, 210, 80};
    LONG refs = 1;
    int inPlaceActivations = 0;
    int inPlaceDeactivations = 0;
    int uiActivations = 0;

private:
    HWND m_window;
};

HWND CreateContainerWindow()
{
    WNDCLASSW wc = {};
    wc.lpfnWndProc = DefWindowProcW;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = L"BrennockTestContainer";
    RegisterClassW(&wc);
    return CreateWindowExW(0, wc.lpszClassName, L"container", WS_OVERLAPPEDWINDOW, 0, 0, 400, 300,
                           nullptr, nullptr, wc.hInstance, nullptr);
}

// Draws through IViewObject into a 32-bit DIB and hands back its pixels.
struct Picture
{
    int width = 0, height = 0;
    std::vector<DWORD> pixels;
    DWORD At(int x, int y) const { return pixels[size_t(y) * width + x] & 0xFFFFFF; }
    int DarkPixelsIn(int x0, int y0, int x1, int y1) const
    {
        int n = 0;
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x)
                n += (At(x, y) != 0xFFFFFF);
        return n;
    }
};

Picture Draw(IViewObject* view, int width, int height)
{
    Picture pic;
    pic.width = width;
    pic.height = height;
    BITMAPINFO bi = {};
    bi.bmiHeader.biSize = sizeof(bi.bmiHeader);
    bi.bmiHeader.biWidth = width;
    bi.bmiHeader.biHeight = -height;
    bi.bmiHeader.biPlanes = 1;
    bi.bmiHeader.biBitCount = 32;
    void* bits = nullptr;
    HDC dc = CreateCompatibleDC(nullptr);
    HBITMAP bmp = CreateDIBSection(dc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
    HGDIOBJ old = SelectObject(dc, bmp);
    // Start from grey so that what the control paints shows.
    RECT all = {0, 0, width, height};
    HBRUSH grey = CreateSolidBrush(RGB(128, 128, 128));
    FillRect(dc, &all, grey);
    DeleteObject(grey);
    RECTL bounds = {0, 0, width, height};
    EXPECT_EQ(view->Draw(DVASPECT_CONTENT, -1, nullptr, nullptr, nullptr, dc, &bounds, nullptr,
                         nullptr, 0),
              S_OK);
    GdiFlush();
    const DWORD* p = static_cast<const DWORD*>(bits);
    pic.pixels.assign(p, p + size_t(width) * height);
    SelectObject(dc, old);
    DeleteObject(bmp);
    DeleteDC(dc);
    return pic;
}

class OleControlTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_HRESULT_SUCCEEDED(com.Result());
        control = CreateRegisteredControl();
        ASSERT_TRUE(control);
    }
    template <class I>
    ComPtr<I> As()
    {
        ComPtr<I> p;
        EXPECT_HRESULT_SUCCEEDED(control.As(&p));
        return p;
    }
    ComApartment com;
    ComPtr<IBrennock> control;
};

TEST_F(OleControlTest, DrawsItsLabelCentredOnWhite)
{
    Picture pic = Draw(As<IViewObject>().Get(), 200, 60);
    // A white rectangle over the whole bounds (with its frame) ...
    EXPECT_EQ(pic.At(0, 0), 0x000000u);
    EXPECT_EQ(pic.At(3, 3), 0xFFFFFFu);
    EXPECT_EQ(pic.At(196, 56), 0xFFFFFFu);
    EXPECT_EQ(pic.DarkPixelsIn(2, 2, 198, 58) > 0, true);
    // ... and the label on one line through the middle, away from the edges.
    EXPECT_GT(pic.DarkPixelsIn(40, 20, 160, 40), 20);
    EXPECT_EQ(pic.DarkPixelsIn(2, 2, 198, 12), 0);
    EXPECT_EQ(pic.DarkPixelsIn(2, 48, 198, 58), 0);
    EXPECT_EQ(pic.DarkPixelsIn(2, 2, 20, 58), 0);
    EXPECT_EQ(pic.DarkPixelsIn(180, 2, 198, 58), 0);
    // Balanced left and right of the centre.
    int left = pic.DarkPixelsIn(2, 2, 100, 58), right = pic.DarkPixelsIn(100, 2, 198, 58);
    EXPECT_LT(std::abs(left - right), (left + right) / 3);
}

TEST_F(OleControlTest, SitesActivatesInPlaceAndDeactivates)
{
    HWND container = CreateContainerWindow();
    ASSERT_NE(container, nullptr);
    TestSite site(container);
    auto ole = As<IOleObject>();

    DWORD status = 0;
    EXPECT_EQ(ole->GetMiscStatus(DVASPECT_CONTENT, &status), S_OK);
    EXPECT_EQ(status, 131473u);

    ASSERT_EQ(ole->SetClientSite(&site), S_OK);
    ComPtr<IOleClientSite> back;
    ole->GetClientSite(back.GetAddressOf());
    EXPECT_EQ(back.Get(), static_cast<IOleClientSite*>(&site));
    back.Reset();

    RECT pos = TestSite::kPos;
    ASSERT_EQ(ole->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, &site, 0, container, &pos), S_OK);
    EXPECT_EQ(site.inPlaceActivations, 1);
    EXPECT_EQ(site.uiActivations, 0);

    HWND child = nullptr;
    ASSERT_EQ(As<IOleInPlaceObject>()->GetWindow(&child), S_OK);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(GetParent(child), container);
    RECT rc;
    GetWindowRect(child, &rc);
    MapWindowPoints(nullptr, container, reinterpret_cast<POINT*>(&rc), 2);
    EXPECT_EQ(rc.right - rc.left, 200);
    EXPECT_EQ(rc.bottom - rc.top, 60);

    // Moving it follows the container's rectangles.
    RECT moved = {0, 0, 120, 40};
    EXPECT_EQ(As<IOleInPlaceObject>()->SetObjectRects(&moved, &moved), S_OK);
    GetClientRect(child, &rc);
    EXPECT_EQ(rc.right, 120);
    EXPECT_EQ(rc.bottom, 40);

    // The primary verb also activates the user interface.
    EXPECT_EQ(ole->DoVerb(OLEIVERB_PRIMARY, nullptr, &site, 0, container, &pos), S_OK);
    EXPECT_EQ(site.uiActivations, 1);
    EXPECT_EQ(site.inPlaceActivations, 1);

    EXPECT_EQ(As<IOleInPlaceObject>()->InPlaceDeactivate(), S_OK);
    EXPECT_EQ(site.inPlaceDeactivations, 1);
    EXPECT_FALSE(IsWindow(child));
    EXPECT_EQ(As<IOleInPlaceObject>()->GetWindow(&child), E_FAIL);

    EXPECT_EQ(ole->Close(OLECLOSE_NOSAVE), S_OK);
    EXPECT_EQ(ole->SetClientSite(nullptr), S_OK);
    EXPECT_EQ(site.refs, 1);
    DestroyWindow(container);
}

TEST_F(OleControlTest, FinalReleaseLetsGoOfAnActiveSite)
{
    HWND container = CreateContainerWindow();
    TestSite site(container);
    {
        auto ole = As<IOleObject>();
        ole->SetClientSite(&site);
        RECT pos = TestSite::kPos;
        ASSERT_EQ(ole->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, &site, 0, container, &pos), S_OK);
    }
    control.Reset();
    EXPECT_EQ(site.refs, 1);
    EXPECT_EQ(site.inPlaceDeactivations, 1);
    DestroyWindow(container);
}

TEST_F(OleControlTest, PersistsItsExtent)
{
    auto ole = As<IOleObject>();
    SIZEL size = {5000, 1200};
    ASSERT_EQ(ole->SetExtent(DVASPECT_CONTENT, &size), S_OK);
    auto persist = As<IPersistStreamInit>();
    EXPECT_EQ(persist->IsDirty(), S_OK);

    ComPtr<IStream> stream;
    ASSERT_HRESULT_SUCCEEDED(CreateStreamOnHGlobal(nullptr, TRUE, stream.GetAddressOf()));
    ASSERT_EQ(persist->Save(stream.Get(), TRUE), S_OK);
    EXPECT_EQ(persist->IsDirty(), S_FALSE);
    CLSID clsid;
    EXPECT_EQ(persist->GetClassID(&clsid), S_OK);
    EXPECT_EQ(clsid, CLSID_Brennock);

    // A fresh control loads it back.
    ComPtr<IBrennock> other = CreateRegisteredControl();
    ComPtr<IPersistStreamInit> otherPersist;
    ASSERT_HRESULT_SUCCEEDED(other.As(&otherPersist));
    LARGE_INTEGER zero = {};
    stream->Seek(zero, STREAM_SEEK_SET, nullptr);
    ASSERT_EQ(otherPersist->Load(stream.Get()), S_OK);
    ComPtr<IOleObject> otherOle;
    other.As(&otherOle);
    SIZEL got = {};
    otherOle->GetExtent(DVASPECT_CONTENT, &got);
    EXPECT_EQ(got.cx, 5000);
    EXPECT_EQ(got.cy, 1200);

    // A stream that is not ours is refused and changes nothing.
    ComPtr<IStream> junk;
    CreateStreamOnHGlobal(nullptr, TRUE, junk.GetAddressOf());
    junk->Write("junkjunkjunk", 12, nullptr);
    junk->Seek(zero, STREAM_SEEK_SET, nullptr);
    EXPECT_TRUE(FAILED(otherPersist->Load(junk.Get())));
    otherOle->GetExtent(DVASPECT_CONTENT, &got);
    EXPECT_EQ(got.cx, 5000);
}

TEST_F(OleControlTest, QuickActivationAdvisesTheContainersEventSink)
{
    // The control built into this program, so that an event can be raised.
    control = CreateLocalControl();
    RecordingSink sink;
    QACONTAINER qc = {};
    qc.cbSize = sizeof(qc);
    qc.pUnkEventSink = &sink;
    QACONTROL qa = {};
    qa.cbSize = sizeof(qa);
    ASSERT_EQ(As<IQuickActivate>()->QuickActivate(&qc, &qa), S_OK);
    EXPECT_EQ(qa.dwMiscStatus, 131473u);
    ASSERT_NE(qa.dwEventCookie, 0u);

    AsControl(control.Get())->LidMoved(true);
    ASSERT_EQ(sink.events.size(), 1u);
    EXPECT_EQ(sink.events[0].id, 22);

    UnadviseSink(control.Get(), qa.dwEventCookie);
    EXPECT_EQ(sink.refs, 1);
}

TEST_F(OleControlTest, ClassInfoNamesTheCoclassAndItsEvents)
{
    auto info = As<IProvideClassInfo2>();
    GUID events;
    ASSERT_EQ(info->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &events), S_OK);
    EXPECT_EQ(events, DIID__IBrennockEvents);
    ComPtr<ITypeInfo> cls;
    ASSERT_EQ(info->GetClassInfo(cls.GetAddressOf()), S_OK);
    TYPEATTR* ta = nullptr;
    cls->GetTypeAttr(&ta);
    EXPECT_EQ(ta->typekind, TKIND_COCLASS);
    EXPECT_EQ(ta->guid, CLSID_Brennock);
    cls->ReleaseTypeAttr(ta);
}

TEST_F(OleControlTest, HandsOutItsPictureAsAMetafile)
{
    auto data = As<IDataObject>();
    FORMATETC fe = {CF_METAFILEPICT, nullptr, DVASPECT_CONTENT, -1, TYMED_MFPICT};
    EXPECT_EQ(data->QueryGetData(&fe), S_OK);
    STGMEDIUM medium = {};
    ASSERT_EQ(data->GetData(&fe, &medium), S_OK);
    EXPECT_EQ(medium.tymed, static_cast<DWORD>(TYMED_MFPICT));
    auto* pict = static_cast<METAFILEPICT*>(GlobalLock(medium.hMetaFilePict));
    ASSERT_NE(pict, nullptr);
    EXPECT_EQ(pict->mm, MM_ANISOTROPIC);
    EXPECT_EQ(pict->xExt, 2540);
    EXPECT_GT(GetMetaFileBitsEx(pict->hMF, 0, nullptr), 0u);
    GlobalUnlock(medium.hMetaFilePict);
    ReleaseStgMedium(&medium);

    FORMATETC text = {CF_TEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    EXPECT_EQ(data->QueryGetData(&text), DV_E_FORMATETC);
}

}  // namespace
