// Event delivery: every internal sink operation reaches advised sinks as the
// right dispatch id, with its arguments typed and in reverse order.
#include <gtest/gtest.h>

#include <olectl.h>

#include "tests/support/ControlTestKit.h"

namespace {

class EventsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        control = CreateLocalControl();
        ASSERT_TRUE(control);
        site = AsControl(control.Get());
    }
    ComApartment com;
    ComPtr<IBrennock> control;
    IManagerSite* site = nullptr;
};

struct Arg
{
    VARTYPE vt;
    double value;
};

// The parameters in declaration order; a sink receives them last first.
void ExpectEvent(const ReceivedEvent& e, DISPID id, const std::vector<Arg>& declared)
{
    SCOPED_TRACE(testing::Message() << "dispid " << id);
    ASSERT_EQ(e.id, id);
    ASSERT_EQ(e.args.size(), declared.size());
    for (size_t i = 0; i < declared.size(); ++i) {
        const VARIANT& v = e.args[declared.size() - 1 - i];
        const Arg& a = declared[i];
        EXPECT_EQ(v.vt, a.vt) << "parameter " << i;
        EXPECT_EQ(v.vt == VT_I2 ? v.iVal : v.vt == VT_I4 ? v.lVal : v.dblVal, a.value) << "parameter " << i;
    }
}

TEST_F(EventsTest, EverySinkOperationFiresItsEvent)
{
    using S = IManagerSite*;
    const struct
    {
        std::function<void(S)> fire;
        DISPID id;
        std::vector<Arg> args;
    } cases[] = {
        {[](S s) { s->GetGpioEventSink()->BlinkEnded(3); }, 1, {{VT_I2, -1}, {VT_I2, 3}}},
        {[](S s) { s->GetWatchEventSink()->WatchVisible(true); }, 2, {{VT_I2, 1}}},
        {[](S s) { s->GetHC08EventSink()->TimerGo(123456); }, 3, {{VT_I4, 123456}}},
        {[](S s) { s->GetHC08EventSink()->TimerRollover(); }, 4, {}},
        {[](S s) { s->GetHC08EventSink()->DigitoLeftDownward(10, -1); }, 5, {{VT_I4, 10}, {VT_I4, -1}}},
        {[](S s) { s->GetHC08EventSink()->DigitoLeftUpward(11, 2); }, 6, {{VT_I4, 11}, {VT_I4, 2}}},
        {[](S s) { s->GetHC08EventSink()->DigitoRightDownward(12, 3); }, 7, {{VT_I4, 12}, {VT_I4, 3}}},
        {[](S s) { s->GetHC08EventSink()->DigitoRightUpward(13, 70000); }, 8, {{VT_I4, 13}, {VT_I4, 70000}}},
        {[](S s) { s->GetHC08EventSink()->CapsitLeftDown(14); }, 9, {{VT_I4, 14}}},
        {[](S s) { s->GetHC08EventSink()->CapsitLeftUp(15); }, 10, {{VT_I4, 15}}},
        {[](S s) { s->GetHC08EventSink()->CapsitRightDown(16); }, 11, {{VT_I4, 16}}},
        {[](S s) { s->GetHC08EventSink()->CapsitRightUp(17); }, 12, {{VT_I4, 17}}},
        {[](S s) { s->GetHC08EventSink()->PegsMap(1000, 3, 2); }, 13, {{VT_I4, 1000}, {VT_I2, 3}, {VT_I2, 2}}},
        {[](S s) { s->GetTestManagerEventSink()->ActivityEnded(1, 7); }, 14, {{VT_I2, 1}, {VT_I2, 7}}},
        {[](S s) { s->GetWatchEventSink()->WatchSaveProgress(42); }, 15, {{VT_I2, 42}}},
        {[](S s) { s->GetWatchEventSink()->WatchSaveEnded(102); }, 16, {{VT_I2, 102}}},
        {[](S s) { s->GetWatchEventSink()->WatchDataDestroyEnded(103); }, 17, {{VT_I2, 103}}},
        {[](S s) { s->GetHC08EventSink()->HC08Reset(2, 17, 4, 1000, 0); }, 19,
         {{VT_I2, 2}, {VT_I2, 17}, {VT_I2, 4}, {VT_R8, 1000.0}, {VT_I2, 0}}},
        {[](S s) { s->GetAudioEventSink()->AudioPlayEnded(0); }, 20, {{VT_I2, 0}}},
        {[](S s) { s->GetGpioEventSink()->TimerEnded(103, 5); }, 21, {{VT_I2, 103}, {VT_I2, 5}}},
        {[](S s) { s->GetGpioEventSink()->LidMoved(false); }, 22, {{VT_I2, 0}}},
        {[](S s) { s->GetAudioEventSink()->AudioRecordEnded(103); }, 23, {{VT_I2, 103}}},
        {[](S s) { s->GetAudioEventSink()->AudioRecordProgress(-200, 9); }, 24, {{VT_I2, -200}, {VT_I2, 9}}},
        {[](S s) { s->GetTestManagerEventSink()->SessionEnded(103); }, 25, {{VT_I2, 103}}},
        {[](S s) { s->GetGpioEventSink()->DataStoreVisible(1); }, 26, {{VT_I2, 1}}},
        {[](S s) { s->GetWatchEventSink()->WatchParametersRead(102); }, 27, {{VT_I2, 102}}},
        {[](S s) { s->GetWatchEventSink()->WatchVisible(false); }, 2, {{VT_I2, 0}}},
        {[](S s) { s->GetGpioEventSink()->LidMoved(true); }, 22, {{VT_I2, 1}}},
    };
    RecordingSink sink;
    DWORD cookie = AdviseSink(control.Get(), &sink);
    ASSERT_NE(cookie, 0u);
    for (const auto& c : cases) {
        sink.events.clear();
        c.fire(site);
        ASSERT_EQ(sink.events.size(), 1u) << "dispid " << c.id;
        ExpectEvent(sink.events[0], c.id, c.args);
        // Only the events declared with a result ask for one; all are plain
        // method calls in the user default locale.
        EXPECT_EQ(sink.events[0].resultRequested, c.id >= 25 && c.id <= 27) << "dispid " << c.id;
        EXPECT_EQ(sink.lastFlags, DISPATCH_METHOD);
        EXPECT_EQ(sink.lastLcid, static_cast<LCID>(0x0400));
    }
    UnadviseSink(control.Get(), cookie);
}

TEST_F(EventsTest, ValueEventsHandBackTheLastSinksResult)
{
    site->GetTestManagerEventSink()->SessionEnded(0);  // no sink: nothing happens
    RecordingSink first, second;
    first.resultValue = 11;
    second.resultValue = 22;
    DWORD c1 = AdviseSink(control.Get(), &first);
    DWORD c2 = AdviseSink(control.Get(), &second);
    EXPECT_EQ(site->GetTestManagerEventSink()->SessionEnded(0), 22);
    EXPECT_EQ(site->GetGpioEventSink()->DataStoreVisible(1), 22);
    EXPECT_EQ(site->GetWatchEventSink()->WatchParametersRead(0), 22);
    UnadviseSink(control.Get(), c2);
    EXPECT_EQ(site->GetTestManagerEventSink()->SessionEnded(0), 11);
    UnadviseSink(control.Get(), c1);
}

TEST_F(EventsTest, SinksAreCalledInSlotOrderAndNewSinksTakeTheFirstFreeSlot)
{
    std::string calls;
    RecordingSink a, b, c;
    a.onEvent = [&](DISPID) { calls += 'a'; };
    b.onEvent = [&](DISPID) { calls += 'b'; };
    c.onEvent = [&](DISPID) { calls += 'c'; };
    DWORD ca = AdviseSink(control.Get(), &a);
    DWORD cb = AdviseSink(control.Get(), &b);
    EXPECT_NE(ca, cb);
    site->GetHC08EventSink()->TimerRollover();
    EXPECT_EQ(calls, "ab");

    UnadviseSink(control.Get(), ca);
    DWORD cc = AdviseSink(control.Get(), &c);
    EXPECT_EQ(cc, ca);
    site->GetHC08EventSink()->TimerRollover();
    EXPECT_EQ(calls, "abcb");

    UnadviseSink(control.Get(), cb);
    UnadviseSink(control.Get(), cc);
    EXPECT_EQ((std::vector<LONG>{a.refs, b.refs, c.refs}), (std::vector<LONG>{1, 1, 1}));
}

TEST_F(EventsTest, HandlersMayUnadviseAndAdviseWhileAnEventIsDelivered)
{
    RecordingSink first, second, late;
    DWORD c1 = AdviseSink(control.Get(), &first);
    DWORD c2 = AdviseSink(control.Get(), &second);
    DWORD c3 = 0;
    // The first handler removes itself and adds a sink, which takes the slot
    // already passed: the second sink is still called, the new one is not.
    first.onEvent = [&](DISPID) {
        UnadviseSink(control.Get(), c1);
        c3 = AdviseSink(control.Get(), &late);
    };
    site->GetGpioEventSink()->LidMoved(true);
    EXPECT_EQ(first.events.size(), 1u);
    EXPECT_EQ(second.events.size(), 1u);
    EXPECT_EQ(late.events.size(), 0u);
    site->GetGpioEventSink()->LidMoved(false);
    EXPECT_EQ(first.events.size(), 1u);
    EXPECT_EQ(second.events.size(), 2u);
    EXPECT_EQ(late.events.size(), 1u);

    // A handler that unadvises the sink after it: that slot is skipped.
    late.onEvent = [&](DISPID) { UnadviseSink(control.Get(), c2); };
    site->GetGpioEventSink()->LidMoved(true);
    EXPECT_EQ(second.events.size(), 2u);
    UnadviseSink(control.Get(), c3);
    EXPECT_EQ((std::vector<LONG>{first.refs, second.refs, late.refs}), (std::vector<LONG>{1, 1, 1}));
}

TEST_F(EventsTest, ConnectionPointFollowsTheStandardContract)
{
    ComPtr<IConnectionPointContainer> cpc;
    ASSERT_HRESULT_SUCCEEDED(control.As(&cpc));
    ComPtr<IConnectionPoint> cp;
    EXPECT_EQ(cpc->FindConnectionPoint(IID_IPropertyNotifySink, cp.GetAddressOf()), CONNECT_E_NOCONNECTION);
    ASSERT_HRESULT_SUCCEEDED(cpc->FindConnectionPoint(DIID__IBrennockEvents, cp.GetAddressOf()));
    IID iid;
    ASSERT_HRESULT_SUCCEEDED(cp->GetConnectionInterface(&iid));
    EXPECT_EQ(iid, DIID__IBrennockEvents);
    ComPtr<IConnectionPointContainer> back;
    ASSERT_HRESULT_SUCCEEDED(cp->GetConnectionPointContainer(back.GetAddressOf()));
    EXPECT_EQ(back.Get(), cpc.Get());

    ComPtr<IEnumConnectionPoints> points;
    ASSERT_HRESULT_SUCCEEDED(cpc->EnumConnectionPoints(points.GetAddressOf()));
    IConnectionPoint* got[2] = {};
    ULONG fetched = 0;
    EXPECT_EQ(points->Next(2, got, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 1u);
    EXPECT_EQ(got[0], cp.Get());
    got[0]->Release();

    RecordingSink stranger;  // does not speak the event interface
    stranger.answerEventsIid = false;
    DWORD cookie = 123;
    EXPECT_EQ(cp->Advise(&stranger, &cookie), CONNECT_E_CANNOTCONNECT);
    EXPECT_EQ(cookie, 0u);
    EXPECT_EQ(cp->Advise(nullptr, &cookie), E_POINTER);

    RecordingSink s1, s2;
    DWORD k1 = 0, k2 = 0;
    ASSERT_HRESULT_SUCCEEDED(cp->Advise(&s1, &k1));
    ASSERT_HRESULT_SUCCEEDED(cp->Advise(&s2, &k2));
    ComPtr<IEnumConnections> conns;
    ASSERT_HRESULT_SUCCEEDED(cp->EnumConnections(conns.GetAddressOf()));
    CONNECTDATA cd[3] = {};
    ASSERT_EQ(conns->Next(3, cd, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_EQ(cd[0].dwCookie, k1);
    EXPECT_EQ(cd[1].dwCookie, k2);
    cd[0].pUnk->Release();
    cd[1].pUnk->Release();
    conns.Reset();

    EXPECT_EQ(cp->Unadvise(k1), S_OK);
    for (DWORD bad : {k1, DWORD(0), DWORD(99)})
        EXPECT_EQ(cp->Unadvise(bad), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(cp->Unadvise(k2), S_OK);
    EXPECT_EQ((std::vector<LONG>{s1.refs, s2.refs}), (std::vector<LONG>{1, 1}));

    // Releasing the control releases the sinks still advised.
    RecordingSink sink;
    AdviseSink(control.Get(), &sink);
    EXPECT_GT(sink.refs, 1);
    cp.Reset();
    points.Reset();
    back.Reset();
    cpc.Reset();
    control.Reset();
    EXPECT_EQ(sink.refs, 1);
}

}  // namespace
