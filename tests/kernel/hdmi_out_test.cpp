// The USB HDMI-out link under the real kernel: the converter is a USB
// gadget on its own dummy_hcd bus, served by the converter's own logic.
// The module finds it through usbfs, claims it, makes the connect
// request, reads the acknowledgement and echoes it, sends data packets
// and heartbeats, and carries on when the converter is unplugged
// mid-stream. Asserted on what the converter decoded, word by word, and
// on the module's log lines, as on the virtual board.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "codec/usb_hdmi_out.h"
#include "log_capture.h"
#include "sim/board.h"
#include "sim/kernel/kernel_hdmi_out.h"

using namespace std::chrono_literals;
using Kind = sim::HdmiOutConverter::Kind;
using sim::kernel::KernelHdmiOut;

namespace {

constexpr const char *kTag = "CODECHAL";
constexpr auto kWait = 20s;
constexpr int kVid = KernelHdmiOut::kVendorId;
constexpr int kPid = KernelHdmiOut::kProductId;
constexpr size_t kXfer = 512;

// `size` payload bytes from a salt, readable up to the next multiple of
// 512 as the link requires.
std::vector<uint8_t> payloadBuffer(size_t size, unsigned salt)
{
    std::vector<uint8_t> buf((size + kXfer - 1) / kXfer * kXfer, 0xEE);
    uint32_t x = salt * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        buf[i] = static_cast<uint8_t>(x >> 16);
    }
    return buf;
}

class KernelHdmiOutTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(converter.error(), "") << "the converter gadget did not come up"; }
    // The reader is joined before the converter goes away.
    void TearDown() override { codecHal_usb_hdmiOut_deinit(); }

    // Init, connect, and the converter's acknowledgement read and echoed.
    void ready()
    {
        ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
        ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
        connected = std::chrono::steady_clock::now();
        ASSERT_TRUE(converter.waitForCount(Kind::Echo, 1, kWait));
        ASSERT_TRUE(log.waitFor(kTag, "usb_hdmiOut read ack success", kWait));
    }

    int send(const std::vector<uint8_t> &buf, int thisLen, int type = 1)
    {
        return codecHal_usb_hdmiOut_data_process(type, thisLen, thisLen, 1, 2, 3, 1920, 1080, buf.data());
    }

    avmtest::LogCapture log;
    KernelHdmiOut converter;
    std::chrono::steady_clock::time_point connected;
};

} // namespace

TEST_F(KernelHdmiOutTest, ConnectAcknowledgementDataAndHeartbeatCrossTheKernelAsOnTheBoard)
{
    ready();
    EXPECT_TRUE(log.contains(kTag, "founded usb hdmiOut device!!!"));
    EXPECT_FALSE(log.countContaining(kTag, "ignoring usb_claim_interface") > 0);
    // The connect request reached the converter's interface once.
    EXPECT_EQ(converter.connectRequests(), 1u);
    EXPECT_EQ(converter.controlRequests(), 1u);
    EXPECT_EQ(converter.unechoedAcks(), 0u);

    // 1000 bytes: the header and two transfers, the second 24 bytes past
    // the payload.
    const auto first = payloadBuffer(1000, 1);
    EXPECT_EQ(send(first, 1000), 0);
    ASSERT_TRUE(converter.waitForCount(Kind::Data, 1, kWait));
    ASSERT_TRUE(sim::waitUntil([&] { return converter.packets(Kind::Data)[0].complete; }, kWait));
    const auto p = converter.packets(Kind::Data)[0];
    EXPECT_EQ(p.type, 1u);
    EXPECT_EQ(p.thisLen, 1000u);
    EXPECT_EQ(p.words[2], ~1000u);
    EXPECT_EQ(p.totalLen, 1000u);
    EXPECT_EQ(p.param1, 1u);
    EXPECT_EQ(p.param2, 2u);
    EXPECT_EQ(p.param3, 3u);
    EXPECT_EQ(p.width, 1920u);
    EXPECT_EQ(p.height, 1080u);
    EXPECT_EQ(p.transfers, 3u);
    EXPECT_EQ(p.payload, std::vector<uint8_t>(first.begin(), first.begin() + 1000));

    // A packet more than a second after the connect brings a heartbeat.
    ASSERT_TRUE(sim::waitUntil([&] { return std::chrono::steady_clock::now() - connected > 1100ms; }, kWait));
    const auto second = payloadBuffer(4096, 2);
    EXPECT_EQ(send(second, 4096, 7), 0);
    ASSERT_TRUE(converter.waitForCount(Kind::Heartbeat, 1, kWait));
    const auto all = converter.packets();
    ASSERT_GE(all.size(), 4u); // echo, data, data, heartbeat
    EXPECT_EQ(all.back().kind, Kind::Heartbeat);
    EXPECT_EQ(converter.packets(Kind::Data)[1].payload, second);

    EXPECT_EQ(codecHal_usb_hdmiOut_disconnect(), 1);
    ASSERT_TRUE(converter.waitForCount(Kind::Disconnect, 1, kWait));
    EXPECT_EQ(send(first, 1000), -1) << "data is refused until the next acknowledgement";
    EXPECT_TRUE(converter.errors().empty()) << converter.errors().front();
}

TEST_F(KernelHdmiOutTest, UnpluggedMidStreamTheTransfersFailAndTheConverterIsWholeAgainAfterANewInit)
{
    ready();
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    const auto big = payloadBuffer(256 * 1024, 3);
    std::thread sender([&] {
        while (!stop) {
            EXPECT_EQ(send(big, static_cast<int>(256 * 1024)), 0) << "data_process returns 0 whatever the transfers did";
            ++sent;
        }
    });
    // Gone while a packet is on its way.
    ASSERT_TRUE(sim::waitUntil([&] { return converter.outTransfers() >= 600; }, kWait));
    ASSERT_TRUE(converter.unplug());
    ASSERT_TRUE(log.waitFor(kTag, "usb_hdmiOut_bulk_xfer", kWait));
    const int before = sent.load();
    ASSERT_TRUE(sim::waitUntil([&] { return sent.load() > before; }, kWait)) << "the sender went on";
    stop = true;
    sender.join();
    // What arrived before the removal decoded cleanly: every whole packet
    // is the payload as sent.
    const auto data = converter.packets(Kind::Data);
    ASSERT_FALSE(data.empty());
    for (const auto &p : data) {
        if (p.complete) {
            EXPECT_EQ(p.payload, big);
        }
    }
    EXPECT_TRUE(converter.errors().empty());

    // Back: a new init finds it, and a packet arrives whole.
    codecHal_usb_hdmiOut_deinit();
    converter.clear();
    ASSERT_TRUE(converter.replug());
    ready();
    const auto small = payloadBuffer(3000, 4);
    EXPECT_EQ(send(small, 3000), 0);
    ASSERT_TRUE(sim::waitUntil(
        [&] {
            const auto p = converter.packets(Kind::Data);
            return !p.empty() && p.back().complete;
        },
        kWait));
    EXPECT_EQ(converter.packets(Kind::Data).back().payload, std::vector<uint8_t>(small.begin(), small.begin() + 3000));
}
