// Event delivery to advised sinks: dispatch ids, argument types, argument order.
#include <gtest/gtest.h>

#include <olectl.h>

#include "tests/support/ControlTestKit.h"

namespace {

class EventsTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_NE(site = AsControl((control = CreateLocalControl()).Get()), nullptr); }
    ComApartment com;
    ComPtr<IBrennock> control;
    IManagerSite* site = nullptr;
};

// An event's parameters in declaration order (a sink receives them last first): type and value.
using Args = std::vector<std::pair<VARTYPE, double>>;
Args Received(const ReceivedEvent& e)
{
    Args out;
    for (auto v = e.args.rbegin(); v != e.args.rend(); ++v)
        out.emplace_back(v->vt, v->vt == VT_I2 ? v->iVal : v->vt == VT_I4 ? v->lVal : v->dblVal);
    return out;
}

TEST_F(EventsTest, EverySinkOperationFiresItsEventAndValueEventsHandBackTheLastResult)
{
    using S = IManagerSite*;
    const struct
    {
        std::function<void(S)> fire;
        DISPID id;
        Args args;
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
    site->GetTestManagerEventSink()->SessionEnded(0);  // no sink: nothing happens
    RecordingSink sink;
    DWORD cookie = AdviseSink(control.Get(), &sink);
    ASSERT_NE(cookie, 0u);
    for (const auto& c : cases) {
        sink.events.clear();
        c.fire(site);
        ASSERT_EQ(sink.events.size(), 1u) << "dispid " << c.id;
        EXPECT_EQ(std::make_pair(sink.events[0].id, Received(sink.events[0])), std::make_pair(c.id, c.args));
        // Only the events declared with a result ask for one; all are plain
        // method calls in the user default locale.
        EXPECT_EQ(sink.events[0].resultRequested, c.id >= 25 && c.id <= 27) << "dispid " << c.id;
        EXPECT_EQ(std::make_pair(sink.lastFlags, sink.lastLcid), std::make_pair(WORD(DISPATCH_METHOD), LCID(0x0400)));
    }
    UnadviseSink(control.Get(), cookie);

    // A value event hands back the last sink's result.
    RecordingSink first, second;
    first.resultValue = 11, second.resultValue = 22;
    DWORD c1 = AdviseSink(control.Get(), &first), c2 = AdviseSink(control.Get(), &second);
    EXPECT_EQ((std::vector<long>{site->GetTestManagerEventSink()->SessionEnded(0),
                                 site->GetGpioEventSink()->DataStoreVisible(1),
                                 site->GetWatchEventSink()->WatchParametersRead(0)}),
              (std::vector<long>{22, 22, 22}));
    UnadviseSink(control.Get(), c2);
    EXPECT_EQ(site->GetTestManagerEventSink()->SessionEnded(0), 11);
    UnadviseSink(control.Get(), c1);
}

// Sinks are called in slot order; a new sink takes the first free slot; a
// handler may unadvise and advise while an event is delivered: a slot already
// passed is not called back, one emptied ahead is skipped.
TEST_F(EventsTest, SinksAreCalledInSlotOrderAndMayComeAndGoDuringDelivery)
{
    std::string calls;
    RecordingSink a, b, c;
    DWORD ca = AdviseSink(control.Get(), &a), cb = AdviseSink(control.Get(), &b), cc = 0;
    a.onEvent = [&](DISPID) { calls += 'a'; };
    b.onEvent = [&](DISPID) { calls += 'b'; };
    auto fire = [&] { site->GetHC08EventSink()->TimerRollover(), calls += '|'; };
    fire();
    a.onEvent = [&](DISPID) { calls += 'a', UnadviseSink(control.Get(), ca), cc = AdviseSink(control.Get(), &c); };
    c.onEvent = [&](DISPID) { calls += 'c'; };
    fire();
    EXPECT_EQ(cc, ca);
    fire();
    c.onEvent = [&](DISPID) { calls += 'c', UnadviseSink(control.Get(), cb); };
    fire();
    EXPECT_EQ(calls, "ab|ab|cb|c|");
    UnadviseSink(control.Get(), cc);
    EXPECT_EQ((std::vector<LONG>{a.refs, b.refs, c.refs}), (std::vector<LONG>{1, 1, 1}));
}

TEST_F(EventsTest, ConnectionPointFollowsTheStandardContract)
{
    ComPtr<IConnectionPointContainer> cpc, back;
    ComPtr<IConnectionPoint> cp, none;
    ComPtr<IEnumConnectionPoints> points;
    ComPtr<IEnumConnections> conns;
    ASSERT_HRESULT_SUCCEEDED(control.As(&cpc));
    EXPECT_EQ(cpc->FindConnectionPoint(IID_IPropertyNotifySink, none.GetAddressOf()), CONNECT_E_NOCONNECTION);
    ASSERT_HRESULT_SUCCEEDED(cpc->FindConnectionPoint(DIID__IBrennockEvents, cp.GetAddressOf()));
    IID iid = {};
    EXPECT_EQ(std::make_pair(cp->GetConnectionInterface(&iid), cp->GetConnectionPointContainer(back.GetAddressOf())),
              std::make_pair(S_OK, S_OK));
    EXPECT_TRUE(iid == DIID__IBrennockEvents && back.Get() == cpc.Get());
    IConnectionPoint* got[2] = {};
    ULONG fetched = 0;
    ASSERT_HRESULT_SUCCEEDED(cpc->EnumConnectionPoints(points.GetAddressOf()));
    EXPECT_EQ(points->Next(2, got, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 1u);
    EXPECT_EQ(got[0], cp.Get());
    got[0]->Release();

    RecordingSink stranger, s1, s2;  // the stranger does not speak the event interface
    stranger.answerEventsIid = false;
    DWORD cookie = 123, k1 = 0, k2 = 0;
    EXPECT_EQ(cp->Advise(&stranger, &cookie), CONNECT_E_CANNOTCONNECT);
    EXPECT_EQ(cookie, 0u);
    EXPECT_EQ(cp->Advise(nullptr, &cookie), E_POINTER);
    ASSERT_HRESULT_SUCCEEDED(cp->Advise(&s1, &k1));
    ASSERT_HRESULT_SUCCEEDED(cp->Advise(&s2, &k2));
    CONNECTDATA cd[3] = {};
    ASSERT_HRESULT_SUCCEEDED(cp->EnumConnections(conns.GetAddressOf()));
    ASSERT_EQ(conns->Next(3, cd, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_EQ(std::make_pair(cd[0].dwCookie, cd[1].dwCookie), std::make_pair(k1, k2));
    cd[0].pUnk->Release(), cd[1].pUnk->Release(), conns.Reset();
    EXPECT_EQ(cp->Unadvise(k1), S_OK);
    for (DWORD bad : {k1, DWORD(0), DWORD(99)})
        EXPECT_EQ(cp->Unadvise(bad), CONNECT_E_NOCONNECTION);
    EXPECT_EQ((std::vector<LONG>{stranger.refs, s1.refs, s2.refs}), (std::vector<LONG>{1, 1, 2}));

    // Releasing the control releases the sinks still advised.
    cp.Reset(), points.Reset(), back.Reset(), cpc.Reset(), control.Reset();
    EXPECT_EQ(s2.refs, 1);
}

}  // namespace
