// Event delivery: every internal sink operation reaches advised sinks as the
// right dispatch id, with its arguments typed and in reverse order.
#include <gtest/gtest.h>

#include <olectl.h>

#include "tests/support/ControlTestKit.h"
#include "tests/support/InterfaceTable.h"

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

// Expected delivery for one event: the parameters in declaration order.
void ExpectEvent(const ReceivedEvent& e, DISPID id, std::initializer_list<Arg> declared)
{
    SCOPED_TRACE(testing::Message() << "dispid " << id);
    ASSERT_EQ(e.id, id);
    ASSERT_EQ(e.args.size(), declared.size());
    size_t n = declared.size();
    size_t i = 0;
    for (const Arg& a : declared) {
        const VARIANT& v = e.args[n - 1 - i];  // delivered last parameter first
        EXPECT_EQ(v.vt, a.vt) << "parameter " << i;
        switch (a.vt) {
        case VT_I2: EXPECT_EQ(v.iVal, static_cast<SHORT>(a.value)) << "parameter " << i; break;
        case VT_I4: EXPECT_EQ(v.lVal, static_cast<LONG>(a.value)) << "parameter " << i; break;
        case VT_R8: EXPECT_DOUBLE_EQ(v.dblVal, a.value) << "parameter " << i; break;
        default: ADD_FAILURE() << "unexpected type"; break;
        }
        ++i;
    }
}

TEST_F(EventsTest, EverySinkOperationFiresItsEvent)
{
    RecordingSink sink;
    DWORD cookie = AdviseSink(control.Get(), &sink);
    ASSERT_NE(cookie, 0u);

    IHC08EventSink* hc08 = site->GetHC08EventSink();
    IGpioEventSink* gpio = site->GetGpioEventSink();
    IWatchEventSink* watch = site->GetWatchEventSink();
    IAudioEventSink* audio = site->GetAudioEventSink();
    ITestManagerEventSink* tests = site->GetTestManagerEventSink();

    gpio->BlinkEnded(3);
    watch->WatchVisible(true);
    hc08->TimerGo(123456);
    hc08->TimerRollover();
    hc08->DigitoLeftDownward(10, -1);
    hc08->DigitoLeftUpward(11, 2);
    hc08->DigitoRightDownward(12, 3);
    hc08->DigitoRightUpward(13, 70000);
    hc08->CapsitLeftDown(14);
    hc08->CapsitLeftUp(15);
    hc08->CapsitRightDown(16);
    hc08->CapsitRightUp(17);
    hc08->PegsMap(1000, 3, 2);
    tests->ActivityEnded(1, 7);
    watch->WatchSaveProgress(42);
    watch->WatchSaveEnded(102);
    watch->WatchDataDestroyEnded(103);
    hc08->HC08Reset(2, 17, 4, 1000, 0);
    audio->AudioPlayEnded(0);
    gpio->TimerEnded(103, 5);
    gpio->LidMoved(false);
    audio->AudioRecordEnded(103);
    audio->AudioRecordProgress(-200, 9);
    tests->SessionEnded(103);
    gpio->DataStoreVisible(1);
    watch->WatchParametersRead(102);
    watch->WatchVisible(false);
    gpio->LidMoved(true);

    const auto& ev = sink.events;
    ASSERT_EQ(ev.size(), 28u);
    ExpectEvent(ev[0], 1, {{VT_I2, -1}, {VT_I2, 3}});
    ExpectEvent(ev[1], 2, {{VT_I2, 1}});
    ExpectEvent(ev[2], 3, {{VT_I4, 123456}});
    ExpectEvent(ev[3], 4, {});
    ExpectEvent(ev[4], 5, {{VT_I4, 10}, {VT_I4, -1}});
    ExpectEvent(ev[5], 6, {{VT_I4, 11}, {VT_I4, 2}});
    ExpectEvent(ev[6], 7, {{VT_I4, 12}, {VT_I4, 3}});
    ExpectEvent(ev[7], 8, {{VT_I4, 13}, {VT_I4, 70000}});
    ExpectEvent(ev[8], 9, {{VT_I4, 14}});
    ExpectEvent(ev[9], 10, {{VT_I4, 15}});
    ExpectEvent(ev[10], 11, {{VT_I4, 16}});
    ExpectEvent(ev[11], 12, {{VT_I4, 17}});
    ExpectEvent(ev[12], 13, {{VT_I4, 1000}, {VT_I2, 3}, {VT_I2, 2}});
    ExpectEvent(ev[13], 14, {{VT_I2, 1}, {VT_I2, 7}});
    ExpectEvent(ev[14], 15, {{VT_I2, 42}});
    ExpectEvent(ev[15], 16, {{VT_I2, 102}});
    ExpectEvent(ev[16], 17, {{VT_I2, 103}});
    ExpectEvent(ev[17], 19, {{VT_I2, 2}, {VT_I2, 17}, {VT_I2, 4}, {VT_R8, 1000.0}, {VT_I2, 0}});
    ExpectEvent(ev[18], 20, {{VT_I2, 0}});
    ExpectEvent(ev[19], 21, {{VT_I2, 103}, {VT_I2, 5}});
    ExpectEvent(ev[20], 22, {{VT_I2, 0}});
    ExpectEvent(ev[21], 23, {{VT_I2, 103}});
    ExpectEvent(ev[22], 24, {{VT_I2, -200}, {VT_I2, 9}});
    ExpectEvent(ev[23], 25, {{VT_I2, 103}});
    ExpectEvent(ev[24], 26, {{VT_I2, 1}});
    ExpectEvent(ev[25], 27, {{VT_I2, 102}});
    ExpectEvent(ev[26], 2, {{VT_I2, 0}});
    ExpectEvent(ev[27], 22, {{VT_I2, 1}});

    // Only the three events declared with a result ask the sink for one; all
    // are plain method calls in the user default locale.
    for (const auto& e : ev)
        EXPECT_EQ(e.resultRequested, e.id >= 25 && e.id <= 27) << "dispid " << e.id;
    EXPECT_EQ(sink.lastFlags, DISPATCH_METHOD);
    EXPECT_EQ(sink.lastLcid, static_cast<LCID>(0x0400));

    // Every event fired matches the declared parameter count of its dispid.
    for (const auto& e : ev) {
        for (const auto& spec : BrennockEvents()) {
            if (spec.id == e.id) {
                EXPECT_EQ(e.args.size(), spec.params.size()) << spec.name;
            }
        }
    }

    UnadviseSink(control.Get(), cookie);
}

TEST_F(EventsTest, ValueEventsHandBackTheLastSinksResult)
{
    RecordingSink first, second;
    first.resultValue = 11;
    second.resultValue = 22;
    DWORD c1 = AdviseSink(control.Get(), &first);
    DWORD c2 = AdviseSink(control.Get(), &second);

    EXPECT_EQ(site->GetTestManagerEventSink()->SessionEnded(0), 22);
    EXPECT_EQ(site->GetGpioEventSink()->DataStoreVisible(1), 22);
    EXPECT_EQ(site->GetWatchEventSink()->WatchParametersRead(0), 22);

    UnadviseSink(control.Get(), c2);
    second.resultValue = -5;
    EXPECT_EQ(site->GetTestManagerEventSink()->SessionEnded(0), 11);
    UnadviseSink(control.Get(), c1);
}

TEST_F(EventsTest, SinksAreCalledInSlotOrderAndNewSinksTakeTheFirstFreeSlot)
{
    std::vector<std::pair<int, DISPID>> calls;
    RecordingSink a, b, c;
    a.onEvent = [&](DISPID id) { calls.push_back({'a', id}); };
    b.onEvent = [&](DISPID id) { calls.push_back({'b', id}); };
    c.onEvent = [&](DISPID id) { calls.push_back({'c', id}); };

    DWORD ca = AdviseSink(control.Get(), &a);
    DWORD cb = AdviseSink(control.Get(), &b);
    EXPECT_NE(ca, cb);
    site->GetHC08EventSink()->PegsMap(1000, 3, 2);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].first, 'a');
    EXPECT_EQ(calls[1].first, 'b');
    ExpectEvent(a.events[0], 13, {{VT_I4, 1000}, {VT_I2, 3}, {VT_I2, 2}});
    ExpectEvent(b.events[0], 13, {{VT_I4, 1000}, {VT_I2, 3}, {VT_I2, 2}});

    // a leaves; c takes a's slot and is called first.
    UnadviseSink(control.Get(), ca);
    DWORD cc = AdviseSink(control.Get(), &c);
    EXPECT_EQ(cc, ca);
    calls.clear();
    site->GetHC08EventSink()->TimerRollover();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].first, 'c');
    EXPECT_EQ(calls[1].first, 'b');

    UnadviseSink(control.Get(), cb);
    UnadviseSink(control.Get(), cc);
    EXPECT_EQ(a.refs, 1);
    EXPECT_EQ(b.refs, 1);
    EXPECT_EQ(c.refs, 1);
}

TEST_F(EventsTest, HandlersMayUnadviseAndAdviseWhileAnEventIsDelivered)
{
    RecordingSink first, second, late;
    DWORD c1 = AdviseSink(control.Get(), &first);
    DWORD c2 = AdviseSink(control.Get(), &second);
    DWORD c3 = 0;

    // The first handler removes itself and adds a third sink: the second sink
    // is still called, the new one (beyond the slot count read) is not.
    first.onEvent = [&](DISPID) {
        UnadviseSink(control.Get(), c1);
        c3 = AdviseSink(control.Get(), &late);
    };
    site->GetGpioEventSink()->LidMoved(true);
    EXPECT_EQ(first.events.size(), 1u);
    EXPECT_EQ(second.events.size(), 1u);
    // The new sink took the freed first slot, already passed, so it was not called.
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
    EXPECT_EQ(first.refs, 1);
    EXPECT_EQ(second.refs, 1);
    EXPECT_EQ(late.refs, 1);
}

TEST_F(EventsTest, NoSinkMeansNothingHappens)
{
    site->GetHC08EventSink()->PegsMap(1, 2, 3);
    site->GetTestManagerEventSink()->SessionEnded(0);  // value unspecified, no crash
}

TEST_F(EventsTest, ConnectionPointFollowsTheStandardContract)
{
    ComPtr<IConnectionPointContainer> cpc;
    ASSERT_HRESULT_SUCCEEDED(control.As(&cpc));

    ComPtr<IConnectionPoint> cp;
    EXPECT_EQ(cpc->FindConnectionPoint(IID_IPropertyNotifySink, cp.GetAddressOf()),
              CONNECT_E_NOCONNECTION);
    ASSERT_HRESULT_SUCCEEDED(cpc->FindConnectionPoint(DIID__IBrennockEvents, cp.GetAddressOf()));

    IID iid;
    ASSERT_HRESULT_SUCCEEDED(cp->GetConnectionInterface(&iid));
    EXPECT_EQ(iid, DIID__IBrennockEvents);
    ComPtr<IConnectionPointContainer> back;
    ASSERT_HRESULT_SUCCEEDED(cp->GetConnectionPointContainer(back.GetAddressOf()));
    EXPECT_EQ(back.Get(), cpc.Get());

    // The container enumerates exactly this one point.
    ComPtr<IEnumConnectionPoints> points;
    ASSERT_HRESULT_SUCCEEDED(cpc->EnumConnectionPoints(points.GetAddressOf()));
    IConnectionPoint* got[2] = {};
    ULONG fetched = 0;
    EXPECT_EQ(points->Next(2, got, &fetched), S_FALSE);
    ASSERT_EQ(fetched, 1u);
    EXPECT_EQ(got[0], cp.Get());
    got[0]->Release();

    // A sink that does not speak the event interface is refused.
    RecordingSink stranger;
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
    for (ULONG i = 0; i < fetched; ++i)
        cd[i].pUnk->Release();
    conns.Reset();

    EXPECT_EQ(cp->Unadvise(k1), S_OK);
    EXPECT_EQ(cp->Unadvise(k1), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(cp->Unadvise(0), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(cp->Unadvise(99), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(cp->Unadvise(k2), S_OK);
    EXPECT_EQ(s1.refs, 1);
    EXPECT_EQ(s2.refs, 1);
}

TEST_F(EventsTest, ReleasingTheControlReleasesItsSinks)
{
    RecordingSink sink;
    AdviseSink(control.Get(), &sink);
    EXPECT_GT(sink.refs, 1);
    control.Reset();
    EXPECT_EQ(sink.refs, 1);
}

}  // namespace
