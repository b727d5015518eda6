// Arbitrary HID reports from the camera through the log download's
// receiving side, at every stage of a file, and through the version
// answer's text: whatever the camera sends, nothing is read or written
// outside a buffer, and the save file holds no more than the data the
// reports carried.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "camera/cam_logs.h"
#include "process_env.h"

namespace {

// What the receive thread does with a report that carries the version
// head: the text from byte 7, cut at the read's end.
void versionText(const uint8_t *report, size_t n)
{
    uint8_t buffer[HIDRAW_RECV_MAX + 1] = {};
    memcpy(buffer, report, n);
    buffer[n] = 0;
    detectHal_camera_version_update(n > 7 ? reinterpret_cast<const char *>(buffer + 7) : "");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string save = avmtest::processRoot() + "/fuzz-cam.log";
    if (size == 0) {
        handleRecvCamHidMsg(data, 0);
        return 0;
    }
    // Byte 0 picks the stage the download is in; the rest is cut into
    // reports whose sizes the input chooses too (at most one read's 1024
    // bytes), each starting, now and then, with a real head.
    const uint32_t stage = data[0] % 6;
    remove(save.c_str());
    cam_logs_resetForTest(stage, save.c_str());
    setCamHidTransferFileDebug(data[0] & 0x80);
    size_t carried = 0;
    size_t off = 1;
    while (off < size) {
        const size_t want = 1 + (data[off] * 7u) % HIDRAW_RECV_MAX;
        const size_t n = size - off < want ? size - off : want;
        uint8_t report[HIDRAW_RECV_MAX];
        memcpy(report, data + off, n);
        switch (data[off] % 4) {
        case 0:
            if (n >= 5) {
                const uint8_t ack[] = {0xAA, 0xBB, 0xCC, 0x26, 0x03};
                memcpy(report, ack, sizeof ack);
            }
            break;
        case 1:
            if (n >= 2) {
                report[0] = 0xBB;
                report[1] = 0x02;
            }
            break;
        case 2:
            if (n >= 5) {
                const uint8_t version[] = {0xAA, 0xBB, 0xCC, 0x20, 0x07};
                memcpy(report, version, sizeof version);
                versionText(report, n);
            }
            break;
        default:
            break;
        }
        if (n >= 2 && report[0] == 0xBB && report[1] == 0x02)
            carried += n - 2;
        handleRecvCamHidMsg(report, static_cast<int>(n));
        off += n;
    }
    cam_logs_resetForTest(CAM_FILE_IDLE, nullptr);
    struct stat st;
    if (stat(save.c_str(), &st) == 0 && static_cast<size_t>(st.st_size) > carried)
        abort();
    return 0;
}
