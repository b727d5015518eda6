/*
 * Device detection: the detection thread and the microphone self-tests.
 *
 * Every 300 ms the detection thread asks the camera for its version (until
 * it has one), runs the one-time microphone power cycle after boot, and,
 * with DSP communication on, keeps the DSP version current and serves the
 * microphone tests that factory tools request through properties. The
 * tools write a request property and read a result property; the DSP's
 * answers arrive on the DSP receive thread ("MIC_TEST=", "AUX_TEST"),
 * which turns them into results.
 *
 * Threads: the detection thread (started by detect_version_init, never
 * stopped by release), the DSP receive thread (dsp_mic_status_update,
 * dsp_mic_aux_test_update).
 *
 * State (gDetect):
 *   running          the thread loops while set
 *   threadStarted, thread  the detection thread; service thread
 *   recordTest       "persist.mic.en_record_test" was seen as "1"; detection thread
 *   testCounted      this boot's test was counted; detection thread
 *   micTestBusy      the DSP answered "testing"; under gMicTestLock
 *   lastDspVersion   the DSP version last queried; detection thread
 *   auxTestDone      per auxiliary test: no test running; under gAuxTestLock
 *   firstCheckDone, retestPending  the power cycle after boot; detection thread
 * Locks: gMicTestLock and gAuxTestLock keep each request/result property
 * pair changing together; neither is held while the other is taken.
 *
 * Log tag "DETECT_HAL".
 */
#include "camera/detect.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <atomic>
#include <mutex>

#include <android/log.h>
#include <cutils/properties.h>
#include <pthread.h>
#include <unistd.h>

#include "camera/cam_detect.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_properties.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_reply_wait.h"
#include "common/feature_switches.h"

#define LOG_TAG "DETECT_HAL"
#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr useconds_t kPassPauseUs = 300 * 1000; // between detection passes
constexpr unsigned kMicPowerOffS = 3;          // microphones stay off this long
constexpr size_t kVersionSize = 256;
constexpr int kMicStatusMaxCount = MIC_STATUS_OUT_SIZE - 1; // digits that fit with the terminator
constexpr int kBitsInWord = 32;

// Request and result properties of the microphone test.
constexpr const char kMicTestReq[] = "mic.hw.test.req";
constexpr const char kMicTestRet[] = "mic.hw.test.ret";
// Auxiliary tests: how many, and each one's request and result.
constexpr const char kAuxTestNum[] = "mic.hw.auxtest.num";
constexpr const char kAuxTestReqFormat[] = "mic.hw.auxtest%d.req";
constexpr const char kAuxTestRetFormat[] = "mic.hw.auxtest%d.ret";
// Settings and counters.
constexpr const char kOffMic[] = "persist.sys.offmic";
constexpr const char kRecordTest[] = "persist.mic.en_record_test";
constexpr const char kTestNum[] = "persist.mic.test_num";
constexpr const char kFailNum[] = "persist.mic.fail_num";
constexpr const char kDualFailNum[] = "persist.mic.dual_fail_num";
constexpr const char kMonitor[] = "vendor.mic.test.monitor";
constexpr const char kMonitorRet[] = "vendor.mic.test.ret";
constexpr const char kMonitorRetDefault[] = "testingNULL";

// Result texts.
constexpr const char kTesting[] = "testing";
constexpr const char kRetestScheduled[] = "ING";
// Markers in the DSP's answers.
constexpr std::string_view kStillTesting = "ING";
constexpr std::string_view kPassed = "PASS";

constexpr const char kAuxTestWord[] = "AUX_TEST";
constexpr const char kAuxTestRetWord[] = "AUX_TEST_RET";
constexpr const char kMicPowerOff[] = "echo 0 > " MIC_POWER_PATH;
constexpr const char kMicPowerOn[] = "echo 1 > " MIC_POWER_PATH;

struct DetectState {
    std::atomic<int> running{0};            // thread loops while set
    bool threadStarted = false;             // service thread (init, test reset)
    pthread_t thread{};                     // service thread (init, test reset)
    std::atomic<uint8_t> recordTest{0};     // detection thread
    std::atomic<uint8_t> testCounted{0};    // detection thread
    uint8_t micTestBusy = 0;                // under gMicTestLock
    char lastDspVersion[kVersionSize] = {}; // detection thread
    uint8_t auxTestDone[MIC_AUX_TEST_MAX] = {1, 1, 1, 1}; // under gAuxTestLock
    std::atomic<uint8_t> firstCheckDone{0}; // detection thread
    std::atomic<uint8_t> retestPending{0};  // detection thread
};

DetectState gDetect;
std::mutex gMicTestLock;
std::mutex gAuxTestLock;
std::mutex gThreadLock; // guards threadStarted and thread

bool contains(const char *text, std::string_view part)
{
    return std::string_view(text).find(part) != std::string_view::npos;
}

// The next strtok-style token of text at commas, from pos; empty when
// there is none.
std::string_view nextToken(std::string_view text, size_t &pos)
{
    pos = text.find_first_not_of(',', pos);
    if (pos == std::string_view::npos)
        return {};
    size_t end = text.find(',', pos);
    if (end == std::string_view::npos)
        end = text.size();
    std::string_view token = text.substr(pos, end - pos);
    pos = end;
    return token;
}

int tokenValue(std::string_view token)
{
    char copy[32] = {};
    // A missing token is an empty view without storage: it reads as "".
    if (!token.empty())
        memcpy(copy, token.data(), token.size() < sizeof copy - 1 ? token.size() : sizeof copy - 1);
    return dspParseInt(copy);
}

void auxKey(char *out, size_t size, const char *format, int index)
{
    snprintf(out, size, format, index);
}

} // namespace

extern "C" {

int detect_version_init(void)
{
    std::lock_guard<std::mutex> lock(gThreadLock);
    gDetect.running.store(1);
    // Forces a version query on the first pass.
    property_set(kDspUpdateProperty, "1");
    // One detection thread serves the process, however often start-up runs.
    if (gDetect.threadStarted)
        return 0;
    if (pthread_create(&gDetect.thread, nullptr, hal_detect_version_thread, nullptr) != 0) {
        LOGE("create hal_detect_version_thread failed!!");
        return -1;
    }
    gDetect.threadStarted = true;
    return 0;
}

void *hal_detect_version_thread(void *)
{
    while (gDetect.running.load()) {
        detectCamVersion();
        reset_mic_when_first_detect();
        if (enableDspCommunication()) {
            detectMicVersion();
            detectMicStatus();
            testMicAuxAll();
        }
        usleep(kPassPauseUs);
    }
    return nullptr;
}

int detectMicVersion(void)
{
    char version[PROPERTY_VALUE_MAX] = {};
    char update[PROPERTY_VALUE_MAX] = {};
    property_get(kDspVersionProperty, version, "");
    property_get(kDspUpdateProperty, update, "");
    if (strcmp(version, gDetect.lastDspVersion) == 0 && update[0] != '1')
        return 0;
    snprintf(gDetect.lastDspVersion, sizeof gDetect.lastDspVersion, "%s", version);
    return dsp_post(DSP_CMD_VERSION, "");
}

int detectMicStatus(void)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kOffMic, value, "false");
    // The test machinery serves only while the microphones are declared
    // off for testing; the inverted-looking condition is intended.
    if (strcmp(value, "true") != 0)
        return 0;
    property_get(kRecordTest, value, "0");
    if (value[0] == '1')
        gDetect.recordTest.store(1);
    if (gDetect.recordTest.load() && !gDetect.testCounted.load()) {
        propAutoIncrement(kTestNum);
        gDetect.testCounted.store(1);
        LOGI("%s enter \n", __func__);
    }
    std::lock_guard<std::mutex> lock(gMicTestLock);
    property_get(kMicTestReq, value, "1");
    if (value[0] != '1')
        return 0;
    if (!gDetect.micTestBusy) {
        property_set(kMicTestRet, kTesting);
        return dsp_post(DSP_CMD_MIC_TEST, "");
    }
    // The DSP is still testing: ask for the result instead.
    return dsp_post(DSP_CMD_MIC_TEST_RESULT, "");
}

int testMicAuxAll(void)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kAuxTestNum, value, "1");
    const int count = value[0] >= '1' && value[0] <= '0' + MIC_AUX_TEST_MAX ? value[0] - '0' : 0;
    int served = 0;
    for (int i = 0; i < count; ++i) {
        char key[PROPERTY_KEY_MAX];
        std::lock_guard<std::mutex> lock(gAuxTestLock);
        auxKey(key, sizeof key, kAuxTestReqFormat, i);
        property_get(key, value, "0");
        if (value[0] != '1')
            continue;
        if (gDetect.auxTestDone[i]) {
            auxKey(key, sizeof key, kAuxTestRetFormat, i);
            property_set(key, kTesting);
            dspPostf(DSP_CMD_FREE_TEXT, "%s[%d]=?", kAuxTestWord, i);
        } else {
            dspPostf(DSP_CMD_FREE_TEXT, "%s[%d]=?", kAuxTestRetWord, i);
        }
        ++served;
    }
    return served;
}

int dsp_mic_status_update(const char *value)
{
    if (value == nullptr)
        return 0;
    LOGI("%s enter status %s \n", __func__, value);
    std::lock_guard<std::mutex> lock(gMicTestLock);
    if (contains(value, kStillTesting)) {
        gDetect.micTestBusy = 1;
        property_set(kMicTestRet, kTesting);
        return 0;
    }
    gDetect.micTestBusy = 0;
    property_set(kMicTestReq, "0");
    char digits[MIC_STATUS_OUT_SIZE] = {};
    parseMicStatus(value, digits);
    property_set(kMicTestRet, digits);
    return 0;
}

int dsp_mic_aux_test_update(const char *value)
{
    // The value is the answer after "AUX_TEST": "[n]=...", n being the
    // index the query carried.
    if (value == nullptr || strnlen(value, 2) < 2 || value[1] < '0' || value[1] > '0' + MIC_AUX_TEST_MAX - 1) {
        LOGE("get_mic_aux_test_respone_index invailed\n");
        return -1;
    }
    const int index = value[1] - '0';
    char key[PROPERTY_KEY_MAX];
    std::lock_guard<std::mutex> lock(gAuxTestLock);
    auxKey(key, sizeof key, kAuxTestRetFormat, index);
    if (contains(value, kStillTesting)) {
        gDetect.auxTestDone[index] = 0;
        property_set(key, kTesting);
        return 0;
    }
    gDetect.auxTestDone[index] = 1;
    char reqKey[PROPERTY_KEY_MAX];
    auxKey(reqKey, sizeof reqKey, kAuxTestReqFormat, index);
    property_set(reqKey, "0");
    property_set(key, contains(value, kPassed) ? "1" : "0");
    return 0;
}

void parseMicStatus(const char *text, char *out)
{
    if (text == nullptr || out == nullptr)
        return;
    std::string_view view(text);
    size_t pos = 0;
    const int count = tokenValue(nextToken(view, pos));
    const uint32_t bits = static_cast<uint32_t>(tokenValue(nextToken(view, pos)));
    if (count < 0 || count > kMicStatusMaxCount)
        return;
    // One digit per microphone, the highest bit first.
    for (int i = 0; i < count; ++i) {
        const int bit = count - 1 - i;
        out[i] = bit < kBitsInWord && ((bits >> bit) & 1u) ? '1' : '0';
    }
    out[count] = '\0';
}

int need_monitor_mic_test(void)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kMonitor, value, "");
    return value[0] == '1' ? 1 : 0;
}

int get_mic_test_reset(void)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kMonitorRet, value, kMonitorRetDefault);
    if (contains(value, kTesting))
        return 0;
    return strchr(value, '0') != nullptr ? 1 : 2;
}

void reset_mic(void)
{
    LOGI("mictest reset\n");
    // The attribute is written through the shell, as the device does it.
    if (system(kMicPowerOff) != 0)
        LOGE("%s failed", kMicPowerOff);
    sleep(kMicPowerOffS);
    if (system(kMicPowerOn) != 0)
        LOGE("%s failed", kMicPowerOn);
}

void detect_again(void)
{
    property_set(kMicTestRet, kRetestScheduled);
    property_set(kMicTestReq, "1");
}

void reset_mic_when_first_detect(void)
{
    if (!need_monitor_mic_test())
        return;
    if (gDetect.firstCheckDone.load() && !gDetect.retestPending.load())
        return;
    const int result = get_mic_test_reset();
    if (result == 0)
        return; // still testing
    const bool failed = result == 1;
    if (!gDetect.firstCheckDone.load()) {
        gDetect.firstCheckDone.store(1);
        if (!failed)
            return;
        if (gDetect.recordTest.load()) {
            LOGI("%s first mic test failed\n", __func__);
            propAutoIncrement(kFailNum);
        }
        reset_mic();
        detect_again();
        gDetect.retestPending.store(1);
        return;
    }
    if (failed && gDetect.recordTest.load())
        propAutoIncrement(kDualFailNum);
    gDetect.retestPending.store(0);
}

#ifdef AVM_HOST_BUILD
void detect_resetForTest(void)
{
    {
        std::lock_guard<std::mutex> lock(gThreadLock);
        gDetect.running.store(0);
        if (gDetect.threadStarted) {
            pthread_join(gDetect.thread, nullptr);
            gDetect.threadStarted = false;
        }
    }
    gDetect.recordTest.store(0);
    gDetect.testCounted.store(0);
    gDetect.lastDspVersion[0] = '\0';
    gDetect.firstCheckDone.store(0);
    gDetect.retestPending.store(0);
    {
        std::lock_guard<std::mutex> lock(gMicTestLock);
        gDetect.micTestBusy = 0;
    }
    std::lock_guard<std::mutex> lock(gAuxTestLock);
    for (uint8_t &done : gDetect.auxTestDone)
        done = 1;
}

void detect_setMonitorStateForTest(int recordTest, int firstCheckDone, int retestPending)
{
    gDetect.recordTest.store(recordTest != 0 ? 1 : 0);
    gDetect.firstCheckDone.store(firstCheckDone != 0 ? 1 : 0);
    gDetect.retestPending.store(retestPending != 0 ? 1 : 0);
}
#endif

} // extern "C"
