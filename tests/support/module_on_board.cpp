#include "module_on_board.h"

#include <gtest/gtest.h>

#include <cutils/properties.h>
#include <hardware/hardware.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "avmanager/camera/camera_pipe.h"
#include "avmanager/camera/ptz_link.h"
#include "avmanager/dsp/dsp_link.h"
#include "sim/dsp_model.h"

namespace avmtest {

using namespace std::chrono_literals;

const avmanager_module_t *loadModule()
{
    const hw_module_t *module = nullptr;
    const int rc = hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module);
    EXPECT_EQ(rc, 0) << "hw_get_module(" AVMANAGER_HARDWARE_MODULE_ID ")";
    EXPECT_NE(module, nullptr);
    return rc == 0 ? reinterpret_cast<const avmanager_module_t *>(module) : nullptr;
}

bool startModule(const avmanager_module_t *&hmi)
{
    hmi = loadModule();
    if (hmi == nullptr)
        return false;
    const int rc = hmi->hal_init();
    EXPECT_GE(rc, 0) << "hal_init";
    return rc >= 0;
}

int stopNudgingDsp(sim::DspModel *dsp, const std::function<int()> &stop)
{
    if (dsp) {
        dsp->setSilent(false);
        dsp->setGarbage(false);
        dsp->setNoise(false);
        dsp->setSplitAnswers(false);
    }
    std::atomic<bool> done{false};
    int result = 0;
    std::thread stopper([&] {
        result = stop();
        done = true;
    });
    while (!done) {
        if (dsp)
            dsp->send("\n");
        std::this_thread::sleep_for(150ms);
    }
    stopper.join();
    return result;
}

int releaseModule(const avmanager_module_t *hmi, sim::DspModel *dsp)
{
    return stopNudgingDsp(dsp, [hmi] { return hmi->hal_release(); });
}

int stopPtzLink()
{
    const int result = camera_ptzHal_deinit();
    std::atomic<bool> joined{false};
    std::thread waker([&] {
        while (!joined) {
            sendAutoTestToCameraPipe(0);
            std::this_thread::sleep_for(50ms);
        }
    });
    joinPtzThreadPool();
    ptzLink_joinTestThreadForTest();
    joined = true;
    waker.join();
    return result;
}

int stopDspLink(sim::DspModel *dsp)
{
    return stopNudgingDsp(dsp, [] { return dsp_process_deinit(); });
}

} // namespace avmtest
