// The DSP link on the virtual board: how long a posted command takes to
// reach the DSP, and how many commands a second the link's 8 ms pacing
// lets through. Run under umockdev-wrapper (scripts/run-bench).
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>

#include <android/log.h>
#include <cutils/properties.h>
#include <hardware/hardware.h>

#include "avmanager_hal.h"
#include "sim/board.h"
#include "sim/dsp_model.h"

namespace {

using namespace std::chrono_literals;

// One board and one running module for the whole program: start-up is
// once per process, like on the device.
struct LinkOnBoard {
    sim::Board board;
    sim::DspModel dsp{board};
    const avmanager_module_t *hal = nullptr;

    LinkOnBoard()
    {
        __android_log_set_minimum_priority(ANDROID_LOG_WARN); // figures, not the module's chatter
        property_set("persist.vendor.dsp.communication", "1");
        const hw_module_t *module = nullptr;
        if (hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module) == 0) {
            hal = reinterpret_cast<const avmanager_module_t *>(module);
            hal->hal_init();
        }
    }
};

LinkOnBoard &link()
{
    static auto *instance = new LinkOnBoard; // lives until exit with the module's threads
    return *instance;
}

void BM_PostToWire(benchmark::State &state)
{
    auto &l = link();
    if (!l.hal) {
        state.SkipWithError("module not loaded");
        return;
    }
    for (auto _ : state) {
        const size_t before = l.dsp.commandCount();
        const auto start = sim::Clock::now();
        l.hal->send_cmd_to_dsp(l.hal, "MV=?");
        if (!l.dsp.waitForCommandCount(before + 1, 2000ms)) {
            state.SkipWithError("command lost");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(sim::Clock::now() - start).count());
    }
}
BENCHMARK(BM_PostToWire)->UseManualTime()->Iterations(50);

// A burst of posts: the 8 ms pause after each port write sets the pace.
void BM_BurstThroughput(benchmark::State &state)
{
    auto &l = link();
    if (!l.hal) {
        state.SkipWithError("module not loaded");
        return;
    }
    const int burst = static_cast<int>(state.range(0));
    for (auto _ : state) {
        const size_t before = l.dsp.commandCount();
        const auto start = sim::Clock::now();
        for (int i = 0; i < burst; ++i)
            l.hal->send_cmd_to_dsp(l.hal, ("BAL_LEFT=0." + std::to_string(10 + i % 90)).c_str());
        if (!l.dsp.waitForCommandCount(before + static_cast<size_t>(burst), 10s)) {
            state.SkipWithError("commands lost");
            return;
        }
        state.SetIterationTime(std::chrono::duration<double>(sim::Clock::now() - start).count());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * burst);
}
BENCHMARK(BM_BurstThroughput)->UseManualTime()->Arg(100)->Iterations(3);

} // namespace

int main(int argc, char **argv)
{
    // The testbed sets UMOCKDEV_DIR: make it before any thread starts.
    sim::initBoardProcess();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
