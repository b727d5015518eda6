// Shared set-up for the amplifier and sound-mode board tests: a board with
// the amplifier model of a chosen fitting, the made-up tuning files from
// scripts/gen-tuning-files, and helpers that replay the tables into the
// register and coefficient contents a format switch must leave behind.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

#include "amp/amp_program.h"
#include "amp/amp_tuning.h"
#include "log_capture.h"
#include "process_env.h"
#include "sim/amp_model.h"
#include "sim/board.h"

namespace amptest {

// Runs the one generator of made-up tuning files into a board root.
inline void generateTuningFiles(const std::string &root, const std::string &extra = "")
{
    const std::string cmd = "python3 '" + avmtest::sourceDir() + "/scripts/gen-tuning-files' '" + root + "' " + extra;
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

inline void generateTuningFiles(const sim::Board &board, const std::string &extra = "")
{
    generateTuningFiles(board.root(), extra);
}

inline uint8_t low8(uint32_t v)
{
    return static_cast<uint8_t>(v & 0xFF);
}

// Registers 2 and 113..124 are never written by a format switch.
inline bool formatSkips(int reg)
{
    return reg == 2 || (reg >= 113 && reg <= 124);
}

// Checks an AD82120 device against a format's register table and RAM1.
inline void expectAdFormat(const sim::AmpModel &amp, uint8_t addr, const uint32_t *regTab,
                           const uint32_t (*ram1)[AMP_RAM_TAB_COLS])
{
    for (int r = 0; r < AMP_REG_TAB_SIZE; ++r) {
        if (formatSkips(r) || (r >= 0x1D && r <= 0x21) || r == 0x32)
            continue;
        EXPECT_EQ(amp.reg(addr, static_cast<uint8_t>(r)), low8(regTab[r])) << "device " << int(addr) << " reg " << r;
    }
    for (int row = 0; row < AMP_RAM_TAB_ROWS; ++row) {
        const auto coef = amp.coef(addr, 1, static_cast<uint8_t>(row));
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(coef[static_cast<size_t>(k)], low8(ram1[row][k])) << "device " << int(addr) << " row " << row;
    }
    // The last coefficient row stays in the staging registers.
    EXPECT_EQ(amp.reg(addr, 0x1D), AMP_RAM_TAB_ROWS - 1);
    EXPECT_EQ(amp.reg(addr, 0x32), 0x01);
}

// The paged register file an equaliser table programming leaves behind,
// replayed from the tables: [page][reg] = value, -1 where not written.
using PageImage = std::array<std::array<int, 256>, 16>;

inline void replayEq(PageImage &image, const uint32_t (*tabL)[AMP_EQ_TAB_COLS], const uint32_t (*tabR)[AMP_EQ_TAB_COLS])
{
    for (int r = 0; r < AMP_EQ_TAB_ROWS; ++r) {
        const int page = r < 20 ? 6 : 7;
        for (int k = 0; k < 4; ++k)
            image[page][(tabL[r][0] + k) & 0xFF] = low8(tabL[r][1 + k]);
    }
    for (int r = 0; r < AMP_EQ_TAB_ROWS; ++r) {
        const int page = r < 8 ? 7 : (r < 71 ? 8 : 9);
        for (int k = 0; k < 4; ++k)
            image[page][(tabR[r][0] + k) & 0xFF] = low8(tabR[r][1 + k]);
    }
}

inline void expectAcmEq(const sim::AmpModel &amp, uint8_t addr, const uint32_t (*tabL)[AMP_EQ_TAB_COLS],
                        const uint32_t (*tabR)[AMP_EQ_TAB_COLS])
{
    PageImage image;
    for (auto &page : image)
        page.fill(-1);
    replayEq(image, tabL, tabR);
    int checked = 0;
    for (int page = 6; page <= 9; ++page)
        for (int reg = 1; reg < 256; ++reg)
            if (image[page][reg] >= 0) {
                EXPECT_EQ(amp.reg(addr, static_cast<uint8_t>(reg), static_cast<uint8_t>(page)), image[page][reg])
                    << "device " << int(addr) << " page " << page << " reg " << reg;
                ++checked;
            }
    EXPECT_GT(checked, 0);
    EXPECT_EQ(amp.currentPage(addr), 0) << "programming ends back on page 0";
}

} // namespace amptest
