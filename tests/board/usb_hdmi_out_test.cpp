// The USB HDMI-out link on the virtual board: finding and claiming the
// converter, the connect request, the acknowledgement and its echo, data
// packets decoded word by word by the converter model, heartbeats carried
// by the data flow, disconnect, deinit, removal, and the service API's
// slots 16..20.
#include <gtest/gtest.h>

#include <android/log.h>
#include <linux/usb/ch9.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "avmanager_hal.h"
#include "codec/usb_hdmi_out.h"
#include "log_capture.h"
#include "module_on_board.h"
#include "sim/board.h"
#include "sim/hdmi_out_model.h"
#include "sim/usb_device_model.h"

using namespace std::chrono_literals;
using Kind = sim::HdmiOutModel::Kind;

namespace {

constexpr const char *kTag = "CODECHAL";
constexpr auto kWait = 10s;
constexpr int kVid = sim::HdmiOutModel::kVendorId;
constexpr int kPid = sim::HdmiOutModel::kProductId;
constexpr size_t kXfer = 512;
constexpr uint8_t kPaddingMark = 0xEE;

// A caller's buffer: `size` payload bytes from a salt value, readable up to the
// next multiple of 512 as the link requires, the rest marked.
std::vector<uint8_t> payloadBuffer(size_t size, unsigned salt)
{
    std::vector<uint8_t> buf((size + kXfer - 1) / kXfer * kXfer + (size == 0 ? kXfer : 0), kPaddingMark);
    uint32_t x = salt * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        buf[i] = static_cast<uint8_t>(x >> 16);
    }
    return buf;
}

std::vector<uint8_t> firstBytes(const std::vector<uint8_t> &buf, size_t n)
{
    return std::vector<uint8_t>(buf.begin(), buf.begin() + static_cast<long>(n));
}

std::vector<uint8_t> inData(std::initializer_list<int> head)
{
    std::vector<uint8_t> out(kXfer, 0);
    size_t i = 0;
    for (int b : head)
        out[i++] = static_cast<uint8_t>(b);
    return out;
}

class HdmiOut : public ::testing::Test {
protected:
    void TearDown() override
    {
        // The reader is joined before the model goes away.
        codecHal_usb_hdmiOut_deinit();
    }

    sim::HdmiOutModel &attach(sim::HdmiOutModel::Options options = {})
    {
        model = std::make_unique<sim::HdmiOutModel>(board, options);
        return *model;
    }

    // Init, connect and the converter's acknowledgement echoed.
    void ready(sim::HdmiOutModel::Options options = {})
    {
        attach(options);
        ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
        ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
        if (!options.ackOnConnect)
            model->queueAck();
        ASSERT_TRUE(model->waitForCount(Kind::Echo, 1, kWait));
        ASSERT_TRUE(logs.waitFor(kTag, "usb_hdmiOut read ack success", kWait));
    }

    int send(const std::vector<uint8_t> &buf, int thisLen, int type = 1, int totalLen = -1)
    {
        return codecHal_usb_hdmiOut_data_process(type, totalLen < 0 ? thisLen : totalLen, thisLen, 1, 2, 3, 1920,
                                                 1080, buf.data());
    }

    // Checks a decoded data packet against what was sent.
    static void expectPacket(const sim::HdmiOutModel::Packet &p, const std::vector<uint8_t> &buf, uint32_t thisLen,
                             uint32_t type, uint32_t totalLen)
    {
        EXPECT_EQ(p.kind, Kind::Data);
        EXPECT_TRUE(p.complete);
        EXPECT_EQ(p.type, type);
        EXPECT_EQ(p.thisLen, thisLen);
        EXPECT_EQ(p.words[2], ~thisLen);
        EXPECT_EQ(p.totalLen, totalLen);
        EXPECT_EQ(p.words[9], thisLen);
        EXPECT_EQ(p.param1, 1u);
        EXPECT_EQ(p.param2, 2u);
        EXPECT_EQ(p.param3, 3u);
        EXPECT_EQ(p.width, 1920u);
        EXPECT_EQ(p.height, 1080u);
        EXPECT_EQ(p.transfers, 1 + (thisLen + kXfer - 1) / kXfer);
        EXPECT_TRUE(p.payload == firstBytes(buf, thisLen)) << "payload differs";
    }

    sim::Board board;
    avmtest::LogCapture logs;
    std::unique_ptr<sim::HdmiOutModel> model;
};

class HdmiOutEndpointOrder : public HdmiOut, public ::testing::WithParamInterface<sim::HdmiOutModel::Order> {};

} // namespace

TEST_F(HdmiOut, InitFindsTheConverterClaimsItsInterfaceAndStartsTheReader)
{
    attach();
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_TRUE(logs.contains(kTag, "founded usb hdmiOut device!!!"));
    EXPECT_TRUE(logs.contains(kTag, "codecHal_usb_hdmiOut_init success! retVal 0"));
    EXPECT_TRUE(model->usb().claimed(0));
    const auto claims = model->usb().claimEvents();
    ASSERT_EQ(claims.size(), 1u);
    EXPECT_TRUE(claims[0].claim);
    EXPECT_EQ(claims[0].interface, 0u);
    // The reader asks the IN endpoint for 512 bytes, again and again.
    EXPECT_TRUE(sim::waitUntil([&] { return model->usb().inRequests() >= 3; }, kWait));
    EXPECT_EQ(model->usb().outAttempts(), 0u);
}

TEST_F(HdmiOut, InitWithoutTheConverterFails)
{
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), -1);
    EXPECT_EQ(logs.countContaining(kTag, "codecHal_usb_hdmiOut_init success!"), 0u);
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
}

TEST_F(HdmiOut, InitLooksAtEveryDeviceAndTakesOnlyTheConverter)
{
    sim::UsbDeviceDescription other;
    other.vendorId = 0x1bcf;
    other.productId = 0x2680;
    sim::UsbInterface interface;
    interface.endpoints = {{0x81, 2, 512, 0}, {0x02, 2, 512, 0}};
    other.interfaces = {interface};
    sim::UsbDevice camera(board, other);
    attach();
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_TRUE(logs.contains(kTag, "usb_hdmiOut_device_added vid 7119 pid 9856"));
    EXPECT_TRUE(logs.contains(kTag, "usb_hdmiOut_device_added vid 15420 pid 2561"));
    EXPECT_EQ(logs.count(kTag, "founded usb hdmiOut device!!!"), 1u);
    EXPECT_TRUE(camera.claimEvents().empty());
    EXPECT_TRUE(model->usb().claimed(0));
}

TEST_F(HdmiOut, IdsAreMatchedAsFourHexDigitsEach)
{
    attach();
    // 0x13c3c formats as "13c3c": no converter has that id.
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid + 0x10000, kPid), -1);
    EXPECT_EQ(logs.count(kTag, "founded usb hdmiOut device!!!"), 0u);
}

TEST_P(HdmiOutEndpointOrder, InAndOutAreDecidedOnTheFirstEndpoint)
{
    sim::HdmiOutModel::Options options;
    options.order = GetParam();
    ready(options);
    const auto buf = payloadBuffer(600, 1);
    ASSERT_EQ(send(buf, 600), 0);
    ASSERT_TRUE(sim::waitUntil([&] { return model->outTransfers() >= 4; }, kWait));
    for (const auto &t : model->usb().bulkOut())
        EXPECT_EQ(t.endpoint, sim::HdmiOutModel::kOutEndpoint);
    for (const auto &t : model->usb().bulkIn())
        EXPECT_EQ(t.endpoint, sim::HdmiOutModel::kInEndpoint);
    EXPECT_TRUE(model->errors().empty());
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    expectPacket(data[0], buf, 600, 1, 600);
}

INSTANTIATE_TEST_SUITE_P(Orders, HdmiOutEndpointOrder,
                         ::testing::Values(sim::HdmiOutModel::Order::InFirst, sim::HdmiOutModel::Order::OutFirst),
                         [](const auto &info) {
                             return info.param == sim::HdmiOutModel::Order::InFirst ? std::string("InFirst")
                                                                                    : std::string("OutFirst");
                         });

TEST_F(HdmiOut, AConverterWithoutAnInterfaceIsClosed)
{
    sim::UsbDeviceDescription d;
    d.vendorId = kVid;
    d.productId = kPid;
    sim::UsbDevice bare(board, d);
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), -1);
    EXPECT_TRUE(logs.contains(kTag, "founded usb hdmiOut device!!!"));
    EXPECT_TRUE(logs.contains(kTag, "interface not found!"));
    EXPECT_TRUE(bare.claimEvents().empty());
}

TEST_F(HdmiOut, AConverterWithOneEndpointIsClosed)
{
    sim::UsbDeviceDescription d;
    d.vendorId = kVid;
    d.productId = kPid;
    sim::UsbInterface interface;
    interface.endpoints = {{0x81, 2, 512, 0}};
    d.interfaces = {interface};
    sim::UsbDevice half(board, d);
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), -1);
    EXPECT_TRUE(logs.contains(kTag, "endpoints not found!"));
    EXPECT_TRUE(half.claimEvents().empty());
}

// The converter's scan walks every descriptor: the interface it claims is
// the last one listed, its endpoints the first two of the whole
// configuration (here the second interface's). The camera's USB tool stops
// as soon as it knows both and claims an earlier one on such a device:
// CamDetectBoard.WithTwoInterfacesTheUsbToolClaimsTheFirstAndUsesItsEndpoints.
TEST_F(HdmiOut, TheLastInterfaceListedIsClaimedWithTheFirstTwoEndpoints)
{
    sim::UsbDeviceDescription d;
    d.vendorId = kVid;
    d.productId = kPid;
    sim::UsbInterface control; // no endpoints of its own
    control.number = 0;
    sim::UsbInterface stream;
    stream.number = 1;
    stream.endpoints = {{0x01, 2, 512, 0}, {0x82, 2, 512, 0}};
    sim::UsbInterface extra;
    extra.number = 2;
    extra.endpoints = {{0x83, 2, 512, 0}, {0x04, 2, 512, 0}};
    d.interfaces = {control, stream, extra};
    sim::UsbDevice device(board, d);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    const auto claims = device.claimEvents();
    ASSERT_EQ(claims.size(), 1u);
    EXPECT_EQ(claims[0].interface, 2u);
    // OUT first: the second endpoint is the IN one the reader asks.
    device.queueIn(0x82, inData({0, 0, 0, 2}));
    EXPECT_TRUE(sim::waitUntil([&] { return device.bulkOut().size() == 1; }, kWait));
    for (const auto &t : device.bulkTransfers())
        EXPECT_EQ(t.endpoint, (t.endpoint & 0x80) ? 0x82 : 0x01);
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
}

TEST_F(HdmiOut, AFailedClaimIsOnlyLogged)
{
    attach();
    model->usb().failTransfers(sim::UsbDevice::Transfer::Claim, EBUSY, 1);
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_TRUE(logs.contains(kTag, "ignoring usb_claim_interface errno: 16!"));
    EXPECT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    EXPECT_TRUE(model->waitForCount(Kind::Echo, 1, kWait));
}

TEST_F(HdmiOut, ConnectSendsTheControlRequestAndReturnsOne)
{
    sim::HdmiOutModel::Options options;
    options.ackOnConnect = false;
    attach(options);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    EXPECT_TRUE(logs.contains(kTag, "codecHal_usb_hdmiOut_connect success!"));
    const auto controls = model->usb().controlTransfers();
    ASSERT_EQ(controls.size(), 1u);
    EXPECT_EQ(controls[0].requestType, 0xA1);
    EXPECT_EQ(controls[0].request, 0xAA);
    EXPECT_EQ(controls[0].value, 0);
    EXPECT_EQ(controls[0].index, 0);
    EXPECT_EQ(controls[0].length, 0);
    EXPECT_EQ(model->connectRequests(), 1u);
}

TEST_F(HdmiOut, ConnectWithoutInitReturnsOneAndReachesNothing)
{
    attach();
    EXPECT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    EXPECT_TRUE(logs.contains(kTag, "codecHal_usb_hdmiOut_connect success!"));
    EXPECT_TRUE(model->usb().controlTransfers().empty());
}

TEST_F(HdmiOut, AConnectRequestTheConverterRefusesStillReturnsOne)
{
    attach();
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    model->usb().failTransfers(sim::UsbDevice::Transfer::Control, EPIPE, 1);
    EXPECT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    EXPECT_EQ(model->connectRequests(), 0u);
}

TEST_F(HdmiOut, TheAcknowledgementIsEchoedWholeAndOpensTheData)
{
    sim::HdmiOutModel::Options options;
    options.ackOnConnect = false;
    attach(options);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    const auto buf = payloadBuffer(100, 2);
    EXPECT_EQ(send(buf, 100), -1);
    std::vector<uint8_t> ack = inData({0, 0, 0, 2, 9, 8, 7});
    ack[511] = 0x55;
    model->queueIn(ack);
    ASSERT_TRUE(model->waitForCount(Kind::Echo, 1, kWait));
    EXPECT_TRUE(logs.contains(kTag, "usb_hdmiOut read ack success 0 0 0 2 9!"));
    EXPECT_EQ(logs.priorityOf(kTag, "usb_hdmiOut read ack success 0 0 0 2 9!"), ANDROID_LOG_ERROR);
    const auto out = model->usb().bulkOut();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].bytes, ack);
    EXPECT_EQ(send(buf, 100), 0);
    ASSERT_TRUE(sim::waitUntil([&] { return model->count(Kind::Data) == 1; }, kWait));
    EXPECT_TRUE(model->errors().empty());
}

TEST_F(HdmiOut, DataBeforeTheAcknowledgementIsRefusedAndNothingIsSent)
{
    sim::HdmiOutModel::Options options;
    options.ackOnConnect = false;
    attach(options);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    const auto buf = payloadBuffer(4096, 3);
    EXPECT_EQ(send(buf, 4096), -1);
    EXPECT_EQ(send(buf, 0), -1);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(model->usb().outAttempts(), 0u);
}

TEST_F(HdmiOut, AnInTransferBeginning00000003IsNotAnAcknowledgement)
{
    sim::HdmiOutModel::Options options;
    options.ackOnConnect = false;
    attach(options);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    model->queueIn(inData({0, 0, 0, 3}));
    model->queueIn(inData({1, 0, 0, 2}));
    ASSERT_TRUE(sim::waitUntil([&] { return model->usb().bulkIn().size() == 2; }, kWait));
    // The reader carries on past both (several more reads), echoing nothing.
    const size_t reads = model->usb().inRequests();
    ASSERT_TRUE(sim::waitUntil([&] { return model->usb().inRequests() >= reads + 3; }, kWait));
    EXPECT_EQ(model->usb().outAttempts(), 0u);
    EXPECT_EQ(logs.countContaining(kTag, "read ack success"), 0u);
    const auto buf = payloadBuffer(10, 4);
    EXPECT_EQ(send(buf, 10), -1);
}

TEST_F(HdmiOut, ThisLen512000IsAcceptedAnd512001IsRefusedWithTheOverrunLog)
{
    ready();
    const auto buf = payloadBuffer(512001, 5);
    EXPECT_EQ(send(buf, 512000), 0);
    ASSERT_TRUE(sim::waitUntil([&] { return model->count(Kind::Data) == 1; }, kWait));
    const size_t attempts = model->usb().outAttempts();
    EXPECT_EQ(send(buf, 512001), -1);
    EXPECT_TRUE(logs.contains(kTag, "usb hdmiOut packet ThisLen overrun!!"));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(model->usb().outAttempts(), attempts);
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    expectPacket(data[0], buf, 512000, 1, 512000);
    EXPECT_EQ(data[0].transfers, 1001u);
    EXPECT_TRUE(data[0].padding.empty());
    EXPECT_TRUE(model->errors().empty());
}

TEST_F(HdmiOut, APayloadOf1000BytesIsAHeaderAndTwoTransfersReading24BytesPastIt)
{
    const auto connectBegan = sim::Clock::now();
    ready();
    const auto buf = payloadBuffer(1000, 6);
    ASSERT_EQ(buf.size(), 1024u);
    const size_t before = model->usb().bulkOut().size();
    EXPECT_EQ(send(buf, 1000, 7, 5000), 0);
    const auto out = model->usb().bulkOut();
    // The packet's three transfers, then a heartbeat if a busy machine took
    // more than a second since connect: counted on the wire.
    const size_t beats = model->count(Kind::Heartbeat);
    if (sim::Clock::now() - connectBegan < 1s)
        EXPECT_EQ(beats, 0u) << "within a second of connect";
    else
        EXPECT_LE(beats, 1u) << "a packet brings one heartbeat at most";
    ASSERT_EQ(out.size() - before, 3u + beats);
    EXPECT_EQ(out[before + 1].bytes, firstBytes(buf, 512));
    EXPECT_EQ(out[before + 2].bytes, std::vector<uint8_t>(buf.begin() + 512, buf.end()));
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    expectPacket(data[0], buf, 1000, 7, 5000);
    EXPECT_EQ(data[0].padding, std::vector<uint8_t>(24, kPaddingMark));
}

TEST_F(HdmiOut, DataWithoutAPayloadIsRefused)
{
    ready();
    const size_t attempts = model->usb().outAttempts();
    EXPECT_EQ(codecHal_usb_hdmiOut_data_process(1, 100, 100, 1, 2, 3, 1920, 1080, nullptr), -1);
    EXPECT_EQ(model->usb().outAttempts(), attempts);
}

TEST_F(HdmiOut, HeaderFieldsAreCutToTheirWidthsAndTheRestOfTheHeaderTransferIsZero)
{
    ready();
    const auto buf = payloadBuffer(16, 7);
    ASSERT_EQ(codecHal_usb_hdmiOut_data_process(0x12345, 0x7fffffff, 16, 0x1ff, -1, 0x100, 0x12345, -1, buf.data()), 0);
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    const auto &w = data[0].words;
    EXPECT_EQ(w[0], 0x2345u);
    EXPECT_EQ(w[1], 16u);
    EXPECT_EQ(w[2], 0xffffffefu);
    for (size_t i : {3, 4, 5, 6, 7, 15})
        EXPECT_EQ(w[i], 0u) << i;
    EXPECT_EQ(w[8], 0x7fffffffu);
    EXPECT_EQ(w[9], 16u);
    EXPECT_EQ(w[10], 0xffu);
    EXPECT_EQ(w[11], 0xffu);
    EXPECT_EQ(w[12], 0u);
    EXPECT_EQ(w[13], 0x2345u);
    EXPECT_EQ(w[14], 0xffffu);
    // Big-endian on the wire, and nothing after the sixteen words.
    const auto out = model->usb().bulkOut();
    ASSERT_GE(out.size(), 3u);
    const auto &header = out[out.size() - 2].bytes;
    EXPECT_EQ(firstBytes(header, 12), std::vector<uint8_t>({0, 0, 0x23, 0x45, 0, 0, 0, 16, 0xff, 0xff, 0xff, 0xef}));
    EXPECT_EQ(std::vector<uint8_t>(header.begin() + 64, header.end()), std::vector<uint8_t>(448, 0));
    EXPECT_TRUE(model->errors().empty());
}

// Two data packets 0.5 s apart, the first right after the period since
// connect so that it brings a heartbeat and starts the clock again: the
// second brings none. That holds when the second packet ends less than a
// second after the first began (the clock is read between the two); on a
// machine too slow for that, the pair is tried again.
TEST_F(HdmiOut, TwoDataPackets500msApartProduceOneHeartbeatAtMost)
{
    ready();
    const auto buf = payloadBuffer(2048, 8);
    bool decided = false;
    for (int attempt = 0; attempt < 5 && !decided; ++attempt) {
        std::this_thread::sleep_for(1100ms);
        const size_t beats = model->count(Kind::Heartbeat);
        const auto firstBegan = sim::Clock::now();
        ASSERT_EQ(send(buf, 2048), 0);
        ASSERT_EQ(model->count(Kind::Heartbeat), beats + 1) << "the first packet is past the period";
        std::this_thread::sleep_for(500ms);
        ASSERT_EQ(send(buf, 2048), 0);
        if (sim::Clock::now() - firstBegan >= 1s)
            continue;
        decided = true;
        EXPECT_EQ(model->count(Kind::Heartbeat), beats + 1) << "no heartbeat within the second";
        const auto packets = model->packets();
        EXPECT_EQ(packets.back().kind, Kind::Data);
    }
    ASSERT_TRUE(decided) << "never two packets within a second";
}

TEST_F(HdmiOut, ADataPacket1200msAfterTheLastHeartbeatIsFollowedByOne)
{
    ready();
    // Connect started the heartbeat clock; no data, no heartbeat.
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(model->count(Kind::Heartbeat), 0u);
    const auto buf = payloadBuffer(1000, 9);
    ASSERT_EQ(send(buf, 1000), 0);
    ASSERT_EQ(model->count(Kind::Heartbeat), 1u);
    // 1.2 s after that heartbeat, the next data packet brings the next one.
    std::this_thread::sleep_for(1200ms);
    const auto secondBegan = sim::Clock::now();
    ASSERT_EQ(codecHal_usb_hdmiOut_data_process(1, 4000, 1000, 1, 2, 3, 1920, 1080, buf.data()), 0);
    const auto packets = model->packets();
    ASSERT_GE(packets.size(), 2u);
    EXPECT_EQ(packets[packets.size() - 2].kind, Kind::Data);
    EXPECT_TRUE(packets[packets.size() - 2].complete);
    EXPECT_EQ(packets.back().kind, Kind::Heartbeat); // right after the data packet
    EXPECT_EQ(packets.back().words[0], 5u);
    const auto beats = model->packets(Kind::Heartbeat);
    ASSERT_EQ(beats.size(), 2u);
    EXPECT_GE(beats[1].when - beats[0].when, 1200ms);
    EXPECT_TRUE(logs.contains(kTag, "ThisLen 1000 TotalLen 4000 Width 1920 Height 1080"));
    EXPECT_EQ(logs.priorityOf(kTag, "ThisLen 1000 TotalLen 4000 Width 1920 Height 1080"), ANDROID_LOG_INFO);
    // The clock starts again: a packet that ends within the second after
    // the one that carried the heartbeat began brings none.
    // On a machine too slow for that, one more may follow, a second after
    // the last at the earliest.
    ASSERT_EQ(send(buf, 1000), 0);
    const auto after = model->packets(Kind::Heartbeat);
    if (sim::Clock::now() - secondBegan < 1s) {
        EXPECT_EQ(after.size(), 2u);
    } else {
        ASSERT_LE(after.size(), 3u);
        if (after.size() == 3u) {
            EXPECT_GE(after[2].when - after[1].when, 1s);
        }
    }
}

TEST_F(HdmiOut, AfterDisconnectDataIsRefusedUntilANewAcknowledgement)
{
    ready();
    EXPECT_EQ(codecHal_usb_hdmiOut_disconnect(), 1);
    EXPECT_TRUE(logs.contains(kTag, "codecHal_usb_hdmiOut_disconnect success!"));
    ASSERT_EQ(model->count(Kind::Disconnect), 1u);
    EXPECT_EQ(model->packets(Kind::Disconnect)[0].words[0], 3u);
    const size_t attempts = model->usb().outAttempts();
    const auto buf = payloadBuffer(700, 10);
    EXPECT_EQ(send(buf, 700), -1);
    EXPECT_EQ(model->usb().outAttempts(), attempts);
    // The converter stayed open: a new acknowledgement opens the data again.
    model->queueAck();
    ASSERT_TRUE(model->waitForCount(Kind::Echo, 2, kWait));
    EXPECT_EQ(send(buf, 700), 0);
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    expectPacket(data[0], buf, 700, 1, 700);
    EXPECT_TRUE(model->errors().empty());
}

TEST_F(HdmiOut, AOneMegabyteStreamArrivesByteExactWithHeartbeatsOnceASecond)
{
    ready();
    const int sizes[] = {512000, 512000, 24576};
    std::vector<std::vector<uint8_t>> sent;
    const auto start = sim::Clock::now();
    unsigned salt = 100;
    // Streams of 1 MB (three packets) for at least 3.5 s of data flow.
    while (sim::Clock::now() - start < 3500ms || sent.size() < 3) {
        for (int size : sizes) {
            sent.push_back(payloadBuffer(static_cast<size_t>(size), salt++));
            ASSERT_EQ(codecHal_usb_hdmiOut_data_process(1, 1048576, size, 1, 2, 3, 1920, 1080, sent.back().data()), 0);
        }
    }
    const auto flow = sim::Clock::now() - start;
    EXPECT_TRUE(model->errors().empty()) << model->errors().front();
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), sent.size());
    for (size_t i = 0; i < data.size(); ++i) {
        SCOPED_TRACE("packet " + std::to_string(i));
        expectPacket(data[i], sent[i], static_cast<uint32_t>(sizes[i % 3]), 1, 1048576);
    }
    // At most one heartbeat a second, each right after a data packet, and
    // they keep coming while data flows.
    const auto packets = model->packets();
    std::vector<sim::Clock::time_point> beats;
    for (size_t i = 0; i < packets.size(); ++i) {
        if (packets[i].kind != Kind::Heartbeat)
            continue;
        beats.push_back(packets[i].when);
        ASSERT_GT(i, 0u);
        EXPECT_EQ(packets[i - 1].kind, Kind::Data);
    }
    for (size_t i = 1; i < beats.size(); ++i)
        EXPECT_GE(beats[i] - beats[i - 1], 900ms) << "heartbeats " << i - 1 << " and " << i;
    const double seconds = std::chrono::duration<double>(flow).count();
    EXPECT_GE(beats.size(), 2u);
    EXPECT_LE(static_cast<double>(beats.size()), seconds + 1.0);
}

TEST_F(HdmiOut, EchoesAndDataNeverShareATransfer)
{
    ready();
    std::atomic<bool> done{false};
    std::vector<std::vector<uint8_t>> sent;
    std::thread sender([&] {
        for (unsigned i = 0; i < 40; ++i) {
            sent.push_back(payloadBuffer(20000 + i * 100, 200 + i));
            codecHal_usb_hdmiOut_data_process(1, 0, static_cast<int>(20000 + i * 100), 1, 2, 3, 1920, 1080,
                                              sent.back().data());
        }
        done = true;
    });
    // Acknowledgements arrive while the packets go out.
    size_t acks = 1;
    while (!done) {
        model->queueAck();
        ++acks;
        std::this_thread::sleep_for(15ms);
    }
    sender.join();
    ASSERT_TRUE(model->waitForCount(Kind::Echo, acks, kWait))
        << model->count(Kind::Echo) << " echoes of " << acks << " acknowledgements; "
        << (model->errors().empty() ? "no decoding error" : model->errors().front());
    EXPECT_TRUE(model->errors().empty()) << model->errors().front();
    EXPECT_EQ(model->unechoedAcks(), 0u);
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), sent.size());
    for (size_t i = 0; i < data.size(); ++i) {
        SCOPED_TRACE("packet " + std::to_string(i));
        expectPacket(data[i], sent[i], static_cast<uint32_t>(20000 + i * 100), 1, 0);
    }
}

TEST_F(HdmiOut, TransferFailuresAreLoggedAndNotRetried)
{
    ready();
    model->usb().failTransfers(sim::UsbDevice::Transfer::BulkOut, EPIPE);
    const size_t attempts = model->usb().outAttempts();
    const auto buf = payloadBuffer(1000, 11);
    EXPECT_EQ(send(buf, 1000), 0);
    EXPECT_EQ(model->usb().outAttempts() - attempts, 3u);
    EXPECT_EQ(logs.count(kTag, "usb_hdmiOut_bulk_xfer headPacket error -1!"), 1u);
    EXPECT_EQ(logs.count(kTag, "usb_hdmiOut_bulk_xfer tx_buff error -1!"), 2u);
    // Disconnect's transfer fails too (one more attempt, not retried); its
    // only line is the success line.
    const size_t before = model->usb().outAttempts();
    logs.clear();
    EXPECT_EQ(codecHal_usb_hdmiOut_disconnect(), 1);
    EXPECT_EQ(model->usb().outAttempts() - before, 1u);
    EXPECT_EQ(logs.countContaining(kTag, ""), 1u);
    EXPECT_TRUE(logs.contains(kTag, "codecHal_usb_hdmiOut_disconnect success!"));
    EXPECT_EQ(model->count(Kind::Data), 0u);
}

TEST_F(HdmiOut, AFailedHeartbeatIsReportedByItsResultAndLogsOnlyThePacketSummary)
{
    ready();
    // Past the heartbeat period since connect started the clock.
    std::this_thread::sleep_for(1100ms);
    model->usb().failTransfers(sim::UsbDevice::Transfer::BulkOut, EPIPE);
    const size_t before = model->usb().outAttempts();
    logs.clear();
    EXPECT_LT(codecHal_usb_hdmiOut_send_heartBeat(1, 4000, 1000, 1, 2, 3, 1920, 1080), 0);
    EXPECT_EQ(model->usb().outAttempts() - before, 1u);
    EXPECT_EQ(logs.countContaining(kTag, ""), 1u);
    EXPECT_TRUE(logs.contains(kTag, "ThisLen 1000 TotalLen 4000 Width 1920 Height 1080"));
    // The clock started again all the same: none is due now.
    EXPECT_EQ(codecHal_usb_hdmiOut_send_heartBeat(1, 4000, 1000, 1, 2, 3, 1920, 1080), 0);
    EXPECT_EQ(model->usb().outAttempts() - before, 1u);
}

TEST_F(HdmiOut, AFailedEchoIsLoggedAndTheAcknowledgementStillCounts)
{
    sim::HdmiOutModel::Options options;
    options.ackOnConnect = false;
    attach(options);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    model->usb().failTransfers(sim::UsbDevice::Transfer::BulkOut, EIO, 1);
    model->queueAck();
    EXPECT_TRUE(logs.waitFor(kTag, "read_thread usb_hdmiOut_bulk_xfer failed! retVal -1", kWait));
    const auto buf = payloadBuffer(512, 12);
    EXPECT_EQ(send(buf, 512), 0);
    ASSERT_EQ(model->count(Kind::Data), 1u);
}

TEST_F(HdmiOut, DeinitJoinsTheReaderAndClosesTheConverter)
{
    ready();
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
    EXPECT_TRUE(logs.contains(kTag, "current device disconnected!"));
    const size_t reads = model->usb().inRequests();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(model->usb().inRequests(), reads);
    const auto buf = payloadBuffer(100, 13);
    EXPECT_EQ(send(buf, 100), -1);
    logs.clear();
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
    EXPECT_FALSE(logs.contains(kTag, "current device disconnected!"));
    // And everything works again after a new init.
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    ASSERT_TRUE(model->waitForCount(Kind::Echo, 2, kWait));
    EXPECT_EQ(send(buf, 100), 0);
}

TEST_F(HdmiOut, ASecondInitKeepsOneReader)
{
    ready();
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_TRUE(logs.contains(kTag, "current device disconnected!"));
    EXPECT_EQ(logs.count(kTag, "codecHal_usb_hdmiOut_init success! retVal 0"), 2u);
    // One reader: each acknowledgement is read and echoed once.
    model->queueAck();
    ASSERT_TRUE(model->waitForCount(Kind::Echo, 2, kWait));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(model->count(Kind::Echo), 2u);
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
}

TEST_F(HdmiOut, TheConverterRemovedMidStreamIsFoundAgainByANewInit)
{
    ready();
    std::atomic<bool> done{false};
    std::atomic<int> refused{0};
    std::thread sender([&] {
        const auto buf = payloadBuffer(51200, 14);
        for (int i = 0; i < 30; ++i)
            if (codecHal_usb_hdmiOut_data_process(1, 0, 51200, 1, 2, 3, 1920, 1080, buf.data()) != 0)
                ++refused;
        done = true;
    });
    ASSERT_TRUE(sim::waitUntil([&] { return model->count(Kind::Data) >= 2; }, kWait));
    model->unplug();
    // No crash, no hang: the sender finishes, its transfers failing.
    EXPECT_TRUE(sim::waitUntil([&] { return done.load(); }, 60s));
    sender.join();
    EXPECT_EQ(refused.load(), 0);
    EXPECT_GE(logs.count(kTag, "usb_hdmiOut_bulk_xfer tx_buff error -1!"), 1u);
    EXPECT_TRUE(model->errors().empty()) << model->errors().front();

    model->replug();
    model->clear();
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    ASSERT_TRUE(model->waitForCount(Kind::Echo, 1, kWait));
    const auto buf = payloadBuffer(3000, 15);
    EXPECT_EQ(send(buf, 3000), 0);
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    expectPacket(data[0], buf, 3000, 1, 3000);
}

TEST_F(HdmiOut, ANewInitAfterRemovalFindsTheConverterWithoutDeinit)
{
    ready();
    model->unplug();
    model->replug();
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_TRUE(logs.contains(kTag, "current device disconnected!"));
    EXPECT_EQ(logs.count(kTag, "founded usb hdmiOut device!!!"), 2u);
    ASSERT_EQ(codecHal_usb_hdmiOut_connect(), 1);
    ASSERT_TRUE(model->waitForCount(Kind::Echo, 2, kWait));
    const auto buf = payloadBuffer(900, 16);
    EXPECT_EQ(send(buf, 900), 0);
    ASSERT_EQ(model->count(Kind::Data), 1u);
}

TEST_F(HdmiOut, RemovalOfTheOpenDeviceClearsTheHandleAndKeepsConnected)
{
    ready();
    usbHdmiOut_device_removed("/dev/bus/usb/001/099", nullptr); // another device: nothing
    EXPECT_FALSE(logs.contains(kTag, "removed current device!!"));
    usbHdmiOut_device_removed(model->devnode().c_str(), nullptr);
    EXPECT_TRUE(logs.contains(kTag, "removed current device!!"));
    EXPECT_EQ(logs.priorityOf(kTag, "removed current device!!"), ANDROID_LOG_ERROR);
    // Without a handle the transfers fail before reaching the converter;
    // the acknowledgement is still there, so data is taken.
    const size_t attempts = model->usb().outAttempts();
    const auto buf = payloadBuffer(100, 17);
    EXPECT_EQ(send(buf, 100), 0);
    EXPECT_TRUE(logs.contains(kTag, "usb_hdmiOut_bulk_xfer headPacket error -1!"));
    EXPECT_EQ(model->usb().outAttempts(), attempts);
    const size_t reads = model->usb().inRequests();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(model->usb().inRequests(), reads);
    // Connected is kept: connect does not set up the host again, and an
    // init that finds no converter still reports success.
    model->unplug();
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    EXPECT_EQ(logs.count(kTag, "founded usb hdmiOut device!!!"), 1u);
}

namespace {

// What the scan should make of a descriptor set, worked out here from the
// bytes: the descriptors are stepped over by their length bytes until one
// is shorter than a header or runs past the end; an interface or endpoint
// is taken only when its length covers the whole record; the converter's
// walk keeps the last interface and the first two endpoints.
struct ExpectedScan {
    bool interface = false;
    int interfaceNumber = -1;
    int endpoints = 0;
    bool taken() const { return interface && endpoints == 2; }
};

ExpectedScan expectedScan(const std::vector<uint8_t> &raw)
{
    ExpectedScan e;
    size_t at = 0;
    while (raw.size() - at >= 2) {
        const size_t length = raw[at];
        if (length < 2 || length > raw.size() - at)
            break;
        if (raw[at + 1] == USB_DT_INTERFACE && length >= USB_DT_INTERFACE_SIZE) {
            e.interface = true;
            e.interfaceNumber = raw[at + 2];
        } else if (raw[at + 1] == USB_DT_ENDPOINT && length >= USB_DT_ENDPOINT_SIZE && e.endpoints < 2) {
            ++e.endpoints;
        }
        at += length;
    }
    return e;
}

} // namespace

// Random descriptor sets after the converter's own device descriptor: the
// scan never crashes, hangs or reads outside the bytes (the sanitizer
// builds check that), and takes the converter exactly when the bytes hold
// an interface and two endpoints, claiming the last interface listed.
TEST_F(HdmiOut, HostileDescriptorsNeverCrashTheScan)
{
    attach();
    // The converter's own device descriptor, then bytes of any kind.
    const std::vector<uint8_t> good = sim::usbDescriptors(model->usb().description());
    uint32_t x = 12345;
    auto next = [&x] {
        x = x * 1103515245u + 12345u;
        return static_cast<uint8_t>(x >> 16);
    };
    int found = 0;
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        // Descriptors of every kind one after the other: whole interfaces
        // and endpoints, short ones, zero and one-byte lengths, lengths
        // past the end, random bytes; the last one often cut short.
        std::vector<uint8_t> raw(good.begin(), good.begin() + 18);
        const int count = next() % 8;
        for (int i = 0; i < count; ++i) {
            const uint8_t pick = next() % 6;
            std::vector<uint8_t> d;
            if (pick <= 1)
                d = {USB_DT_INTERFACE_SIZE, USB_DT_INTERFACE, static_cast<uint8_t>(next() % 4), 0, 2, 0xff, 0, 0, 0};
            else if (pick <= 3)
                d = {USB_DT_ENDPOINT_SIZE, USB_DT_ENDPOINT, next(), 2, 0, 2, 0};
            else {
                d.push_back(static_cast<uint8_t>(next() % 12));
                d.push_back(static_cast<uint8_t>(4 + next() % 2));
                for (int j = next() % 10; j > 0; --j)
                    d.push_back(next());
            }
            if (i == count - 1 && next() % 3 == 0)
                d.resize(next() % (d.size() + 1));
            raw.insert(raw.end(), d.begin(), d.end());
        }
        const ExpectedScan expected = expectedScan(raw);
        model->usb().setRawDescriptors(raw);
        const size_t claimsBefore = model->usb().claimEvents().size();
        logs.clear();
        const int ret = codecHal_usb_hdmiOut_init(kVid, kPid);
        EXPECT_EQ(ret, expected.taken() ? 0 : -1);
        const auto claims = model->usb().claimEvents();
        if (expected.taken()) {
            ++found;
            ASSERT_EQ(claims.size(), claimsBefore + 1);
            EXPECT_EQ(static_cast<int>(claims.back().interface), expected.interfaceNumber);
        } else {
            EXPECT_EQ(claims.size(), claimsBefore);
            EXPECT_TRUE(logs.contains(kTag, expected.interface ? "endpoints not found!" : "interface not found!"));
        }
        EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
    }
    // The random sets held both kinds.
    EXPECT_GT(found, 0);
    EXPECT_LT(found, 300);
    // The well-formed set still works afterwards.
    model->usb().setRawDescriptors(good);
    EXPECT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    RecordProperty("random sets taken as a converter", found);
}

TEST_F(HdmiOut, OnlyAnInTransferStarting00000002IsEchoed)
{
    sim::HdmiOutModel::Options options;
    options.ackOnConnect = false;
    attach(options);
    ASSERT_EQ(codecHal_usb_hdmiOut_init(kVid, kPid), 0);
    uint32_t x = 777;
    auto next = [&x] {
        x = x * 1103515245u + 12345u;
        return static_cast<uint8_t>(x >> 16);
    };
    size_t acks = 0;
    for (int i = 0; i < 200; ++i) {
        std::vector<uint8_t> in(1 + next() % kXfer);
        for (auto &b : in)
            b = next();
        // Some begin like an acknowledgement, some are one byte short of one.
        if (i % 3 == 0 && in.size() >= 4)
            in[0] = in[1] = in[2] = 0, in[3] = 2;
        if (in.size() >= 4 && in[0] == 0 && in[1] == 0 && in[2] == 0 && in[3] == 2)
            ++acks;
        model->queueIn(in);
    }
    ASSERT_TRUE(sim::waitUntil([&] { return model->usb().bulkIn().size() == 200; }, kWait));
    ASSERT_TRUE(model->waitForCount(Kind::Echo, acks, kWait));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(model->count(Kind::Echo), acks);
    EXPECT_EQ(model->usb().bulkOut().size(), acks);
    EXPECT_TRUE(model->errors().empty()) << model->errors().front();
}

TEST_F(HdmiOut, ServiceApiSlots16To20DriveTheLink)
{
    attach();
    const avmanager_module_t *hmi = avmtest::loadModule();
    ASSERT_NE(hmi, nullptr);
    EXPECT_EQ(hmi->usb_hdmiOut_init(hmi, kVid, kPid), 0);
    EXPECT_EQ(hmi->connect_usb_hdmiOut(), 1);
    ASSERT_TRUE(model->waitForCount(Kind::Echo, 1, kWait));
    const auto buf = payloadBuffer(1500, 18);
    EXPECT_EQ(hmi->usb_hdmiOut_packet_process(hmi, 4, 1500, 1500, 1, 2, 3, 1920, 1080, buf.data()), 0);
    EXPECT_EQ(hmi->usb_hdmiOut_packet_process(hmi, 4, 1500, 512001, 1, 2, 3, 1920, 1080, buf.data()), -1);
    EXPECT_EQ(hmi->disconnect_usb_hdmiOut(), 1);
    EXPECT_EQ(hmi->usb_hdmiOut_packet_process(hmi, 4, 1500, 1500, 1, 2, 3, 1920, 1080, buf.data()), -1);
    EXPECT_EQ(hmi->usb_hdmiOut_deinit(), 0);
    const auto data = model->packets(Kind::Data);
    ASSERT_EQ(data.size(), 1u);
    expectPacket(data[0], buf, 1500, 4, 1500);
    EXPECT_EQ(model->count(Kind::Disconnect), 1u);
    for (const char *name : {"avmanager_usb_hdmiOut_init", "avmanager_connect_usb_hdmiOut",
                             "avmanager_disconnect_usb_hdmiOut", "avmanager_usb_hdmiOut_deinit"})
        EXPECT_TRUE(logs.contains("qor_avmanager_hal", std::string("[") + name + "]")) << name;
    // Without a converter the init slot gives -1.
    model.reset();
    EXPECT_EQ(hmi->usb_hdmiOut_init(hmi, kVid, kPid), -1);
}
