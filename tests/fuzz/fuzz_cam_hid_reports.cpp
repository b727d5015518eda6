// Arbitrary HID reports from the camera through what the receive thread
// does with each report it reads (hal_hidraw_handle_report: the version
// answer's text to the camera detection, every report to the log
// download), at every stage of a download: whatever the camera sends,
// nothing is read or written outside a buffer, the save file holds no
// more than the data the reports carried, and a version answer publishes
// its text.
//
// Input: byte 0 picks the download stage (its value modulo 6, so one
// stage the download never has) and, with bit 7, the download's debug
// logging. The rest is cut into reports: the first byte of each picks its
// length (1 + 7 × value, modulo a little more than one read's 1024 bytes,
// of which the module looks at 1024) and its kind (value modulo 4): a
// download answer, a data report, a version answer (the harness writes
// the head in) or the bytes as they are.
//
// Checks (abort on failure):
//  - the save file holds no more bytes than the data reports carried;
//  - after a report that starts with the version answer's head, the
//    camera version property holds the report's text (from byte 7 to the
//    first zero byte or the end of the bytes looked at) when it fits in a
//    property; a longer text is refused by the property store, so the
//    property keeps the value it had. The version is then no longer asked
//    for.
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <cutils/properties.h>

#include "camera/cam_detect.h"
#include "camera/cam_hid.h"
#include "camera/cam_logs.h"
#include "fuzz_starters.h"
#include "process_env.h"

namespace {

constexpr uint8_t kAnswerHead[] = {0xAA, 0xBB, 0xCC, 0x26, 0x03};
constexpr uint8_t kDataHead[] = {0xBB, 0x02};
constexpr uint8_t kVersionHead[] = {0xAA, 0xBB, 0xCC, 0x20, 0x07};
constexpr size_t kVersionTextAt = 7;
constexpr size_t kDataAt = 2;
// Reports a little longer than one read: the module looks at the first
// HIDRAW_RECV_MAX bytes only.
constexpr size_t kReportMax = HIDRAW_RECV_MAX + 7;
// The version each input starts from (made up).
const char kEarlierVersion[] = "CAM-X3M 1.3.9";

void check(bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "fuzz_cam_hid_reports: %s\n", what);
        abort();
    }
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
// end, version answers (a text ended by a zero byte, one running to the
// report's end, one too long for a property), and a data report out of
// turn.
std::vector<std::string> avmfuzz::starters()
{
    const std::string requested(1, CAM_FILE_REQUESTED), acked(1, CAM_FILE_ACKED), idle(1, CAM_FILE_IDLE);
    const std::string size40("\0\0\0\0\0\x28", 6);       // bytes 5..10: refused at 7, size at 8
    const std::string refused("\0\0\x01", 3);
    // Debug logging (bit 7) in the acknowledged stage: 0x80 is 2 modulo 6.
    static_assert(0x80 % 6 == CAM_FILE_ACKED, "0x80 picks the acknowledged stage");
    const std::string debugAcked(1, static_cast<char>(0x80));
    const std::string textAt7("\0\0", 2);                 // bytes 5 and 6, then the text
    return {requested + report(4, size40),
            requested + report(4, refused),
            acked + report(1, "log line one\n") + report(5, "the rest of the log, forty\n"),
            debugAcked + report(9, std::string(60, 'L')),
            idle + report(6, textAt7 + "CAM-X3M 1.4.2"),
            idle + report(10, textAt7 + "CAM-X3M 1.4.2 build 20240311 " + std::string(40, 'r')),
            requested + report(18, textAt7 + std::string(120, 'V')) + report(4, size40),
            idle + report(1, "out of turn")};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string save = avmtest::processRoot() + "/fuzz-cam.log";
    if (size == 0) {
        hal_hidraw_handle_report(nullptr, 0);
        hal_hidraw_handle_report(data, 0);
        return 0;
    }
    // Byte 0 picks the stage the download is in; the rest is cut into
    // reports whose sizes the input chooses too, each starting, now and
    // then, with a real head.
    const uint32_t stage = data[0] % 6;
    remove(save.c_str());
    cam_logs_resetForTest(stage, save.c_str());
    setCamHidTransferFileDebug(data[0] & 0x80);
    cam_detect_resetForTest();
    std::string version; // what the property must hold, once set below
    bool versionSet = false;
    size_t carried = 0;
    size_t off = 1;
    while (off < size) {
        const size_t want = 1 + (data[off] * 7u) % kReportMax;
        const size_t n = size - off < want ? size - off : want;
        uint8_t bytes[kReportMax];
        memcpy(bytes, data + off, n);
        switch (data[off] % 4) {
        case 0:
            if (n >= sizeof kAnswerHead)
                memcpy(bytes, kAnswerHead, sizeof kAnswerHead);
            break;
        case 1:
            if (n >= sizeof kDataHead)
                memcpy(bytes, kDataHead, sizeof kDataHead);
            break;
        case 2:
            if (n >= sizeof kVersionHead)
                memcpy(bytes, kVersionHead, sizeof kVersionHead);
            break;
        default:
            break;
        }
        const size_t seen = std::min(n, static_cast<size_t>(HIDRAW_RECV_MAX));
        if (seen >= sizeof kDataHead && memcmp(bytes, kDataHead, sizeof kDataHead) == 0)
            carried += seen - kDataAt;
        const bool versionAnswer = seen >= sizeof kVersionHead && memcmp(bytes, kVersionHead, sizeof kVersionHead) == 0;

        // The property starts from an earlier version, so a text it
        // refuses shows as that value kept.
        if (versionAnswer && !versionSet) {
            check(property_set(CAM_VERSION_PROPERTY, kEarlierVersion) == 0, "cannot set the version property");
            version = kEarlierVersion;
            versionSet = true;
        }
        hal_hidraw_handle_report(bytes, static_cast<int>(n));

        if (versionAnswer) {
            const char *text = reinterpret_cast<const char *>(bytes + kVersionTextAt);
            const size_t length = seen > kVersionTextAt ? strnlen(text, seen - kVersionTextAt) : 0;
            if (length < PROPERTY_VALUE_MAX)
                version.assign(text, length);
            char held[PROPERTY_VALUE_MAX];
            property_get(CAM_VERSION_PROPERTY, held, "");
            check(version == held, "the version property does not hold the answer's text");
            check(!cam_detect_need_update_version(), "the version is still asked for after an answer");
        }
        off += n;
    }
    cam_logs_resetForTest(CAM_FILE_IDLE, nullptr);
    struct stat st;
    check(stat(save.c_str(), &st) != 0 || static_cast<size_t>(st.st_size) <= carried,
          "the save file holds more than the data reports carried");
    return 0;
}
