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
#include <vector>

#include "camera/cam_detect.h"
#include "fuzz_starters.h"
#include "process_env.h"

// uevent files of USB devices as the kernel writes them: a listed camera,
// a keyboard, a hub interface. The first byte is replaced by the product
// key when odd.
std::vector<std::string> avmfuzz::starters()
{
    return {"MAJOR=189\nMINOR=1\nDEVNAME=bus/usb/001/002\nDEVTYPE=usb_device\nDRIVER=usb\n"
            "PRODUCT=2e7d/f4f/100\nTYPE=239/2/1\nBUSNUM=001\nDEVNUM=002\n",
            "\x01" "046d/c31c/110\nTYPE=0/0/0\n",
            "DEVTYPE=usb_interface\nPRODUCT=1d6b/2/515\nINTERFACE=9/0/0\n",
            "PRODUCT=zz/10/1\n"};
}

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
