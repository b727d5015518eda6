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
#include <algorithm>
#include <string>
#include <vector>

#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "camera/cam_logs.h"
#include "fuzz_starters.h"
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

// One report of the input format: its first byte picks the kind (its
// value modulo 4) and the length (1 + 7 × value), the rest is the report
// after the head the harness writes in.
std::string report(uint8_t lead, const std::string &after)
{
    std::string r(1 + 7u * lead, '\0');
    r[0] = static_cast<char>(lead);
    r.replace(5, std::min(after.size(), r.size() - 5), after.substr(0, r.size() - 5));
    return r;
}

} // namespace

// What the camera sends during a download, in the stage it is sent in:
// the answer announcing 40 bytes, the refusal, data reports up to the
// end, a version answer, and a data report out of turn.
std::vector<std::string> avmfuzz::starters()
{
    const std::string stage(1, CAM_FILE_REQUESTED), acked(1, CAM_FILE_ACKED);
    const std::string size40("\0\0\0\0\0\x28", 6);       // bytes 5..10: refused at 7, size at 8
    const std::string refused("\0\0\x01", 3);
    const std::string version = std::string("\0\0", 2) + "CAM-X3M 1.4.2";
    const std::string debugAcked(1, static_cast<char>(0x80 | CAM_FILE_ACKED));
    return {stage + report(4, size40),
            stage + report(4, refused),
            acked + report(1, "log line one\n") + report(5, "the rest of the log, forty\n"),
            debugAcked + report(9, std::string(60, 'L')),
            std::string(1, CAM_FILE_IDLE) + report(2, version),
            std::string(1, CAM_FILE_IDLE) + report(1, "out of turn")};
}

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
