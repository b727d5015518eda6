// Arbitrary chunks from the camera's serial line through what the PTZ
// receive thread does with each read (read_data_from_cam: the framing
// machine and the dispatch): whatever arrives, the receiver never crashes.
// The input is cut into chunks of at most 64 bytes, as the reader
// delivers them.
//
// Input: one byte that picks the chunk size, then the line's bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "camera/ptz_frame.h"
#include "camera/ptz_link.h"
#include "fuzz_starters.h"
#include "sim/ptz_wire.h"

namespace {

// The DOA-status question waits up to 0.9 s for the DSP's answer; too slow
// to repeat thousands of times, so its head is broken wherever it shows up
// in a chunk (its own board test covers it).
void breakDoaStatusQuestions(uint8_t *chunk, size_t n)
{
    const PtzProtocolEntry &row = gPtzProtocolTable[PTZ_CMD_GET_DOA_STATUS];
    for (size_t i = 0; i + 4 < n; ++i)
        if (chunk[i] == PTZ_PKT_HEAD0 && chunk[i + 1] == PTZ_PKT_HEAD1 && chunk[i + 2] == PTZ_PKT_HEAD2 &&
            chunk[i + 3] == row.recvMain && chunk[i + 4] == row.recvSub)
            chunk[i + 2] = 0;
}

std::string frameOf(PtzCmdId id, const std::vector<uint8_t> &payload)
{
    const PtzProtocolEntry &row = gPtzProtocolTable[id];
    const sim::PtzRawFrame f = sim::makePtzFrame(row.recvMain, row.recvSub, payload);
    return std::string(f.begin(), f.end());
}

} // namespace

// The camera's frames as the board's camera model builds them: its
// notifications and replies, one per read, two in one read, and one split
// into short reads (lost, as on the device).
std::vector<std::string> avmfuzz::starters()
{
    const std::string whole(1, static_cast<char>(PTZ_PKT_SIZE - 1)); // chunks of 64
    const std::string split(1, 9);                                   // chunks of 10
    return {whole + frameOf(PTZ_CMD_CAMERA_OPEN, {}),
            whole + frameOf(PTZ_CMD_ANGLE_REPORT, {0, 30, 150}),
            whole + frameOf(PTZ_CMD_GET_CURRENT_TEMPERATURE, {47}),
            whole + frameOf(PTZ_CMD_GET_ISP_ENV, {7, 0, 0, 1, 0, 0, 0, 0, 2}),
            whole + frameOf(PTZ_CMD_GET_AUTOTEST_RESULT, {1, 0, 5}),
            whole + frameOf(PTZ_CMD_GET_FUNCLIST, {0x11, 0x22, 0x33, 0x44, 0x55}),
            whole + frameOf(PTZ_CMD_SET_DOA_STATUS, {1}) + frameOf(PTZ_CMD_CAMERA_CLOSE, {}),
            whole + frameOf(PTZ_CMD_GET_PRODUCT_MODEL, {}),
            split + frameOf(PTZ_CMD_GET_AUTO_BLACK_SCREEN, {1})};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        read_data_from_cam(data, 0);
        return 0;
    }
    // The first byte picks the chunk size so splits vary with the input.
    const size_t chunk = 1 + data[0] % PTZ_PKT_SIZE;
    uint8_t bytes[PTZ_PKT_SIZE];
    for (size_t off = 1; off < size; off += chunk) {
        const size_t n = size - off < chunk ? size - off : chunk;
        memcpy(bytes, data + off, n);
        breakDoaStatusQuestions(bytes, n);
        read_data_from_cam(bytes, static_cast<int>(n));
    }
    // Whole frames with a valid head and checksum reach every handler.
    if (size >= PTZ_PKT_SIZE) {
        uint8_t frame[PTZ_PKT_SIZE];
        for (size_t i = 0; i < PTZ_PKT_SIZE; ++i)
            frame[i] = data[i];
        frame[0] = PTZ_PKT_HEAD0;
        frame[1] = PTZ_PKT_HEAD1;
        frame[2] = PTZ_PKT_HEAD2;
        uint32_t id = data[3] % PTZ_CMD_MAX;
        if (id == PTZ_CMD_GET_DOA_STATUS)
            id = PTZ_CMD_SET_DOA_STATUS;
        const PtzProtocolEntry &row = gPtzProtocolTable[id];
        frame[3] = row.recvMain;
        frame[4] = row.recvSub;
        frame[5] = static_cast<uint8_t>(frame[5] % (PTZ_PKT_MAX_LENGTH + 1));
        frame[63] = KSProtocalCalcCheckSum(frame, PTZ_PKT_SIZE - 1);
        read_data_from_cam(frame, PTZ_PKT_SIZE);
    }
    return 0;
}
