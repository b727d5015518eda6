// Arbitrary uevent files through the camera scan's reading of one USB
// device: whatever the file holds (long lines, zero bytes, odd numbers),
// the scan never reads or writes outside a buffer, and a camera it
// reports is one of the table's rows.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "camera/cam_detect.h"
#include "process_env.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = avmtest::processRoot() + "/fuzz-uevent";
    // Half the inputs get a product key in front, so the number parsing
    // is reached in depth.
    std::string content(reinterpret_cast<const char *>(data), size);
    if (size > 0 && (data[0] & 1))
        content = "PRODUCT=" + content.substr(1);
    FILE *file = fopen(path.c_str(), "wb");
    if (file == nullptr)
        abort();
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
    cam_detect_resetForTest();
    if (cam_detect_scan_uevent(path.c_str())) {
        const SupportCamInfo cam = cam_detect_current();
        bool listed = false;
        for (const SupportCamInfo &row : gSupportCamList)
            listed = listed || (row.vid == cam.vid && row.pid == cam.pid && strcmp(row.name, cam.name) == 0);
        if (!listed)
            abort();
    }
    return 0;
}
