// The control as an in-place container sees it.
#include <gtest/gtest.h>

#include <olectl.h>

#include <algorithm>
#include <utility>

#include "tests/support/ControlTestKit.h"

namespace {

// A minimal in-place container: one hidden top-level window that the control
// becomes a child of, and a site that lets it activate and counts what it hears.
class TestSite final : public IOleClientSite, public IOleInPlaceSite
{
public:
    explicit TestSite(HWND window) : m_window(window) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        *ppv = riid == IID_IUnknown || riid == IID_IOleClientSite       ? static_cast<void*>(static_cast<IOleClientSite*>(this))
               : riid == IID_IOleWindow || riid == IID_IOleInPlaceSite ? static_cast<void*>(static_cast<IOleInPlaceSite*>(this))
                                                                        : nullptr;
        return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return InterlockedIncrement(&refs); }
    STDMETHODIMP_(ULONG) Release() override { return InterlockedDecrement(&refs); }
    STDMETHODIMP SaveObject() override { return S_OK; }
    STDMETHODIMP GetMoniker(DWORD, DWORD, IMoniker** p) override { return *p = nullptr, E_NOTIMPL; }
    STDMETHODIMP GetContainer(IOleContainer** p) override { return *p = nullptr, E_NOINTERFACE; }
    STDMETHODIMP ShowObject() override { return S_OK; }
    STDMETHODIMP OnShowWindow(BOOL) override { return S_OK; }
    STDMETHODIMP RequestNewObjectLayout() override { return E_NOTIMPL; }
    STDMETHODIMP GetWindow(HWND* phwnd) override { return *phwnd = m_window, S_OK; }
    STDMETHODIMP ContextSensitiveHelp(BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP CanInPlaceActivate() override { return S_OK; }
    STDMETHODIMP OnInPlaceActivate() override { return ++inPlaceActivations, S_OK; }
    STDMETHODIMP OnUIActivate() override { return ++uiActivations, S_OK; }
    STDMETHODIMP GetWindowContext(IOleInPlaceFrame** frame, IOleInPlaceUIWindow** doc, LPRECT pos, LPRECT clip,
                                  LPOLEINPLACEFRAMEINFO) override
    {
        return *frame = nullptr, *doc = nullptr, *pos = *clip = kPos, S_OK;
    }
    STDMETHODIMP Scroll(SIZE) override { return E_NOTIMPL; }
    STDMETHODIMP OnUIDeactivate(BOOL) override { return S_OK; }
    STDMETHODIMP OnInPlaceDeactivate() override { return ++inPlaceDeactivations, S_OK; }
    STDMETHODIMP DiscardUndoState() override { return S_OK; }
    STDMETHODIMP DeactivateAndUndo() override { return S_OK; }
    STDMETHODIMP OnPosRectChange(LPCRECT) override { return S_OK; }

    static constexpr RECT kPos = {10, 20, 210, 80};
    LONG refs = 1;
    int inPlaceActivations = 0, inPlaceDeactivations = 0, uiActivations = 0;

private:
    HWND m_window;
};

HWND CreateContainerWindow()
{
    WNDCLASSW wc = {0, DefWindowProcW, 0, 0, GetModuleHandleW(nullptr), nullptr, nullptr, nullptr, nullptr,
                    L"BrennockTestContainer"};
    RegisterClassW(&wc);
    return CreateWindowExW(0, wc.lpszClassName, L"container", WS_OVERLAPPEDWINDOW, 0, 0, 400, 300, nullptr, nullptr,
                           wc.hInstance, nullptr);
}

class OleControlTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_NE((control = CreateRegisteredControl()).Get(), nullptr); }
    template <class I>
    ComPtr<I> As() { ComPtr<I> p; EXPECT_HRESULT_SUCCEEDED(control.As(&p)); return p; }
    ComApartment com;
    ComPtr<IBrennock> control;
};

// Misc status 131473: activate when visible, inside-out, set client site
// first, insertable, can link inside-out, recompose on resize.
constexpr DWORD kMiscStatus = 131473;

TEST_F(OleControlTest, DrawsItsLabelCentredOnWhiteAndGivesAMetafile)
{
    // Painted grey first, so that what the control paints shows.
    constexpr int W = 200, H = 60;
    BITMAPINFO bi = {{sizeof(BITMAPINFOHEADER), W, -H, 1, 32}};
    void* bits = nullptr;
    HDC dc = CreateCompatibleDC(nullptr);
    HGDIOBJ old = SelectObject(dc, CreateDIBSection(dc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0));
    DWORD* px = static_cast<DWORD*>(bits);
    std::fill_n(px, W * H, 0x808080u);
    RECTL bounds = {0, 0, W, H};
    ASSERT_EQ(As<IViewObject>()->Draw(DVASPECT_CONTENT, -1, nullptr, nullptr, nullptr, dc, &bounds, nullptr, nullptr, 0),
              S_OK);
    GdiFlush();
    auto dark = [px](int x0, int y0, int x1, int y1) {
        int n = 0;
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x)
                n += (px[y * W + x] & 0xFFFFFF) != 0xFFFFFF;
        return n;
    };
    // A framed white rectangle, the label on one line through the middle,
    // with white margins all round it.
    EXPECT_EQ(px[0] & 0xFFFFFF, 0u);
    EXPECT_GT(dark(40, 20, 160, 40), 20);
    EXPECT_EQ(dark(2, 2, 198, 12) + dark(2, 48, 198, 58) + dark(2, 2, 20, 58) + dark(180, 2, 198, 58), 0);
    DeleteObject(SelectObject(dc, old)), DeleteDC(dc);

    // At the extent (2540 HIMETRIC wide by default), and in no other format.
    FORMATETC fe = {CF_METAFILEPICT, nullptr, DVASPECT_CONTENT, -1, TYMED_MFPICT};
    FORMATETC text = {CF_TEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium = {};
    ASSERT_EQ(As<IDataObject>()->GetData(&fe, &medium), S_OK);
    auto* pict = static_cast<METAFILEPICT*>(GlobalLock(medium.hMetaFilePict));
    ASSERT_NE(pict, nullptr);
    EXPECT_EQ(std::make_pair(pict->mm, pict->xExt), std::make_pair(LONG(MM_ANISOTROPIC), 2540L));
    EXPECT_GT(GetMetaFileBitsEx(pict->hMF, 0, nullptr), 0u);
    GlobalUnlock(medium.hMetaFilePict);
    ReleaseStgMedium(&medium);
    EXPECT_EQ(As<IDataObject>()->QueryGetData(&text), DV_E_FORMATETC);
}

TEST_F(OleControlTest, SitesActivatesInPlaceAndDeactivatesAlsoOnTheFinalRelease)
{
    HWND container = CreateContainerWindow();
    TestSite site(container);
    auto ole = As<IOleObject>();
    auto inPlace = As<IOleInPlaceObject>();
    DWORD status = 0;
    EXPECT_EQ(ole->GetMiscStatus(DVASPECT_CONTENT, &status), S_OK);
    EXPECT_EQ(status, kMiscStatus);
    ASSERT_EQ(ole->SetClientSite(&site), S_OK);
    ComPtr<IOleClientSite> back;
    ole->GetClientSite(back.GetAddressOf());
    EXPECT_EQ(back.Get(), static_cast<IOleClientSite*>(&site));
    back.Reset();

    // In place: a child of the container's window at the site's rectangle,
    // following the rectangles it is given; the primary verb adds the UI.
    RECT pos = TestSite::kPos, rc;
    HWND child = nullptr;
    ASSERT_EQ(ole->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, &site, 0, container, &pos), S_OK);
    EXPECT_EQ(std::make_pair(site.inPlaceActivations, site.uiActivations), std::make_pair(1, 0));
    ASSERT_EQ(inPlace->GetWindow(&child), S_OK);
    EXPECT_EQ(GetParent(child), container);
    GetWindowRect(child, &rc);
    EXPECT_EQ(std::make_pair(rc.right - rc.left, rc.bottom - rc.top), std::make_pair(200L, 60L));
    RECT moved = {0, 0, 120, 40};
    EXPECT_EQ(inPlace->SetObjectRects(&moved, &moved), S_OK);
    GetClientRect(child, &rc);
    EXPECT_EQ(std::make_pair(rc.right, rc.bottom), std::make_pair(120L, 40L));
    EXPECT_EQ(ole->DoVerb(OLEIVERB_PRIMARY, nullptr, &site, 0, container, &pos), S_OK);
    EXPECT_EQ(std::make_pair(site.inPlaceActivations, site.uiActivations), std::make_pair(1, 1));

    EXPECT_EQ(inPlace->InPlaceDeactivate(), S_OK);
    EXPECT_EQ(site.inPlaceDeactivations, 1);
    EXPECT_FALSE(IsWindow(child));
    EXPECT_EQ(inPlace->GetWindow(&child), E_FAIL);
    EXPECT_EQ(ole->Close(OLECLOSE_NOSAVE), S_OK);
    EXPECT_EQ(ole->SetClientSite(nullptr), S_OK);
    EXPECT_EQ(site.refs, 1);

    // The final release of a control active in place deactivates it and lets go of the site.
    ole->SetClientSite(&site);
    ASSERT_EQ(ole->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, &site, 0, container, &pos), S_OK);
    ole.Reset(), inPlace.Reset(), control.Reset();
    EXPECT_EQ(std::make_pair(site.refs, site.inPlaceDeactivations), std::make_pair(1L, 2));
    DestroyWindow(container);
}

// The extent goes to a stream and back into a fresh control; a stream that is
// not ours is refused and changes nothing.
TEST_F(OleControlTest, PersistsItsExtent)
{
    SIZEL size = {5000, 1200}, got = {};
    ComPtr<IStream> stream, junk;
    ASSERT_EQ(As<IOleObject>()->SetExtent(DVASPECT_CONTENT, &size), S_OK);
    CreateStreamOnHGlobal(nullptr, TRUE, stream.GetAddressOf());
    ASSERT_EQ(As<IPersistStreamInit>()->Save(stream.Get(), TRUE), S_OK);
    CreateStreamOnHGlobal(nullptr, TRUE, junk.GetAddressOf());
    junk->Write("junkjunkjunk", 12, nullptr);
    control = CreateRegisteredControl();
    for (IStream* s : {stream.Get(), junk.Get()}) {
        LARGE_INTEGER zero = {};
        s->Seek(zero, STREAM_SEEK_SET, nullptr);
        EXPECT_EQ(SUCCEEDED(As<IPersistStreamInit>()->Load(s)), s == stream.Get());
        As<IOleObject>()->GetExtent(DVASPECT_CONTENT, &got);
        EXPECT_EQ(std::make_pair(got.cx, got.cy), std::make_pair(5000L, 1200L));
    }
}

TEST_F(OleControlTest, QuickActivationAdvisesTheContainersEventSink)
{
    control = CreateLocalControl();  // built in, so that an event can be raised
    RecordingSink sink;
    QACONTAINER qc = {sizeof(qc)};
    qc.pUnkEventSink = &sink;
    QACONTROL qa = {sizeof(qa)};
    ASSERT_EQ(As<IQuickActivate>()->QuickActivate(&qc, &qa), S_OK);
    EXPECT_EQ(qa.dwMiscStatus, kMiscStatus);
    ASSERT_NE(qa.dwEventCookie, 0u);
    AsControl(control.Get())->LidMoved(true);
    ASSERT_EQ(sink.events.size(), 1u);
    EXPECT_EQ(sink.events[0].id, 22);
    UnadviseSink(control.Get(), qa.dwEventCookie);
    EXPECT_EQ(sink.refs, 1);
    GUID events;
    ASSERT_EQ(As<IProvideClassInfo2>()->GetGUID(GUIDKIND_DEFAULT_SOURCE_DISP_IID, &events), S_OK);
    EXPECT_EQ(events, DIID__IBrennockEvents);
}

}  // namespace
