// What the console's live trace shows of a link event: short ones whole,
// long ones by their ends, their length and, for the DSP's file chunks,
// which chunks they are; never an escape cut in two.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/trace_summary.h"

namespace {

sim::TraceEvent dspCommand(const std::string &text, bool toDevice = true)
{
    sim::TraceEvent e;
    e.link = "dsp";
    e.toDevice = toDevice;
    e.bytes.assign(text.begin(), text.end());
    return e;
}

std::string chunkCommand(int offset, int length)
{
    std::string text = "FWDAT=" + std::to_string(offset) + "," + std::to_string(length) + ",77,";
    text += std::string(static_cast<size_t>(length) * 2, 'A');
    text.push_back('\0');
    return text;
}

} // namespace

TEST(TraceSummary, AShortEventIsShownWhole)
{
    const auto e = dspCommand(std::string("MV=-11.10") + '\0');
    EXPECT_EQ(sim::traceSummary(e), "MV=-11.10\\0");
    sim::TraceEvent noted = e;
    noted.note = "frame 0x11 0x22";
    EXPECT_EQ(sim::traceSummary(noted), "frame 0x11 0x22");
}

TEST(TraceSummary, AFileChunkIsShortenedToItsEndsItsLengthAndWhichChunkItIs)
{
    const std::string text = chunkCommand(2880, 240);
    const std::string shown = sim::traceSummary(dspCommand(text));
    EXPECT_LE(shown.size(), 120u);
    EXPECT_EQ(shown.rfind(sim::renderBytes(reinterpret_cast<const uint8_t *>(text.data()), sim::kTraceHeadBytes), 0), 0u);
    EXPECT_NE(shown.find("AAAAAAAAAAA\\0 [" + std::to_string(text.size()) + " bytes; chunk 2880,240]"),
              std::string::npos)
        << shown;
}

TEST(TraceSummary, OneReadHoldingTwoChunksNamesBoth)
{
    const std::string text = chunkCommand(0, 240) + chunkCommand(240, 240);
    const std::string shown = sim::traceSummary(dspCommand(text));
    EXPECT_NE(shown.find("; chunks 0,240 240,240]"), std::string::npos) << shown;
    EXPECT_EQ(sim::dspFileChunks(text), "chunks 0,240 240,240");
}

TEST(TraceSummary, ShortCommandsReadTogetherWithAChunkStayWhole)
{
    // On a busy machine the DSP reads a setter and a query in one go with
    // the file chunk before them: both stay readable, the chunk is cut.
    const std::string text = chunkCommand(960, 240) + "MV=-11.10" + '\0' + "MT=?" + '\0';
    const std::string shown = sim::traceSummary(dspCommand(text));
    const std::string chunk = chunkCommand(960, 240);
    const std::string chunkShown = sim::renderBytes(reinterpret_cast<const uint8_t *>(chunk.data()), sim::kTraceHeadBytes) +
                                   "\xe2\x80\xa6" + std::string(sim::kTraceTailBytes - 1, 'A') + "\\0";
    EXPECT_EQ(shown, chunkShown + "MV=-11.10\\0MT=?\\0 [" + std::to_string(text.size()) + " bytes; chunk 960,240]");
}

TEST(TraceSummary, TheDspsLongAnswersAndOtherLinksGetNoChunkName)
{
    const std::string text = chunkCommand(0, 240);
    EXPECT_EQ(sim::traceSummary(dspCommand(text, false)).find("chunk"), std::string::npos);
    sim::TraceEvent hid = dspCommand(text);
    hid.link = "hid";
    const std::string shown = sim::traceSummary(hid);
    EXPECT_EQ(shown.find("chunk"), std::string::npos);
    EXPECT_NE(shown.find(" [" + std::to_string(text.size()) + " bytes]"), std::string::npos) << shown;
    EXPECT_EQ(sim::dspFileChunks("FWDAT=1"), "");
    EXPECT_EQ(sim::dspFileChunks(std::string("MV=?") + '\0'), "");
}

TEST(TraceSummary, BytesAreCutNotTheirEscapes)
{
    sim::TraceEvent e;
    e.link = "i2c-1";
    e.toDevice = true;
    e.bytes.assign(200, 0x01); // each shown as \x01
    const std::string shown = sim::traceSummary(e);
    const std::string head = sim::renderBytes(e.bytes.data(), sim::kTraceHeadBytes);
    const std::string tail = sim::renderBytes(e.bytes.data(), sim::kTraceTailBytes);
    EXPECT_EQ(shown, head + "\xe2\x80\xa6" + tail + " [200 bytes]");
    // Few bytes that render long are shown whole.
    e.bytes.assign(50, 0x01);
    EXPECT_EQ(sim::traceSummary(e), sim::renderBytes(e.bytes.data(), e.bytes.size()));
}

TEST(TraceSummary, ALongNoteOfAModelIsCutAsText)
{
    sim::TraceEvent e;
    e.link = "hdmi-out";
    e.toDevice = true;
    e.note = std::string(300, 'n');
    e.bytes.assign(512, 0);
    const std::string shown = sim::traceSummary(e);
    EXPECT_EQ(shown, std::string(sim::kTraceHeadBytes, 'n') + "\xe2\x80\xa6" + std::string(sim::kTraceTailBytes, 'n') +
                         " [300 characters]");
}
