// Shared set-up for the Fig DSP board tests: the Fig DSP model on
// /dev/ttyS2, the link started and stopped around a test, the frames the
// module must put on the wire (built with the model's own CRC), and the
// camera link for the tests that need the camera open or its DOA frames.
#pragma once

#include <gtest/gtest.h>

#include <cutils/properties.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "camera/camera_pipe.h"
#include "camera/ptz_link.h"
#include "camera/ptz_requests.h"
#include "fig/dsp_fig.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/fig_dsp_model.h"
#include "sim/ptz_camera_model.h"

namespace figtest {

using namespace std::chrono_literals;
using Bytes = sim::FigDspModel::Bytes;
using sim::FigDspModel;

constexpr auto kWire = 5s;    // a frame and its answer, on a busy 2-core machine
constexpr auto kSwitch = 30s; // an amplifier format switch: hundreds of I2C transfers
constexpr auto kQuiet = 400ms; // long enough for a frame that should not come to show

// A command frame as the module writes it: the frame and the zero byte
// after it, 16 bytes.
inline Bytes commandOnWire(const std::string &payload)
{
    Bytes bytes = FigDspModel::makeFrame(FigDspModel::kTypeCommand, payload);
    bytes.push_back(0);
    return bytes;
}

// The acknowledgement of a command with this identifier.
inline Bytes ackOnWire(uint8_t id)
{
    return FigDspModel::makeFrame(FigDspModel::kTypeReply, Bytes{id});
}

// The payload of a command the Fig DSP sends that is only acknowledged.
inline Bytes pingPayload(uint8_t id)
{
    Bytes payload{id};
    const std::string text = "PING_TEST";
    payload.insert(payload.end(), text.begin(), text.end());
    return payload;
}

// That command as a whole frame.
inline Bytes pingFrame(uint8_t id)
{
    return FigDspModel::makeFrame(FigDspModel::kTypeCommand, pingPayload(id));
}

// Position of `part` in `whole`, or npos.
inline size_t find(const Bytes &whole, const Bytes &part)
{
    if (part.empty() || whole.size() < part.size())
        return std::string::npos;
    for (size_t i = 0; i + part.size() <= whole.size(); ++i)
        if (std::equal(part.begin(), part.end(), whole.begin() + static_cast<long>(i)))
            return i;
    return std::string::npos;
}

inline size_t occurrences(const Bytes &whole, const Bytes &part)
{
    size_t n = 0;
    for (size_t i = 0; i + part.size() <= whole.size(); ++i)
        if (std::equal(part.begin(), part.end(), whole.begin() + static_cast<long>(i)))
            ++n;
    return n;
}

// The board with the Fig DSP model on /dev/ttyS2; startFig() brings the
// link up, the tear-down stops it (and the camera link, when started).
class FigBoard {
protected:
    ~FigBoard()
    {
        if (figUp)
            dspFig_deinit();
        if (cameraUp)
            stopCamera();
    }

    void startFig()
    {
        ASSERT_EQ(dspFig_init(), 0);
        figUp = true;
    }

    // The camera pipe and the PTZ link, with the camera model on ttyS1.
    void startCamera()
    {
        camera = std::make_unique<sim::PtzCameraModel>(board);
        ASSERT_EQ(initCameraPipe(), 0);
        ASSERT_EQ(camera_ptzHal_init(), 0);
        cameraUp = true;
    }

    void openCamera()
    {
        camera->raiseOpen();
        ASSERT_TRUE(sim::waitUntil([] { return ptz_cam_is_open() == 1u; }, kWire));
    }

    void stopCamera()
    {
        avmtest::stopPtzLink();
        cameraUp = false;
    }

    // Waits for the acknowledgement of `id` and returns the bytes so far.
    Bytes waitAck(uint8_t id, size_t n = 1)
    {
        EXPECT_TRUE(fig.waitForAcks(id, n, kWire)) << "acknowledgement of '" << static_cast<char>(id) << "'";
        return fig.received();
    }

    avmtest::LogCapture log;
    sim::Board board;
    sim::FigDspModel fig{board};
    std::unique_ptr<sim::PtzCameraModel> camera;
    bool figUp = false;
    bool cameraUp = false;
};

} // namespace figtest
