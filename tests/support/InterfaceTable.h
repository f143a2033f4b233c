// The script interface as compiled clients and scripts see it: every member
// of IBrennock in slot order and every event, with ids, names and types.
// Tests check the type library, name binding and dispatch against this.
#pragma once

#include <windows.h>
#include <oaidl.h>

#include <vector>

struct ParamSpec
{
    const wchar_t* name;  // empty for a property putter's value
    VARTYPE vt;
    bool retval;
};

struct MemberSpec
{
    DISPID id;
    const wchar_t* name;
    const wchar_t* help;
    INVOKEKIND kind;
    std::vector<ParamSpec> params;
};

struct EventSpec
{
    DISPID id;
    const wchar_t* name;
    bool returnsHresult;
    std::vector<ParamSpec> params;
};

inline const std::vector<MemberSpec>& BrennockMembers()
{
    static const std::vector<MemberSpec> members = {
        {1, L"Open", L"method Open", INVOKE_FUNC, {{L"pRetVal", VT_I2, true}}},
        {2, L"Close", L"method Close", INVOKE_FUNC, {}},
        {3, L"SetWatchPower", L"method SetWatchPower", INVOKE_FUNC, {{L"powerOn", VT_I2, false}}},
        {4, L"SetBacklightPower", L"method SetBacklightPower", INVOKE_FUNC, {{L"powerOn", VT_I2, false}}},
        {5, L"CancelBlinkLed", L"method CancelBlinkLed", INVOKE_FUNC, {{L"ledID", VT_I2, false}}},
        {6, L"BlinkLed", L"method BlinkLed", INVOKE_FUNC, {{L"ledID", VT_I2, false}, {L"numBlinks", VT_I2, false}, {L"msPerBlink", VT_I2, false}}},
        {7, L"SetLedState", L"method SetLedState", INVOKE_FUNC, {{L"ledID", VT_I2, false}, {L"turnOn", VT_I2, false}}},
        {8, L"PracticeMode", L"property PracticeMode", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {8, L"PracticeMode", L"property PracticeMode", INVOKE_PROPERTYPUT, {{L"", VT_I2, false}}},
        {9, L"ActivityConfig", L"method ActivityConfig", INVOKE_FUNC, {{L"testID", VT_I2, false}, {L"testName", VT_BSTR, false}, {L"maxDurationSecs", VT_I2, false}, {L"uiTimeoutSecs", VT_I2, false}}},
        {10, L"ActivityStart", L"method ActivityStart", INVOKE_FUNC, {{L"doBeep", VT_I2, false}}},
        {11, L"ActivityEndNormal", L"method ActivityEndNormal", INVOKE_FUNC, {}},
        {12, L"ActivityCancel", L"method ActivityCancel", INVOKE_FUNC, {}},
        {13, L"QuestionResponse", L"method QuestionResponse", INVOKE_FUNC, {{L"questionID", VT_BSTR, false}, {L"responseID", VT_BSTR, false}}},
        {14, L"WatchSaveStart", L"method WatchSaveStart", INVOKE_FUNC, {{L"dataName", VT_BSTR, false}}},
        {15, L"WatchSaveCancel", L"method WatchSaveCancel", INVOKE_FUNC, {}},
        {16, L"WatchDataDestroyStart", L"method WatchDataDestroyStart", INVOKE_FUNC, {}},
        {18, L"SimHC08Reset", L"method SimHC08Reset", INVOKE_FUNC, {{L"hc08Rev", VT_I2, false}, {L"hc08Build", VT_I2, false}, {L"resetSource", VT_I2, false}, {L"tickHz", VT_R8, false}, {L"postResult", VT_I2, false}}},
        {19, L"SimTimerGo", L"method SimTimerGo", INVOKE_FUNC, {{L"ticksAtGo", VT_I4, false}}},
        {20, L"SimTimerRollover", L"method SimTimerRollover", INVOKE_FUNC, {}},
        {21, L"SimDigitoLeftDownward", L"method SimDigitoLeftDownward", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {22, L"SimDigitoLeftUpward", L"method SimDigitoLeftUpward", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {23, L"SimDigitoRightDownward", L"method SimDigitoRightDownward", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {24, L"SimDigitoRightUpward", L"method SimDigitoRightUpward", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {25, L"SimCapsitLeftDown", L"method SimCapsitLeftDown", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}}},
        {26, L"SimCapsitLeftUp", L"method SimCapsitLeftUp", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}}},
        {27, L"SimCapsitRightDown", L"method SimCapsitRightDown", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}}},
        {28, L"SimCapsitRightUp", L"method SimCapsitRightUp", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}}},
        {29, L"SimPegsMap", L"method SimPegsMap", INVOKE_FUNC, {{L"ticksSinceGo", VT_I4, false}, {L"pegsInLeft", VT_I2, false}, {L"pegsInRight", VT_I2, false}}},
        {30, L"SimWatchVisible", L"method SimWatchVisible", INVOKE_FUNC, {{L"isVisible", VT_I2, false}}},
        {31, L"SimWatchSaveProgress", L"method SimWatchSaveProgress", INVOKE_FUNC, {{L"percent", VT_I2, false}}},
        {32, L"AudioPlay", L"method AudioPlay", INVOKE_FUNC, {{L"filename", VT_BSTR, false}}},
        {33, L"CancelAudioPlay", L"method CancelAudioPlay", INVOKE_FUNC, {}},
        {34, L"TimerStart", L"method TimerStart", INVOKE_FUNC, {{L"timerID", VT_I2, false}, {L"intervalSecs", VT_R8, false}}},
        {35, L"CancelTimer", L"method CancelTimer", INVOKE_FUNC, {{L"timerID", VT_I2, false}}},
        {36, L"CurrentFolder", L"property CurrentFolder", INVOKE_PROPERTYGET, {{L"pVal", VT_BSTR, true}}},
        {36, L"CurrentFolder", L"property CurrentFolder", INVOKE_PROPERTYPUT, {{L"", VT_BSTR, false}}},
        {37, L"ActivityBeep", L"method ActivityBeep", INVOKE_FUNC, {}},
        {38, L"HaveHardware", L"property HaveHardware", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {39, L"SimLidMoved", L"method SimLidMoved", INVOKE_FUNC, {{L"isOpen", VT_I2, false}}},
        {40, L"FreeStoreMB", L"property FreeStoreMB", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {41, L"RecFormat", L"property RecFormat", INVOKE_PROPERTYGET, {{L"pVal", VT_BSTR, true}}},
        {41, L"RecFormat", L"property RecFormat", INVOKE_PROPERTYPUT, {{L"", VT_BSTR, false}}},
        {42, L"RecStartTimeoutS", L"property RecStartTimeoutS", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {42, L"RecStartTimeoutS", L"property RecStartTimeoutS", INVOKE_PROPERTYPUT, {{L"", VT_I2, false}}},
        {43, L"AudioRecord", L"method AudioRecord", INVOKE_FUNC, {{L"recordFlags", VT_I2, false}, {L"maxSeconds", VT_I2, false}}},
        {44, L"CancelAudioRecord", L"method CancelAudioRecord", INVOKE_FUNC, {}},
        {45, L"DebugWrite", L"method DebugWrite", INVOKE_FUNC, {{L"message", VT_BSTR, false}}},
        {46, L"Reboot", L"method Reboot", INVOKE_FUNC, {}},
        {47, L"InSessionWindow", L"property InSessionWindow", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {48, L"GetNextSessionStart", L"method GetNextSessionStart", INVOKE_FUNC, {{L"whenDateTime", VT_BSTR, true}}},
        {49, L"GetNextSessionEnd", L"method GetNextSessionEnd", INVOKE_FUNC, {{L"whenDateTime", VT_BSTR, true}}},
        {50, L"SessionStart", L"method SessionStart", INVOKE_FUNC, {}},
        {51, L"SessionEndNormal", L"method SessionEndNormal", INVOKE_FUNC, {}},
        {52, L"SessionCancel", L"method SessionCancel", INVOKE_FUNC, {}},
        {53, L"NVParameterRead", L"method NVParameterRead", INVOKE_FUNC, {{L"keyName", VT_BSTR, false}, {L"defaultVal", VT_BSTR, false}, {L"value", VT_BSTR, true}}},
        {54, L"NVParameterWrite", L"method NVParameterWrite", INVOKE_FUNC, {{L"keyName", VT_BSTR, false}, {L"value", VT_BSTR, false}}},
        {55, L"ParameterRead", L"method ParameterRead", INVOKE_FUNC, {{L"keyName", VT_BSTR, false}, {L"defaultVal", VT_BSTR, false}, {L"value", VT_BSTR, true}}},
        {56, L"RecAvgVolumeStart", L"property RecAvgVolumeStart", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {56, L"RecAvgVolumeStart", L"property RecAvgVolumeStart", INVOKE_PROPERTYPUT, {{L"", VT_I2, false}}},
        {57, L"RecAvgVolumeStop", L"property RecAvgVolumeStop", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {57, L"RecAvgVolumeStop", L"property RecAvgVolumeStop", INVOKE_PROPERTYPUT, {{L"", VT_I2, false}}},
        {58, L"SimDataStoreVisible", L"method SimDataStoreVisible", INVOKE_FUNC, {{L"isVisible", VT_I2, false}}},
        {59, L"SimWatchDataDestroyEnded", L"method SimWatchDataDestroyEnded", INVOKE_FUNC, {{L"endCauseID", VT_I2, false}}},
        {60, L"MaskWithNoise", L"property MaskWithNoise", INVOKE_PROPERTYGET, {{L"pVal", VT_I2, true}}},
        {60, L"MaskWithNoise", L"property MaskWithNoise", INVOKE_PROPERTYPUT, {{L"", VT_I2, false}}},
        {61, L"AssertWrite", L"method AssertWrite", INVOKE_FUNC, {{L"filename", VT_BSTR, false}, {L"lineNum", VT_I2, false}, {L"message", VT_BSTR, false}}},
    };
    return members;
}

inline const std::vector<EventSpec>& BrennockEvents()
{
    static const std::vector<EventSpec> events = {
        {1, L"BlinkEnded", false, {{L"endCauseID", VT_I2, false}, {L"ledID", VT_I2, false}}},
        {2, L"WatchVisible", false, {{L"isVisible", VT_I2, false}}},
        {3, L"TimerGo", false, {{L"ticksAtGo", VT_I4, false}}},
        {4, L"TimerRollover", false, {}},
        {5, L"DigitoLeftDownward", false, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {6, L"DigitoLeftUpward", false, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {7, L"DigitoRightDownward", false, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {8, L"DigitoRightUpward", false, {{L"ticksSinceGo", VT_I4, false}, {L"bDeltaTicks", VT_I4, false}}},
        {9, L"CapsitLeftDown", false, {{L"ticksSinceGo", VT_I4, false}}},
        {10, L"CapsitLeftUp", false, {{L"ticksSinceGo", VT_I4, false}}},
        {11, L"CapsitRightDown", false, {{L"ticksSinceGo", VT_I4, false}}},
        {12, L"CapsitRightUp", false, {{L"ticksSinceGo", VT_I4, false}}},
        {13, L"PegsMap", false, {{L"ticksSinceGo", VT_I4, false}, {L"pegsInLeft", VT_I2, false}, {L"pegsInRight", VT_I2, false}}},
        {14, L"ActivityEnded", false, {{L"causeID", VT_I2, false}, {L"testID", VT_I2, false}}},
        {15, L"WatchSaveProgress", false, {{L"percent", VT_I2, false}}},
        {16, L"WatchSaveEnded", false, {{L"endCauseID", VT_I2, false}}},
        {17, L"WatchDataDestroyEnded", false, {{L"endCauseID", VT_I2, false}}},
        {19, L"HC08Reset", false, {{L"hc08Rev", VT_I2, false}, {L"hc08Build", VT_I2, false}, {L"resetSource", VT_I2, false}, {L"tickHz", VT_R8, false}, {L"postResult", VT_I2, false}}},
        {20, L"AudioPlayEnded", false, {{L"endCauseID", VT_I2, false}}},
        {21, L"TimerEnded", false, {{L"endCauseID", VT_I2, false}, {L"timerID", VT_I2, false}}},
        {22, L"LidMoved", false, {{L"isOpen", VT_I2, false}}},
        {23, L"AudioRecordEnded", false, {{L"endCauseID", VT_I2, false}}},
        {24, L"AudioRecordProgress", false, {{L"maxVolume", VT_I2, false}, {L"secondsRecorded", VT_I2, false}}},
        {25, L"SessionEnded", true, {{L"endCauseID", VT_I2, false}}},
        {26, L"DataStoreVisible", true, {{L"isVisible", VT_I2, false}}},
        {27, L"WatchParametersRead", true, {{L"endCauseID", VT_I2, false}}},
    };
    return events;
}
