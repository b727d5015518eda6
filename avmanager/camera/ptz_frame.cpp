/*
 * PTZ frames: head, checksum, the command table and the payload builder of
 * the 64-byte frames exchanged with the PTZ camera.
 *
 * Threads: any thread that sends a frame (service threads, the PTZ sender,
 * receiver and test threads) builds it here; the functions keep no state.
 * gPtzProtocolTable is fixed data, never written at run time.
 */
#include "camera/ptz_frame.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <android/log.h>
#include <cutils/properties.h>

#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "dsp/dsp_pickup.h"

#define LOG_TAG "PTZ"
#define LOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)

namespace {

constexpr char kProductModelProp[] = "persist.vendor.product.model";
constexpr char kVendorModelProp[] = "ro.product.vendor.model";
constexpr size_t kShowTextMax = 512; // characters of one hex dump line

} // namespace

extern "C" {

// Host-initiated rows (waitReply) are answered by the camera with sub + 1;
// camera-initiated rows (replyOnRecv) are answered by the host with its
// send codes. Rows 18 and 19 share one response and therefore one slot.
PtzProtocolEntry gPtzProtocolTable[PTZ_CMD_MAX] = {
    {PTZ_CMD_CAMERA_OPEN, 0x20, 0x01, 0, 0x20, 0x00, 1, &gPtzRecvOpenResponse},
    {PTZ_CMD_CAMERA_CLOSE, 0x20, 0x03, 0, 0x20, 0x02, 1, &gPtzRecvCloseResponse},
    // The DOA is sent blind: no reply is waited for or expected.
    {PTZ_CMD_SEND_DOA, 0x21, 0x00, 0, 0x21, 0x01, 0, nullptr},
    {PTZ_CMD_SEND_USB_CHANNEL, 0x21, 0x02, 1, 0x21, 0x03, 0, nullptr},
    {PTZ_CMD_GET_PRODUCT_MODEL, 0x21, 0x05, 0, 0x21, 0x04, 1, nullptr},
    {PTZ_CMD_SET_AUTOTEST, 0x21, 0x06, 1, 0x21, 0x07, 0, nullptr},
    {PTZ_CMD_GET_AUTOTEST_RESULT, 0x21, 0x08, 1, 0x21, 0x09, 0, &gPtzAutotestResponse},
    {PTZ_CMD_GET_ISP_ENV, 0x21, 0x10, 1, 0x21, 0x11, 0, &gPtzIspEnvResponse},
    {PTZ_CMD_GET_ANGLE_LISTEN_MODEL, 0x31, 0x1A, 1, 0x31, 0x1B, 0, &gPtzAngleListenModelResponse},
    {PTZ_CMD_SET_SMART_LISTEN_REPORT, 0x31, 0x1C, 1, 0x31, 0x1D, 0, nullptr},
    {PTZ_CMD_ANGLE_REPORT, 0x31, 0x1F, 0, 0x31, 0x1E, 1, &gPtzAngleReportResponse},
    {PTZ_CMD_GET_DOA_STATUS, 0x21, 0x15, 0, 0x21, 0x14, 1, nullptr},
    {PTZ_CMD_SET_DOA_STATUS, 0x21, 0x13, 0, 0x21, 0x12, 1, &gPtzDoaStatusSetResponse},
    {PTZ_CMD_SET_ELECTRONIC_PTZ_STATUS, 0x20, 0x94, 1, 0x20, 0x95, 0, nullptr},
    {PTZ_CMD_GET_ELECTRONIC_PTZ_STATUS, 0x20, 0x92, 1, 0x20, 0x93, 0, &gPtzElectronicPtzStatusResponse},
    {PTZ_CMD_SET_ELECTRONIC_PTZ_MODE, 0x20, 0x96, 1, 0x20, 0x97, 0, nullptr},
    {PTZ_CMD_GET_ELECTRONIC_PTZ_MODE, 0x20, 0xB0, 1, 0x20, 0xB1, 0, &gPtzElectronicPtzModeResponse},
    {PTZ_CMD_RESET_FACTORY_PARAMETERS, 0x20, 0xA0, 1, 0x20, 0xA1, 0, nullptr},
    {PTZ_CMD_GET_CURRENT_TEMPERATURE, 0x20, 0xBA, 1, 0x20, 0xBB, 0, &gPtzTemperatureResponse},
    {PTZ_CMD_GET_LIMIT_MAX_TEMPERATURE, 0x20, 0xBC, 1, 0x20, 0xBD, 0, &gPtzTemperatureResponse},
    {PTZ_CMD_GET_FUNCLIST, 0x31, 0xFE, 1, 0x31, 0xFF, 0, &gPtzFunclistResponse},
    {PTZ_CMD_GET_SUPPORT_BLACK_SCREEN, 0x20, 0xF4, 1, 0x20, 0xF5, 0, &gPtzSupportBlackScreenResponse},
    {PTZ_CMD_SET_AUTO_BLACK_SCREEN, 0x20, 0xF6, 1, 0x20, 0xF7, 0, nullptr},
    {PTZ_CMD_GET_AUTO_BLACK_SCREEN, 0x20, 0xF8, 1, 0x20, 0xF9, 0, &gPtzAutoBlackScreenResponse},
};

void initPktHead(uint8_t *head)
{
    // The head goes out as the little-endian word 0xBBAA followed by 0xCC.
    const uint16_t word = 0xBBAA;
    head[0] = static_cast<uint8_t>(word & 0xFF);
    head[1] = static_cast<uint8_t>(word >> 8);
    head[2] = PTZ_PKT_HEAD2;
}

PtzProtocolEntry *getPtzProtocolByCmd(uint32_t id)
{
    for (auto &entry : gPtzProtocolTable) {
        if (entry.cmd == id)
            return &entry;
    }
    return nullptr;
}

void initPktData(PtzPacket *pkt, const PtzMsg *msg)
{
    const PtzProtocolEntry *entry = getPtzProtocolByCmd(msg->cmd);
    if (entry) {
        pkt->main = entry->sendMain;
        pkt->sub = entry->sendSub;
    }
    switch (msg->cmd) {
    case PTZ_CMD_SEND_DOA:
        // Little-endian; only the low 16 bits of the value reach the camera.
        pkt->length = 2;
        pkt->data[0] = static_cast<uint8_t>(msg->value & 0xFF);
        pkt->data[1] = static_cast<uint8_t>((msg->value >> 8) & 0xFF);
        break;
    case PTZ_CMD_SEND_USB_CHANNEL:
    case PTZ_CMD_SET_AUTOTEST:
    case PTZ_CMD_SET_SMART_LISTEN_REPORT:
    case PTZ_CMD_SET_ELECTRONIC_PTZ_STATUS:
    case PTZ_CMD_SET_ELECTRONIC_PTZ_MODE:
    case PTZ_CMD_SET_AUTO_BLACK_SCREEN:
        pkt->length = 1;
        pkt->data[0] = static_cast<uint8_t>(msg->value & 0xFF);
        break;
    case PTZ_CMD_GET_PRODUCT_MODEL: {
        char model[PROPERTY_VALUE_MAX] = {0};
        property_get(kProductModelProp, model, "");
        if (model[0] == '\0')
            property_get(kVendorModelProp, model, "");
        LOGI("get model:%s", model);
        size_t len = std::min(strnlen(model, sizeof model), static_cast<size_t>(PTZ_PKT_DATA_SIZE));
        pkt->length = static_cast<uint8_t>(len);
        memcpy(pkt->data, model, len);
        // The camera asks for the model when it starts: tell it the USB
        // channel again at the same time, if one was ever set.
        uint32_t channel = gUsbChannelInfo.load(std::memory_order_relaxed);
        if (channel != PTZ_USB_CHANNEL_NONE)
            sendUsbChannelInfoToCameraPipe(channel);
        break;
    }
    case PTZ_CMD_GET_DOA_STATUS:
        pkt->length = 1;
        pkt->data[0] = dspHal_get_doa_status() != 0 ? 1 : 0;
        break;
    default:
        pkt->length = 0;
        break;
    }
    if (ptzHalGetDebugLevel() >= 1)
        LOGI("PTZ_CMD_SEND(%d)(%d):data[0]:%hhx,data[1]:%hhx\n", static_cast<int>(msg->cmd),
             static_cast<int>(msg->value), pkt->data[0], pkt->data[1]);
}

uint8_t KSProtocalCalcCheckSum(const uint8_t *buf, int len)
{
    uint8_t sum = 0;
    for (int i = 0; i < len; ++i)
        sum = static_cast<uint8_t>(sum + buf[i]);
    return sum;
}

void showPktData(const char *label, const uint8_t *buf, int len)
{
    char text[kShowTextMax + 1] = {0};
    size_t used = 0;
    for (int i = 0; i < len && used + 2 <= kShowTextMax; ++i) {
        snprintf(text + used, sizeof text - used, "%.2hhx", buf[i]);
        used += 2;
    }
    LOGI("%s[%d]:%s\n", label, len, text);
}

} // extern "C"
