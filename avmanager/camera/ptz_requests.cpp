/*
 * Camera requests and replies: the camera operations the service offers,
 * each turned into one or two PTZ commands, the handlers the receiver calls
 * for the camera's replies and notifications, the camera-open state and the
 * client's camera status callback.
 *
 * Threads: requests run on service threads (and the PTZ test thread);
 * handlers run on the PTZ receiver thread. A request pre-fills its row's
 * result slot, sends, and reads the slot back whatever the link returned.
 * The slots are touched only under gPtzResultLock, so a reply that arrives
 * late (after its requester gave up) still lands in the slot without racing
 * the next request's pre-fill. The function list is handed out by pointer
 * and read by the caller without the lock.
 *
 * State:
 *  mCameraStatusCallback  set by service threads; called on the receiver
 *                         (or test) thread;
 *  gCamIsOpen             written by the receiver; read anywhere;
 *  gSmartListenReport     written by service threads; read by the receiver;
 *  gUsbChannelInfo        written by service threads; read by whoever builds
 *                         a product-model answer;
 *  result slots           under gPtzResultLock (receiver and requesters).
 */
#include "camera/ptz_requests.h"

#include <cstring>
#include <mutex>

#include <android/log.h>
#include <cutils/properties.h>

#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "dsp/dsp_pickup.h"

#define LOG_TAG "PTZ"
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr char kDejitterProp[] = "persist.vendor.cam.dejitter";
constexpr uint32_t kNoTemperature = 0xFFFFFFFFu;
constexpr int32_t kNoAutotest = -1;
constexpr uint32_t kFollowSoundSourceMode = 2; // electronic PTZ mode that follows the talker
constexpr int kAutotestBits = 4;

struct IspEnvSlot {
    uint32_t first;  // data[0]
    uint32_t second; // frame bytes 8..11, big-endian
    uint32_t third;  // frame bytes 12..15, big-endian
};

std::mutex gPtzResultLock; // guards every result slot below

int32_t gAutotestSlot = kNoAutotest;            // row 6
IspEnvSlot gIspEnvSlot{};                       // row 7
uint8_t gAngleListenModelSlot = 0;              // row 8
uint8_t gElectronicPtzStatusSlot = 0;           // row 14
uint32_t gElectronicPtzModeSlot = 0;            // row 16
uint32_t gTemperatureSlot = kNoTemperature;     // rows 18 and 19, shared
uint8_t gFunclistSlot[PTZ_FUNCLIST_SLOT_SIZE];  // row 20: length byte + 56 data bytes
uint8_t gSupportBlackScreenSlot = 0;            // row 21
uint8_t gAutoBlackScreenSlot = 0;               // row 23

std::atomic<PtzCameraStatusCallback> mCameraStatusCallback{nullptr};
std::atomic<uint32_t> gCamIsOpen{0};
std::atomic<uint8_t> gSmartListenReport{0};

bool debugOn()
{
    return ptzHalGetDebugLevel() >= 1;
}

int send(uint32_t cmd, uint32_t value)
{
    return ptz_tx_protocol_handle(PtzMsg{cmd, value});
}

uint32_t bigEndian32(const uint8_t *bytes)
{
    return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
           (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

// Pre-fills a slot with the query's default, sends, and reads it back
// whatever the link returned.
template <typename T> T queryWithDefault(uint32_t cmd, T &slot, T fallback)
{
    {
        std::lock_guard<std::mutex> lock(gPtzResultLock);
        slot = fallback;
    }
    send(cmd, 0); // the send result is deliberately ignored: the slot tells
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    return slot;
}

// Open and close share one sequence: flag, zoom pickup when de-jitter is
// on, then the client's callback.
void cameraStatusChanged(uint32_t open)
{
    gCamIsOpen.store(open);
    char value[PROPERTY_VALUE_MAX] = {0};
    property_get(kDejitterProp, value, "");
    if (strcmp(value, "true") == 0)
        dspHal_set_zoom_enable(static_cast<int>(open));
    PtzCameraStatusCallback callback = mCameraStatusCallback.load();
    if (callback)
        callback(static_cast<int>(open));
}

// A one-byte flag reply: data[0] != 0 when the length is 1, else 0 with the
// length logged at error level.
void storeFlagReply(const char *name, uint8_t &slot, const PtzPacket *pkt)
{
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    if (pkt->length == 1) {
        slot = pkt->data[0] != 0 ? 1 : 0;
        if (debugOn())
            LOGI("%s : %x \n", name, slot);
    } else {
        slot = 0;
        LOGE("%s len = %d \n", name, pkt->length);
    }
}

} // namespace

std::atomic<uint32_t> gUsbChannelInfo{PTZ_USB_CHANNEL_NONE};

extern "C" {

PtzResponse gPtzRecvOpenResponse = {ptz_recv_camera_status_open, nullptr, 0};
PtzResponse gPtzRecvCloseResponse = {ptz_recv_camera_status_close, nullptr, 0};
PtzResponse gPtzAutotestResponse = {ptz_respond_get_autotest_result, &gAutotestSlot, sizeof gAutotestSlot};
PtzResponse gPtzIspEnvResponse = {ptz_respond_get_isp_env_result, &gIspEnvSlot, sizeof gIspEnvSlot};
PtzResponse gPtzAngleListenModelResponse = {ptz_respond_get_angle_listen_model, &gAngleListenModelSlot,
                                            sizeof gAngleListenModelSlot};
PtzResponse gPtzAngleReportResponse = {ptz_recv_angle_report, nullptr, 0};
PtzResponse gPtzDoaStatusSetResponse = {ptz_recv_doa_status_set, nullptr, 0};
PtzResponse gPtzElectronicPtzStatusResponse = {ptz_respond_get_electronic_ptz_status, &gElectronicPtzStatusSlot,
                                               sizeof gElectronicPtzStatusSlot};
PtzResponse gPtzElectronicPtzModeResponse = {ptz_respond_get_electronic_ptz_mode, &gElectronicPtzModeSlot,
                                             sizeof gElectronicPtzModeSlot};
PtzResponse gPtzTemperatureResponse = {ptz_respond_get_temperature_value_result, &gTemperatureSlot,
                                       sizeof gTemperatureSlot};
PtzResponse gPtzFunclistResponse = {ptz_respond_get_funclist_value_result, gFunclistSlot, sizeof gFunclistSlot};
PtzResponse gPtzSupportBlackScreenResponse = {ptz_respond_get_support_black_screen, &gSupportBlackScreenSlot,
                                              sizeof gSupportBlackScreenSlot};
PtzResponse gPtzAutoBlackScreenResponse = {ptz_respond_get_auto_black_screen, &gAutoBlackScreenSlot,
                                           sizeof gAutoBlackScreenSlot};

/* ---- requests ---- */

int ptz_send_usb_channel_info(uint32_t channel)
{
    // Recorded first so a later product-model question re-sends it.
    gUsbChannelInfo.store(channel);
    return sendUsbChannelInfoToCameraPipe(channel);
}

int ptz_set_autotest(uint32_t value)
{
    return sendAutoTestToCameraPipe(value);
}

int ptz_get_autotest_status(void)
{
    return queryWithDefault<int32_t>(PTZ_CMD_GET_AUTOTEST_RESULT, gAutotestSlot, kNoAutotest);
}

int ptz_get_isp_env(int32_t *pair)
{
    // No default is written: only this query looks at the send result.
    if (send(PTZ_CMD_GET_ISP_ENV, 0) < 1)
        return 1;
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    if (pair) {
        pair[0] = static_cast<int32_t>(gIspEnvSlot.second);
        pair[1] = static_cast<int32_t>(gIspEnvSlot.third);
    }
    return static_cast<int>(gIspEnvSlot.first);
}

void ptz_set_camera_status_callback(PtzCameraStatusCallback callback)
{
    mCameraStatusCallback.store(callback);
}

// Plays an open and then a close notification, logs and callbacks
// included, so a client can check its callback without a camera.
void ptz_test_camera_status_callback(void)
{
    ptz_recv_camera_status_open(PTZ_CMD_CAMERA_OPEN, nullptr);
    ptz_recv_camera_status_close(PTZ_CMD_CAMERA_CLOSE, nullptr);
}

int ptz_get_angle_listen_model(void)
{
    return queryWithDefault<uint8_t>(PTZ_CMD_GET_ANGLE_LISTEN_MODEL, gAngleListenModelSlot, 0) != 0 ? 1 : 0;
}

int ptz_set_smart_listen_report_status(uint8_t status)
{
    LOGI("ptz_set_smart_listen_report_status, status : %d \n", status);
    gSmartListenReport.store(status);
    return send(PTZ_CMD_SET_SMART_LISTEN_REPORT, status) > 0 ? 1 : 0;
}

int ptz_set_cam_follow_sound_source_mode(int on)
{
    LOGI("ptz_set_cam_follow_sound_source_mode, status : %d \n", on);
    if (on) {
        if (send(PTZ_CMD_SET_ELECTRONIC_PTZ_STATUS, 1) < 1)
            return 0;
        return send(PTZ_CMD_SET_ELECTRONIC_PTZ_MODE, kFollowSoundSourceMode) > 0 ? 1 : 0;
    }
    // Switching off leaves the camera's mode untouched.
    return send(PTZ_CMD_SET_ELECTRONIC_PTZ_STATUS, 0) > 0 ? 1 : 0;
}

int ptz_get_cam_follow_sound_source_mode(void)
{
    uint8_t status = queryWithDefault<uint8_t>(PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS, gElectronicPtzStatusSlot, 0);
    LOGI("PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS, status : %d \n", status);
    if (status == 0)
        return 0;
    uint32_t mode = queryWithDefault<uint32_t>(PTZ_CMD_GET_ELECTRONIC_PTZ_MODE, gElectronicPtzModeSlot, 0);
    // The mode is logged with the status text, kept as it is.
    LOGI("PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS, status : %d \n", static_cast<int>(mode));
    return mode == kFollowSoundSourceMode ? 1 : 0;
}

int ptz_cam_reset_factory_parameters(void)
{
    LOGI("%s \n", __func__);
    return send(PTZ_CMD_RESET_FACTORY_PARAMETERS, 0) > 0 ? 1 : 0;
}

uint32_t ptz_get_cam_current_temperature(void)
{
    uint32_t value = queryWithDefault<uint32_t>(PTZ_CMD_GET_CURRENT_TEMPERATURE, gTemperatureSlot, kNoTemperature);
    if (debugOn())
        LOGI("ptz_get_cam_current_temperature, temperature : %d \n", static_cast<int>(value));
    return value;
}

uint32_t ptz_get_cam_limit_max_temperature(void)
{
    uint32_t value = queryWithDefault<uint32_t>(PTZ_CMD_GET_LIMIT_MAX_TEMPERATURE, gTemperatureSlot, kNoTemperature);
    if (debugOn())
        LOGI("ptz_get_cam_limit_max_temperature, temperature : %d \n", static_cast<int>(value));
    return value;
}

// Fetched once per process: a list with a non-zero length is returned from
// the slot without asking the camera again.
uint8_t *ptz_get_cam_funclist(void)
{
    uint8_t length;
    {
        std::lock_guard<std::mutex> lock(gPtzResultLock);
        length = gFunclistSlot[0];
    }
    if (length != 0)
        return gFunclistSlot;
    send(PTZ_CMD_GET_FUNCLIST, 0);
    return gFunclistSlot;
}

int ptz_get_cam_support_black_screen(void)
{
    uint8_t value = queryWithDefault<uint8_t>(PTZ_CMD_GET_SUPPORT_BLACK_SCREEN, gSupportBlackScreenSlot, 0);
    // The text says temperature although it reports a flag; kept as it is.
    if (debugOn())
        LOGI("ptz_get_cam_support_black_screen, temperature : %d \n", value);
    return value;
}

int ptz_cam_set_auto_black_screen(uint8_t status)
{
    LOGI("ptz_cam_set_auto_black_screen, status : %d \n", status);
    return send(PTZ_CMD_SET_AUTO_BLACK_SCREEN, status) > 0 ? 1 : 0;
}

int ptz_get_cam_auto_black_screen(void)
{
    uint8_t value = queryWithDefault<uint8_t>(PTZ_CMD_GET_AUTO_BLACK_SCREEN, gAutoBlackScreenSlot, 0);
    // The text says temperature although it reports a flag; kept as it is.
    if (debugOn())
        LOGI("ptz_get_cam_auto_black_screen, temperature : %d \n", value);
    return value;
}

uint32_t ptz_cam_is_open(void)
{
    return gCamIsOpen.load();
}

/* ---- handlers (receiver thread) ---- */

void ptz_recv_camera_status_open(uint32_t, const PtzPacket *)
{
    LOGI("ptz_recv_camera_status_open\n");
    cameraStatusChanged(1);
}

void ptz_recv_camera_status_close(uint32_t, const PtzPacket *)
{
    LOGI("ptz_recv_camera_status_close\n");
    cameraStatusChanged(0);
}

// Steers the microphone bar only while smart-listen reporting is on. The
// length byte is not checked and data[0] is not used.
void ptz_recv_angle_report(uint32_t, const PtzPacket *pkt)
{
    if (gSmartListenReport.load() == 1)
        dspHal_set_mic_bar_angle(pkt->data[1], pkt->data[2], 0);
}

void ptz_recv_doa_status_set(uint32_t, const PtzPacket *pkt)
{
    LOGI("ptz_recv_doa_status_set  to Mic 3308, status : %d \n", pkt->data[0]);
    if (pkt->length == 1)
        dspHal_set_doa_status(pkt->data[0] == 1 ? 1 : 0);
}

void ptz_respond_get_autotest_result(uint32_t, const PtzPacket *pkt)
{
    LOGI("ptz_respond_get_autotest_result\n");
    int32_t mask = 0;
    for (int i = 0; i < pkt->length && i < kAutotestBits; ++i) {
        if (pkt->data[i] != 0)
            mask |= 1 << i;
    }
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    gAutotestSlot = mask;
}

// The ISP values are big-endian on the wire, unlike what the host sends.
void ptz_respond_get_isp_env_result(uint32_t, const PtzPacket *pkt)
{
    LOGI("%s\n", "ptz_respond_get_isp_env_result");
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    gIspEnvSlot.first = pkt->data[0];
    gIspEnvSlot.second = bigEndian32(&pkt->data[1]);
    gIspEnvSlot.third = bigEndian32(&pkt->data[5]);
}

void ptz_respond_get_angle_listen_model(uint32_t, const PtzPacket *pkt)
{
    LOGI("ptz_respond_get_angle_listen_model, result size: %d \n", pkt->length);
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    gAngleListenModelSlot = (pkt->length == 1 && pkt->data[0] == 1) ? 1 : 0;
}

void ptz_respond_get_electronic_ptz_status(uint32_t, const PtzPacket *pkt)
{
    LOGI("ptz_respond_get_electronic_ptz_status, result size: %d \n", pkt->length);
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    gElectronicPtzStatusSlot = (pkt->length == 1 && pkt->data[0] == 1) ? 1 : 0;
}

void ptz_respond_get_electronic_ptz_mode(uint32_t, const PtzPacket *pkt)
{
    LOGI("ptz_respond_get_electronic_ptz_mode, result size: %d \n", pkt->length);
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    // Any other length leaves the requester's default in place.
    if (pkt->length == 1)
        gElectronicPtzModeSlot = pkt->data[0];
}

// Serves rows 18 and 19 alike: both write the one shared slot, so a late
// reply to one lands where the other reads.
void ptz_respond_get_temperature_value_result(uint32_t, const PtzPacket *pkt)
{
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    if (pkt->length == 1) {
        gTemperatureSlot = pkt->data[0];
        if (debugOn())
            LOGI("ptz_respond_get_temperature_value_result : %d \n", static_cast<int>(gTemperatureSlot));
    } else {
        gTemperatureSlot = 0;
        LOGE("ptz_respond_get_temperature_value_result len = %d \n", pkt->length);
    }
}

// The length byte and all 56 data bytes are copied whatever the length
// says; the debug lines repeat once for every byte copied.
void ptz_respond_get_funclist_value_result(uint32_t, const PtzPacket *pkt)
{
    std::lock_guard<std::mutex> lock(gPtzResultLock);
    gFunclistSlot[0] = pkt->length;
    for (int i = 0; i < PTZ_PKT_DATA_SIZE; ++i) {
        gFunclistSlot[1 + i] = pkt->data[i];
        if (debugOn()) {
            LOGI("ptz_respond_get_funclist_value_result: valid length = %d\n", pkt->length);
            LOGI("ptz_respond_get_funclist_value_result: data = %2X %2X %2X\n", pkt->data[0], pkt->data[1],
                 pkt->data[2]);
        }
    }
}

void ptz_respond_get_support_black_screen(uint32_t, const PtzPacket *pkt)
{
    storeFlagReply("ptz_respond_get_support_black_screen", gSupportBlackScreenSlot, pkt);
}

void ptz_respond_get_auto_black_screen(uint32_t, const PtzPacket *pkt)
{
    storeFlagReply("ptz_respond_get_auto_black_screen", gAutoBlackScreenSlot, pkt);
}

} // extern "C"

#ifdef AVM_HOST_BUILD
void ptzRequests_resetForTest()
{
    gAutotestSlot = kNoAutotest;
    gIspEnvSlot = {};
    gAngleListenModelSlot = 0;
    gElectronicPtzStatusSlot = 0;
    gElectronicPtzModeSlot = 0;
    gTemperatureSlot = kNoTemperature;
    std::memset(gFunclistSlot, 0, sizeof gFunclistSlot);
    gSupportBlackScreenSlot = 0;
    gAutoBlackScreenSlot = 0;
    mCameraStatusCallback.store(nullptr);
    gCamIsOpen.store(0);
    gSmartListenReport.store(0);
    gUsbChannelInfo.store(PTZ_USB_CHANNEL_NONE);
}
#endif
