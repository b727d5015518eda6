// The HDMI-out link without a converter: the header layout of
// init_protocol_packet and the answers of the operations that need no
// device (refusals, transfers without a converter).
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstdint>
#include <vector>

#include "codec/usb_hdmi_out.h"
#include "log_capture.h"

namespace {

constexpr const char *kTag = "CODECHAL";

} // namespace

TEST(UsbHdmiOutPacket, InitProtocolPacketFillsTheHeaderInDataPacketOrder)
{
    usbHdmiOutPacketFields fields = {0x12345, 1000, 4000, 0x1ff, 2, 3, 0x12345, 1080};
    uint32_t packet[USB_HDMI_OUT_HEADER_WORDS];
    for (auto &word : packet)
        word = 0xdeadbeef;
    init_protocol_packet(packet, &fields);
    std::vector<uint32_t> words;
    for (uint32_t word : packet)
        words.push_back(ntohl(word));
    // Copied as given, nothing cut to width; complement in word 2.
    EXPECT_EQ(words, (std::vector<uint32_t>{0x12345, 1000, ~1000u, 0, 0, 0, 0, 0, 4000, 1000, 0x1ff, 2, 3, 0x12345,
                                            1080, 0}));
    const auto *bytes = reinterpret_cast<const uint8_t *>(packet);
    EXPECT_EQ(bytes[4], 0x00);
    EXPECT_EQ(bytes[6], 0x03);
    EXPECT_EQ(bytes[7], 0xe8); // 1000, most significant byte first
}

TEST(UsbHdmiOutPacket, InitProtocolPacketIgnoresMissingArguments)
{
    usbHdmiOutPacketFields fields = {};
    uint32_t packet[USB_HDMI_OUT_HEADER_WORDS] = {7};
    init_protocol_packet(nullptr, &fields);
    init_protocol_packet(packet, nullptr);
    EXPECT_EQ(packet[0], 7u);
}

TEST(UsbHdmiOutLink, DataIsRefusedBeforeAnyAcknowledgement)
{
    avmtest::LogCapture logs;
    const std::vector<uint8_t> payload(1024, 1);
    EXPECT_EQ(codecHal_usb_hdmiOut_data_process(1, 1000, 1000, 0, 0, 0, 1920, 1080, payload.data()), -1);
    // Refused before the length is looked at.
    EXPECT_EQ(codecHal_usb_hdmiOut_data_process(1, 1000, 600000, 0, 0, 0, 1920, 1080, payload.data()), -1);
    EXPECT_EQ(logs.count(kTag, "usb hdmiOut packet ThisLen overrun!!"), 0u);
    EXPECT_EQ(codecHal_usb_hdmiOut_data_process(1, 1000, 1000, 0, 0, 0, 1920, 1080, nullptr), -1);
}

TEST(UsbHdmiOutLink, TransfersWithoutAConverterFail)
{
    uint8_t buf[USB_HDMI_OUT_XFER_SIZE] = {};
    EXPECT_EQ(usb_hdmiOut_bulk_xfer(0x01, nullptr, USB_HDMI_OUT_XFER_SIZE), -1);
    EXPECT_EQ(usb_hdmiOut_bulk_xfer(0x01, buf, USB_HDMI_OUT_XFER_SIZE), -1);
    EXPECT_EQ(usb_hdmiOut_control_xfer(), -1);
}

// Disconnect logs its success line whatever its transfer did, and nothing
// else: a failed transfer shows in no line of its own.
TEST(UsbHdmiOutLink, DisconnectWithoutAConverterStillReturnsOneAndLogsOnlyItsSuccessLine)
{
    avmtest::LogCapture logs;
    EXPECT_EQ(codecHal_usb_hdmiOut_disconnect(), 1);
    std::vector<std::string> lines;
    for (const auto &line : logs.lines())
        if (line.tag == kTag)
            lines.push_back(line.text);
    EXPECT_EQ(lines, std::vector<std::string>{"codecHal_usb_hdmiOut_disconnect success!"});
}

TEST(UsbHdmiOutLink, DeinitWithoutInitReturnsZero)
{
    avmtest::LogCapture logs;
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
    EXPECT_EQ(codecHal_usb_hdmiOut_deinit(), 0);
    EXPECT_EQ(logs.count(kTag, "current device disconnected!"), 0u);
}

TEST(UsbHdmiOutLink, SendDataWithoutAConverterLogsEveryFailedTransfer)
{
    avmtest::LogCapture logs;
    uint32_t header[USB_HDMI_OUT_HEADER_WORDS] = {};
    const std::vector<uint8_t> payload(1024, 2);
    EXPECT_EQ(codecHal_usb_hdmiOut_send_data(header, payload.data(), 1000), -1);
    EXPECT_EQ(logs.count(kTag, "usb_hdmiOut_bulk_xfer headPacket error -1!"), 1u);
    EXPECT_EQ(logs.count(kTag, "usb_hdmiOut_bulk_xfer tx_buff error -1!"), 2u);
}
