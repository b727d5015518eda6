// Property values as the module parses them: any text of up to 91
// characters (the property store's limit) in the properties the module
// reads, each run through the module function that reads and acts on it.
//
//   switches        the feature switches (on exactly when the value starts
//                   with "1"; three cached, the floor/wall one read anew)
//   restore ...     the stored settings the parameter restore replays:
//                   sound mode, volume, balance, treble and bass, speaker
//                   placement, and the whole restore in its order
//   getters         sound mode, placement, volume, balance, treble, bass
//   audio-out       the audio-out route, answered by a stand-in DSP
//   mic-status      the microphone test request, with the test busy or not
//   mic-aux         the auxiliary microphone tests, each busy or not
//   mic-version     the DSP version query
//   mic-monitor     the monitored first microphone test and its counters
//   counter         propAutoIncrement on the microphone test counters
//   fig-debug, fig-version, fig-format   the Fig DSP's properties
//   ptz-debug, ptz-dejitter, ptz-model   the PTZ link's properties
//
// Each check states what the module documents for the value: a switch is
// on exactly for a value starting with "1"; a counter goes up by one from a
// non-negative decimal and stays at a negative one (and at the largest
// int); a setting outside 0..100 is refused and left as stored; "WALL" is
// the only wall placement; and so on. An empty value reads as unset (the
// store gives the default then).
//
// Nothing waits on hardware: DSP requests go into the request pipe made as
// the link makes it (dsp_mkfifo_init), with no transmit thread, and the
// harness reads them back; the Fig port is a pipe of the harness; the DSP
// module's pauses (the balance steps, the looks at a reply flag) pass in no
// time on the thread that runs the inputs (see usleep below); the DSP
// port is closed, so the restore's configuration check fails at once. The
// floor/wall switch is only ever set for the switches themselves, so the
// placement never reaches the amplifiers. The microphone power cycle
// (3 s and a shell command) is never reached: the one state that leads to
// it is left out. The PTZ test property is not here: only the PTZ link's
// test thread reads it, a second after each look.
//
// Input: byte 0 picks the group (see kGroups), byte 1 its variant
// bits, then the values, separated by zero bytes, for the group's
// properties in order (each cut to 91 characters; a missing one is unset).
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "avmanager_hal.h"

#include "camera/cam_detect.h"
#include "camera/detect.h"
#include "camera/ptz_frame.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "common/feature_switches.h"
#include "dsp/dsp_audio.h"
#include "dsp/dsp_link.h"
#include "dsp/dsp_pickup.h"
#include "dsp/dsp_replies.h"
#include "dsp/dsp_restore.h"
#include "dsp/dsp_sound_modes.h"
#include "dsp_commands.h"
#include "fig/dsp_fig.h"
#include "fuzz_starters.h"
#include "process_env.h"

namespace {

using Posted = std::vector<avmtest::PostedRequest>;

constexpr size_t kValueMax = PROPERTY_VALUE_MAX - 1;
constexpr int kPosted = static_cast<int>(sizeof(DspRequest)); // a successful post's result

std::string gPropertyDir;
int gFigPipe[2] = {-1, -1}; // stands in for the Fig port: [1] written by the module, [0] read here
const char *gGroup = "";    // the group under test, for failure reports

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "fuzz_property_values: %s: %s\n", gGroup, what);
    abort();
}

void check(bool ok, const char *what)
{
    if (!ok)
        fail(what);
}

// The thread that runs the inputs, known from the first input on (before
// the module starts any thread of its own).
pthread_t gInputThread;
std::atomic<bool> gInputThreadKnown{false};
// What a stand-in peripheral does while the module pauses on the input
// thread; set and called on that thread only.
std::function<void()> gDuringPause;

void prepare()
{
    if (!gPropertyDir.empty())
        return;
    gInputThread = pthread_self();
    gInputThreadKnown.store(true, std::memory_order_release);
    const std::string root = avmtest::processRoot();
    mkdir((root + "/tmp").c_str(), 0755);
    const char *dir = getenv("AVMANAGER_PROPERTY_DIR");
    gPropertyDir = dir != nullptr && *dir != '\0' ? dir : root + "/properties";
    if (dsp_mkfifo_init() != 0)
        fail("cannot make the DSP request pipe");
    if (pipe2(gFigPipe, O_NONBLOCK | O_CLOEXEC) != 0)
        fail("cannot make the Fig port's stand-in");
    // The user sound mode's bands, as a made-up stereo-enhancer ini gives
    // them (see userModeLine).
    const std::string audio = root + "/mnt/vendor/param/audio";
    mkdir((root + "/mnt").c_str(), 0755);
    mkdir((root + "/mnt/vendor").c_str(), 0755);
    mkdir((root + "/mnt/vendor/param").c_str(), 0755);
    mkdir(audio.c_str(), 0755);
    FILE *ini = fopen((audio + "/quor_stereo_enhancer.ini").c_str(), "w");
    if (ini == nullptr)
        fail("cannot write the stereo-enhancer ini");
    fputs("[user_mode]\n", ini);
    for (int band = 0; band < 8; ++band)
        fprintf(ini, "EQ1%d_FC = %d\nEQ1%d_G = %d\n", band + 1, 125 << band, band + 1, 150 * band - 450);
    fclose(ini);
}

// The user sound mode's line for a band of the made-up ini.
std::string userModeLine(int band)
{
    return "USER_EQ[" + std::to_string(band) + "]=1," + std::to_string(125 << band) + "," +
           std::to_string((150 * band - 450) / 100) + ",1";
}

// Every run starts from an empty store and the module as at process start.
void freshState()
{
    if (DIR *d = opendir(gPropertyDir.c_str())) {
        while (struct dirent *e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                unlinkat(dirfd(d), e->d_name, 0);
        closedir(d);
    }
    detect_resetForTest();
    featureSwitches_resetForTest();
    dspSoundModes_resetForTest();
    dspAudio_resetForTest();
    dspReplies_resetForTest();
    dspFig_resetForTest();
    ptzLink_resetForTest();
    ptzRequests_resetForTest();
    avmtest::drainPostedRequests();
    char sink[64];
    while (read(gFigPipe[0], sink, sizeof sink) > 0) {
    }
}

// ---------------------------------------------------------------- values

// The values of one run, in the order of the group's properties.
struct Values {
    std::vector<std::string> items;
    bool has(size_t i) const { return i < items.size(); }
    // As stored: "" when not given.
    std::string raw(size_t i) const { return has(i) ? items[i] : std::string(); }
    // As read back: the default when not given or empty.
    std::string read(size_t i, const char *fallback) const
    {
        return has(i) && !items[i].empty() ? items[i] : std::string(fallback);
    }
};

Values split(const uint8_t *data, size_t size)
{
    Values values;
    if (size == 0)
        return values;
    values.items.emplace_back();
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\0')
            values.items.emplace_back();
        else if (values.items.back().size() < kValueMax)
            values.items.back() += static_cast<char>(data[i]);
    }
    return values;
}

void setAll(const char *const *keys, size_t count, const Values &values)
{
    for (size_t i = 0; i < count && values.has(i); ++i)
        if (property_set(keys[i], values.items[i].c_str()) != 0)
            fail("property_set refused a value of at most 91 characters");
}

std::string stored(const char *key)
{
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(key, value, "");
    return value;
}

// A decimal number as the module reads one: leading blanks and a sign,
// the digits up to the first other character, 0 without any, clamped to
// the int range.
int decimal(const std::string &text)
{
    const long long v = strtoll(text.c_str(), nullptr, 10);
    return v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : static_cast<int>(v);
}

// What a counter holds after one increment from the value read.
std::string incremented(const std::string &text)
{
    const int count = decimal(text);
    return std::to_string(count >= 0 && count < INT_MAX ? count + 1 : count);
}

std::string formatted(const char *format, double value)
{
    char text[64];
    snprintf(text, sizeof text, format, value);
    return text;
}

bool startsWith1(const std::string &text)
{
    return !text.empty() && text[0] == '1';
}

// ------------------------------------------------------------ properties

constexpr const char *kSoundMode = "persist.zel.dsp.soundMode";
constexpr const char *kVolume = "persist.zel.dsp.volumeVal";
constexpr const char *kBalance = "persist.zel.dsp.balanceVal";
constexpr const char *kTreble = "persist.zel.dsp.trebleVal";
constexpr const char *kBass = "persist.zel.dsp.bassVal";
constexpr const char *kSpkEqMode = "persist.zel.dsp.spkEqMode";
constexpr const char *kAudioOutMode = "persist.zel.dsp.audioOutMode";
constexpr const char *kTestNum = "persist.mic.test_num";
constexpr const char *kFailNum = "persist.mic.fail_num";
constexpr const char *kDualFailNum = "persist.mic.dual_fail_num";
constexpr const char *kMicTestRet = "mic.hw.test.ret";

// ---------------------------------------------------------------- groups

void switches(uint8_t, const Values &v)
{
    static const char *const keys[] = {"persist.vendor.cam.communication", "persist.vendor.dsp.communication",
                                       "persist.sys.dsp.sendDoaToCamera", "persist.vendor.floor_wall"};
    setAll(keys, 4, v);
    bool on[4];
    for (size_t i = 0; i < 4; ++i)
        on[i] = startsWith1(v.read(i, "0"));
    check(enableCameraCommunication() == (on[0] ? 1 : 0), "camera switch");
    check(enableDspCommunication() == (on[1] ? 1 : 0), "DSP switch");
    check(enableSendDoaToCamera() == (on[2] ? 1 : 0), "DOA switch");
    check(enableAudioWallFloorProp() == (on[3] ? 1 : 0), "floor/wall switch");
    // Turned the other way: the cached three keep their first reading, the
    // floor/wall switch follows.
    for (size_t i = 0; i < 4; ++i)
        property_set(keys[i], on[i] ? "0" : "1");
    check(enableCameraCommunication() == (on[0] ? 1 : 0), "camera switch not cached");
    check(enableDspCommunication() == (on[1] ? 1 : 0), "DSP switch not cached");
    check(enableSendDoaToCamera() == (on[2] ? 1 : 0), "DOA switch not cached");
    check(enableAudioWallFloorProp() == (on[3] ? 0 : 1), "floor/wall switch cached");
}

// One stored setting of 0..100 restored through its setter: its result,
// what was posted and what the property holds afterwards.
struct Setting {
    const char *key;
    int (*restore)(void);
    // The requests a value of 0..100 posts.
    std::function<Posted(int)> requests;
    bool persists; // whether an applied value is stored back ("%d")
};

void checkSetting(const Setting &setting, const Values &v, size_t index, const Posted &posted, int ret)
{
    const std::string raw = v.raw(index);
    if (raw.empty()) {
        check(ret == -1, "an unset setting was not skipped");
        check(posted.empty(), "an unset setting posted");
        return;
    }
    const int n = decimal(raw);
    if (n < 0 || n > 100) {
        check(ret == 0, "a setting outside 0..100 was applied");
        check(posted.empty(), "a setting outside 0..100 posted");
        check(stored(setting.key) == raw, "a setting outside 0..100 was not left as stored");
        return;
    }
    check(ret == 1, "a setting of 0..100 was not applied");
    check(posted == setting.requests(n), "a setting posted other requests");
    check(stored(setting.key) == (setting.persists ? std::to_string(n) : raw), "a setting was stored otherwise");
}

Posted volumeRequests(int n)
{
    return {{DSP_CMD_MAIN_VOLUME, formatted("MV=%.2f", convertVolToDb(AUDIO_CHANNEL_MAIN, static_cast<unsigned>(n)))}};
}

Posted balanceRequests(int n)
{
    const float left = n > 50 ? static_cast<float>(100 - n) / 50.0f : 1.0f;
    const float right = n > 50 ? 1.0f : static_cast<float>(n) / 50.0f;
    return {{DSP_CMD_BALANCE, formatted("BAL_LEFT=%.2f", left)}, {DSP_CMD_BALANCE, formatted("BAL_RIGHT=%.2f", right)}};
}

Posted toneRequests(int band, int n)
{
    const std::string head = "USER_EQ[" + std::to_string(band) + "]=6,6000,";
    return {{DSP_CMD_EQ, head + formatted("%.4f", n / 5 - 10) + ",0.7070"}};
}

// Sound mode 0..4 posts eight equaliser lines, one per band in order
// (mode 4's from the made-up ini).
bool sameSoundModeRequests(const Posted &posted, int mode)
{
    if (posted.size() != 8)
        return false;
    for (size_t i = 0; i < posted.size(); ++i) {
        const std::string head = "USER_EQ[" + std::to_string(i) + "]=";
        if (posted[i].cmd != DSP_CMD_EQ || posted[i].text.compare(0, head.size(), head) != 0)
            return false;
        if (mode == DSP_SOUND_MODE_USER && posted[i].text != userModeLine(static_cast<int>(i)))
            return false;
    }
    return true;
}

void restoreSoundMode(uint8_t, const Values &v)
{
    property_set(kSoundMode, v.raw(0).c_str());
    const int ret = initDspSoundMode();
    const Posted posted = avmtest::drainPostedRequests();
    if (v.raw(0).empty()) {
        check(ret == -1 && posted.empty(), "an unset sound mode was not skipped");
        return;
    }
    const int mode = decimal(v.raw(0));
    if (mode < 0 || mode > DSP_SOUND_MODE_USER) {
        check(ret == 0 && posted.empty(), "a sound mode outside 0..4 was applied");
        check(stored(kSoundMode) == v.raw(0), "a sound mode outside 0..4 was not left as stored");
        check(g_soundMode.load() == 0, "a sound mode outside 0..4 became current");
        return;
    }
    check(ret == 1, "a sound mode of 0..4 was not applied");
    check(sameSoundModeRequests(posted, mode), "a sound mode posted other lines");
    check(stored(kSoundMode) == std::to_string(mode), "a sound mode was stored otherwise");
    check(g_soundMode.load() == mode, "a sound mode did not become current");
}

const Setting kVolumeSetting{kVolume, initDspVolume, volumeRequests, true};
const Setting kBalanceSetting{kBalance, initDspBalance, balanceRequests, true};

void restoreVolume(uint8_t, const Values &v)
{
    setAll(&kVolumeSetting.key, 1, v);
    const int ret = kVolumeSetting.restore();
    checkSetting(kVolumeSetting, v, 0, avmtest::drainPostedRequests(), ret);
    if (!v.raw(0).empty() && decimal(v.raw(0)) >= 0 && decimal(v.raw(0)) <= 100)
        check(g_volume.load() == decimal(v.raw(0)), "a restored volume did not become current");
}

void restoreBalance(uint8_t, const Values &v)
{
    setAll(&kBalanceSetting.key, 1, v);
    const int ret = kBalanceSetting.restore();
    checkSetting(kBalanceSetting, v, 0, avmtest::drainPostedRequests(), ret);
}

// Treble and bass persist only in the user sound mode.
void restoreTone(uint8_t, const Values &v)
{
    static const char *const keys[] = {kTreble, kBass, kSoundMode};
    setAll(keys, 3, v);
    const bool user = decimal(v.read(2, "")) == DSP_SOUND_MODE_USER;
    const Setting treble{kTreble, initDspTreble, [](int n) { return toneRequests(6, n); }, user};
    const Setting bass{kBass, initDspBass, [](int n) { return toneRequests(7, n); }, user};
    int ret = treble.restore();
    checkSetting(treble, v, 0, avmtest::drainPostedRequests(), ret);
    ret = bass.restore();
    checkSetting(bass, v, 1, avmtest::drainPostedRequests(), ret);
}

void restoreSpeakerPlacement(uint8_t, const Values &v)
{
    setAll(&kSpkEqMode, 1, v);
    const bool wall = v.read(0, "FOOT") == "WALL";
    check(initDspSpkEqMode() == 1, "the placement was not sent");
    const Posted posted = avmtest::drainPostedRequests();
    check(posted == Posted{{DSP_CMD_FREE_TEXT, wall ? "SPK_EQ_MODE=WALL" : "SPK_EQ_MODE=FOOT"}},
          "the placement posted something else");
    check(stored(kSpkEqMode) == (wall ? "WALL" : "FOOT"), "the placement was stored otherwise");
}

// The whole restore: every step in its order, none stopping the others.
void restoreAll(uint8_t, const Values &v)
{
    static const char *const keys[] = {kSoundMode, kVolume, kBalance, kTreble, kBass, kSpkEqMode};
    setAll(keys, 6, v);
    auto inRange = [&v](size_t i, int top) {
        return !v.raw(i).empty() && decimal(v.raw(i)) >= 0 && decimal(v.raw(i)) <= top;
    };
    std::vector<int32_t> expected;
    if (inRange(0, DSP_SOUND_MODE_USER))
        expected.insert(expected.end(), 8, DSP_CMD_EQ);
    expected.push_back(DSP_CMD_MAIN_MUTE);
    if (inRange(1, 100))
        expected.push_back(DSP_CMD_MAIN_VOLUME);
    if (inRange(2, 100))
        expected.insert(expected.end(), 2, DSP_CMD_BALANCE);
    if (inRange(3, 100))
        expected.push_back(DSP_CMD_EQ);
    if (inRange(4, 100))
        expected.push_back(DSP_CMD_EQ);
    expected.push_back(DSP_CMD_FREE_TEXT);
    check(dspHalInitParameter() == 1, "the restore did not end with the placement sent");
    const Posted posted = avmtest::drainPostedRequests();
    std::vector<int32_t> codes;
    for (const auto &request : posted)
        codes.push_back(request.cmd);
    check(codes == expected, "the restore posted other requests or another order");
    check(posted.back().text == (v.read(5, "FOOT") == "WALL" ? "SPK_EQ_MODE=WALL" : "SPK_EQ_MODE=FOOT"),
          "the restore sent another placement");
}

void getters(uint8_t, const Values &v)
{
    static const char *const keys[] = {kSoundMode, kSpkEqMode, kVolume, kBalance, kTreble, kBass};
    setAll(keys, 6, v);
    const int mode = decimal(v.read(0, ""));
    check(dspHal_get_soundMode() == mode && g_soundMode.load() == mode, "sound mode");
    check(dspHal_get_spk_eq_mode() == (v.read(1, "FOOT") == "WALL" ? 1 : 0), "placement");
    check(dspHal_get_volume(AUDIO_CHANNEL_MAIN) == decimal(v.read(2, "")), "volume");
    check(dspHal_get_balance() == decimal(v.read(3, "")), "balance");
    // The tone controls answer 30 in the preset modes.
    const bool user = mode >= DSP_SOUND_MODE_USER;
    check(dspHal_get_treble() == (user ? decimal(v.read(4, "")) : 30), "treble");
    check(dspHal_get_bass() == (user ? decimal(v.read(5, "")) : 30), "bass");
    check(avmtest::drainPostedRequests().empty(), "a getter posted");
}

// The route query, answered by a stand-in for the receive thread with the
// second value (the first when there is only one), through the route
// reply handler.
void audioOut(uint8_t, const Values &v)
{
    setAll(&kAudioOutMode, 1, v);
    const std::string answer = v.has(1) ? v.raw(1) : v.raw(0);
    Posted seen;
    // The stand-in DSP answers the route query during the module's first
    // pause between looks at the reply flag, as a DSP does within 20 ms.
    gDuringPause = [&] {
        DspRequest request;
        while (dsp_mkfifo_read(&request) > 0) {
            request.text[DSP_REQUEST_TEXT_SIZE - 1] = '\0';
            seen.push_back({request.cmd, request.text});
            if (strcmp(request.text, "AOM=?") == 0)
                dsp_parse_audio_out_mode(answer.c_str());
        }
    };
    const int route = dspHal_get_audioMode();
    gDuringPause = nullptr;
    check(seen == Posted{{DSP_CMD_FREE_TEXT, "AOM=?"}}, "the route query posted something else");
    static const char *const kRoutes[] = {"SPEAKER", "LINEOUT", "EARPHONE", "WIREMIC"};
    const std::string value = answer.empty() ? std::string("SPEAKER") : answer;
    int expected = 0;
    for (int i = 0; i < 4; ++i)
        if (value == kRoutes[i])
            expected = i;
    check(route == expected, "route");
}

// Variant bit 0: the DSP answered "testing" before this pass.
void micStatus(uint8_t variant, const Values &v)
{
    static const char *const keys[] = {"persist.sys.offmic", "persist.mic.en_record_test", "mic.hw.test.req",
                                       kTestNum};
    setAll(keys, 4, v);
    const bool busy = (variant & 1) != 0;
    if (busy)
        dsp_mic_status_update("TESTING");
    const std::string retBefore = stored(kMicTestRet);
    const int ret = detectMicStatus();
    const Posted posted = avmtest::drainPostedRequests();
    // Served only while the microphones are declared off, exactly "true".
    if (v.read(0, "false") != "true") {
        check(ret == 0 && posted.empty(), "served without offmic \"true\"");
        check(stored(kTestNum) == v.raw(3), "counted without offmic \"true\"");
        check(stored(kMicTestRet) == retBefore, "the result changed without offmic \"true\"");
        return;
    }
    const bool recordTest = startsWith1(v.read(1, "0"));
    const std::string count = recordTest ? incremented(v.read(3, "0")) : v.raw(3);
    check(stored(kTestNum) == count, "test count");
    if (!startsWith1(v.read(2, "1"))) {
        check(ret == 0 && posted.empty(), "served without a request");
    } else {
        check(ret == kPosted, "a requested test was not posted");
        check(posted == Posted{{busy ? DSP_CMD_MIC_TEST_RESULT : DSP_CMD_MIC_TEST, ""}}, "test request");
        check(stored(kMicTestRet) == "testing", "a requested test is not marked testing");
    }
    // A second pass counts nothing more.
    detectMicStatus();
    avmtest::drainPostedRequests();
    check(stored(kTestNum) == count, "counted twice in one boot");
}

// Variant bits 0..3: auxiliary test n answered "testing" before this pass.
void micAux(uint8_t variant, const Values &v)
{
    static const char *const keys[] = {"mic.hw.auxtest.num", "mic.hw.auxtest0.req", "mic.hw.auxtest1.req",
                                       "mic.hw.auxtest2.req", "mic.hw.auxtest3.req"};
    setAll(keys, 5, v);
    for (int i = 0; i < MIC_AUX_TEST_MAX; ++i)
        if ((variant >> i) & 1) {
            const std::string answer = "[" + std::to_string(i) + "]=TESTING";
            dsp_mic_aux_test_update(answer.c_str());
        }
    const char first = v.read(0, "1")[0];
    const int count = first >= '1' && first <= '0' + MIC_AUX_TEST_MAX ? first - '0' : 0;
    Posted expected;
    for (int i = 0; i < count; ++i)
        if (startsWith1(v.read(static_cast<size_t>(i) + 1, "0")))
            expected.push_back({DSP_CMD_FREE_TEXT, std::string((variant >> i) & 1 ? "AUX_TEST_RET[" : "AUX_TEST[") +
                                                       std::to_string(i) + "]=?"});
    check(testMicAuxAll() == static_cast<int>(expected.size()), "auxiliary tests served");
    check(avmtest::drainPostedRequests() == expected, "auxiliary test requests");
    for (int i = 0; i < count; ++i)
        if (startsWith1(v.read(static_cast<size_t>(i) + 1, "0")))
            check(stored(("mic.hw.auxtest" + std::to_string(i) + ".ret").c_str()) == "testing",
                  "a served auxiliary test is not marked testing");
}

void micVersion(uint8_t, const Values &v)
{
    static const char *const keys[] = {"persist.sys.dune.version", "persist.sys.dune.update"};
    setAll(keys, 2, v);
    const bool update = startsWith1(v.read(1, ""));
    // The first pass asks unless there is neither a version nor an update
    // flag; the next asks only for the update flag.
    for (bool ask : {update || !v.read(0, "").empty(), update}) {
        check(detectMicVersion() == (ask ? kPosted : 0), "version query result");
        check(avmtest::drainPostedRequests() == (ask ? Posted{{DSP_CMD_VERSION, ""}} : Posted{}), "version query");
    }
}

// Variant bit 0: the record test was seen; bits 1-2: 0 first result not
// decided yet, 1 decided, 2 (and 3) decided with the repeated test
// pending.
void micMonitor(uint8_t variant, const Values &v)
{
    static const char *const keys[] = {"vendor.mic.test.monitor", "vendor.mic.test.ret", kDualFailNum, kFailNum};
    setAll(keys, 4, v);
    const bool monitor = startsWith1(v.read(0, ""));
    check(need_monitor_mic_test() == (monitor ? 1 : 0), "monitor switch");
    const std::string result = v.read(1, "testingNULL");
    const int decided = result.find("testing") != std::string::npos ? 0 : result.find('0') != std::string::npos ? 1 : 2;
    check(get_mic_test_reset() == decided, "monitored result");

    const bool recordTest = (variant & 1) != 0;
    const int stage = (variant >> 1) & 3;
    const bool firstDone = stage >= 1;
    const bool pending = stage >= 2;
    // A failed first result cycles the microphone power: not here.
    if (monitor && !firstDone && decided == 1)
        return;
    detect_setMonitorStateForTest(recordTest ? 1 : 0, firstDone ? 1 : 0, pending ? 1 : 0);
    const bool repeatedFailure = monitor && pending && decided == 1 && recordTest;
    reset_mic_when_first_detect();
    // Settled now: a second look changes nothing more.
    reset_mic_when_first_detect();
    check(stored(kDualFailNum) == (repeatedFailure ? incremented(v.read(2, "0")) : v.raw(2)), "repeated failures");
    check(stored(kFailNum) == v.raw(3), "first failures");
    check(stored("mic.hw.test.req").empty() && stored(kMicTestRet).empty(), "a test was asked for again");
}

// Variant picks the counter.
void counter(uint8_t variant, const Values &v)
{
    static const char *const keys[] = {kTestNum, kFailNum, kDualFailNum};
    const char *key = keys[variant % 3];
    setAll(&key, 1, v);
    propAutoIncrement(key);
    check(stored(key) == incremented(v.read(0, "0")), "counter");
}

void figDebug(uint8_t, const Values &v)
{
    static const char *const key = "persist.sys.dsp_fig_enlog";
    setAll(&key, 1, v);
    const bool on = v.read(0, "0") == "1";
    setDspFigDebugLog();
    check(gDspFigDev.debugLog.load() == (on ? 1 : 0), "Fig debug log");
    // Only ever turned on.
    property_set(key, "0");
    setDspFigDebugLog();
    check(gDspFigDev.debugLog.load() == (on ? 1 : 0), "Fig debug log turned off");
}

// Variant bit 0: the Fig DSP's version is still unknown.
void figVersion(uint8_t variant, const Values &v)
{
    static const char *const key = "persist.sys.fig.dune.update";
    setAll(&key, 1, v);
    const bool unknown = (variant & 1) != 0;
    gDspFigDev.needVersion.store(unknown ? 1 : 0);
    gDspFigDev.fd.store(gFigPipe[1]);
    check(detect_Fig_Dsp_Version() == 0, "Fig version query result");
    gDspFigDev.fd.store(-1);
    char frame[64];
    const ssize_t n = read(gFigPipe[0], frame, sizeof frame);
    const bool asked = unknown || startsWith1(v.read(0, ""));
    check(asked ? n == 16 && frame[0] == '#' : n < 0, "Fig version query");
}

void figFormat(uint8_t, const Values &v)
{
    static const char *const keys[] = {"service.bootvideo.exit", "persist.sys.current.class"};
    setAll(keys, 2, v);
    const bool allowed = v.read(0, "1") == "0" && v.read(1, "none") != "com.tarsa.factoryaging.MainActivity";
    check(enFigSwSoundFormat() == (allowed ? 1 : 0), "sound format switch");
}

void ptzDebug(uint8_t, const Values &v)
{
    static const char *const key = "persist.vendor.cam.debuglevel";
    setAll(&key, 1, v);
    ptzHalInitDebugLevel();
    check(ptzHalGetDebugLevel() == v.read(0, "0")[0] - '0', "PTZ debug level");
}

std::atomic<int> gCameraStatus{-1};

int cameraStatus(int status)
{
    gCameraStatus.store(status);
    return 0;
}

// Variant bit 0: the camera opens (else it closes).
void ptzDejitter(uint8_t variant, const Values &v)
{
    static const char *const key = "persist.vendor.cam.dejitter";
    setAll(&key, 1, v);
    const bool open = (variant & 1) != 0;
    gCameraStatus.store(-1);
    ptz_set_camera_status_callback(cameraStatus);
    if (open)
        ptz_recv_camera_status_open(PTZ_CMD_CAMERA_OPEN, nullptr);
    else
        ptz_recv_camera_status_close(PTZ_CMD_CAMERA_CLOSE, nullptr);
    const Posted zoom = v.read(0, "") == "true" ? Posted{{DSP_CMD_FREE_TEXT, open ? "ZOOM_MODE=1" : "ZOOM_MODE=0"}}
                                                : Posted{};
    check(avmtest::drainPostedRequests() == zoom, "zoom pickup");
    check(ptz_cam_is_open() == (open ? 1u : 0u) && gCameraStatus.load() == (open ? 1 : 0), "camera status");
}

void ptzModel(uint8_t, const Values &v)
{
    static const char *const keys[] = {"persist.vendor.product.model", "ro.product.vendor.model"};
    setAll(keys, 2, v);
    std::string model = v.read(0, "");
    if (model.empty())
        model = v.read(1, "");
    if (model.size() > PTZ_PKT_DATA_SIZE)
        model.resize(PTZ_PKT_DATA_SIZE);
    PtzPacket packet;
    memset(&packet, 0, sizeof packet);
    const PtzMsg msg{PTZ_CMD_GET_PRODUCT_MODEL, 0};
    initPktData(&packet, &msg);
    check(packet.length == model.size(), "model length");
    check(memcmp(packet.data, model.data(), model.size()) == 0, "model bytes");
    for (size_t i = model.size(); i < PTZ_PKT_DATA_SIZE; ++i)
        check(packet.data[i] == 0, "bytes after the model");
}

// ---------------------------------------------------------------- table

struct Group {
    const char *name;
    void (*run)(uint8_t variant, const Values &values);
    int weight; // share of the 256 selector values
};

// Each group's share of the selector values. The selector byte of every
// kept input depends on them, so they stay as they are.
constexpr Group kGroups[] = {
    {"switches", switches, 18},           {"restore sound mode", restoreSoundMode, 18},
    {"restore volume", restoreVolume, 16}, {"restore balance", restoreBalance, 4},
    {"restore tone", restoreTone, 16},    {"restore placement", restoreSpeakerPlacement, 14},
    {"restore all", restoreAll, 4},       {"getters", getters, 18},
    {"audio-out", audioOut, 2},           {"mic-status", micStatus, 16},
    {"mic-aux", micAux, 16},              {"mic-version", micVersion, 14},
    {"mic-monitor", micMonitor, 18},      {"counter", counter, 16},
    {"fig-debug", figDebug, 10},          {"fig-version", figVersion, 12},
    {"fig-format", figFormat, 12},        {"ptz-debug", ptzDebug, 10},
    {"ptz-dejitter", ptzDejitter, 10},    {"ptz-model", ptzModel, 12},
};
constexpr size_t kGroupCount = sizeof kGroups / sizeof kGroups[0];

constexpr int totalWeight()
{
    int sum = 0;
    for (const Group &group : kGroups)
        sum += group.weight;
    return sum;
}
static_assert(totalWeight() == 256, "every selector value picks a group");

const Group &groupOf(uint8_t selector)
{
    int left = selector;
    for (const Group &group : kGroups) {
        if (left < group.weight)
            return group;
        left -= group.weight;
    }
    return kGroups[kGroupCount - 1];
}

// The first selector value of a group.
char selectorOf(const char *name)
{
    int first = 0;
    for (const Group &group : kGroups) {
        if (strcmp(group.name, name) == 0)
            return static_cast<char>(first);
        first += group.weight;
    }
    abort();
}

std::string input(const char *group, uint8_t variant, const std::vector<std::string> &values)
{
    std::string out;
    out += selectorOf(group);
    out += static_cast<char>(variant);
    for (size_t i = 0; i < values.size(); ++i) {
        if (i > 0)
            out += '\0';
        out += values[i];
    }
    return out;
}

} // namespace

// Values as the device's tools and settings store them: switches on and
// off, stored settings in and out of range, placements, routes, the
// microphone test properties a factory tool writes, counters, the Fig and
// PTZ properties.
std::vector<std::string> avmfuzz::starters()
{
    return {input("switches", 0, {"1", "0", "true", "10"}),
            input("restore sound mode", 0, {"4"}),
            input("restore volume", 0, {"65"}),
            input("restore balance", 0, {"50"}),
            input("restore tone", 0, {"70", "101", "4"}),
            input("restore placement", 0, {"WALL"}),
            input("restore all", 0, {"2", "40", "75", "55", "45", "FOOT"}),
            input("getters", 0, {"4", "WALL", "30", "50", "60", "40"}),
            input("audio-out", 0, {"SPEAKER", "LINEOUT"}),
            input("mic-status", 1, {"true", "1", "1", "7"}),
            input("mic-aux", 2, {"3", "1", "1", "0", "1"}),
            input("mic-version", 0, {"DUNE_V2.01.07", "1"}),
            input("mic-monitor", 5, {"1", "0111", "4", "1"}),
            input("counter", 1, {"41"}),
            input("fig-debug", 0, {"1"}),
            input("fig-version", 0, {"1"}),
            input("fig-format", 0, {"0", "com.tarsa.factoryaging.MainActivity"}),
            input("ptz-debug", 0, {"2"}),
            input("ptz-dejitter", 1, {"true"}),
            input("ptz-model", 0, {"", "XLM-PR417 conference bar with a model name longer than 56 chars"})};
}

// The harness's clock: on the thread that runs the inputs a pause of the
// module passes at once, after the stand-in peripheral of the group under
// test (if any) has done what it does meanwhile. The module's pauses only
// give a peripheral time to act, and here none acts on its own, so an
// input runs in microseconds instead of up to 20 ms. Other threads sleep
// for real.
extern "C" int usleep(useconds_t microseconds)
{
    if (gInputThreadKnown.load(std::memory_order_acquire) && pthread_equal(pthread_self(), gInputThread) != 0) {
        if (gDuringPause)
            gDuringPause();
        return 0;
    }
    struct timespec left = {static_cast<time_t>(microseconds / 1000000),
                            static_cast<long>(microseconds % 1000000) * 1000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    prepare();
    freshState();
    const Group &group = groupOf(size > 0 ? data[0] : 0);
    const uint8_t variant = size > 1 ? data[1] : 0;
    const Values values = split(size > 2 ? data + 2 : data, size > 2 ? size - 2 : 0);
    gGroup = group.name;
    group.run(variant, values);
    return 0;
}
