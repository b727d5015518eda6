#include "dsp_store_board.h"

#include <unistd.h>

#include <cstdio>

#include "avmanager/dsp/dsp_link.h"
#include "dsp_commands.h"

namespace avmtest {

using namespace std::chrono_literals;

void DspStoreBoard::startLink()
{
    ASSERT_EQ(dsp_process_init(), 0);
    linkUp = true;
}

void DspStoreBoard::TearDown()
{
    if (HasFailure()) {
        // What crossed the line and what the module said, for the report.
        for (const auto &c : dsp.commands())
            std::fprintf(stderr, "  to DSP: %.100s\n", c.c_str());
        for (const auto &l : log.lines())
            std::fprintf(stderr, "  log %s/%d: %.100s\n", l.tag.c_str(), l.priority, l.text.c_str());
    }
    if (linkUp) {
        settle();
        dsp_process_deinit();
    }
}

void DspStoreBoard::settle()
{
    size_t seen = dsp.commandCount();
    auto quietSince = sim::Clock::now();
    const auto deadline = quietSince + 40s;
    while (sim::Clock::now() < deadline && sim::Clock::now() - quietSince < 1500ms) {
        usleep(50 * 1000);
        if (dsp.commandCount() != seen) {
            seen = dsp.commandCount();
            quietSince = sim::Clock::now();
        }
    }
}

bool DspStoreBoard::waitForSpeakerEq(size_t n, std::chrono::milliseconds timeout)
{
    return sim::waitUntil([&] { return withPrefix(dsp.commands(), "SPK_EQ_MODE=").size() >= n; }, timeout);
}

} // namespace avmtest
