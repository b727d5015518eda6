// Tuning files into tables: file locations and fallback, key and value
// syntax, missing rows and keys. No bus needed: the files live under a
// private root named by AVMANAGER_ROOT.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "amp/amp_tuning.h"
#include <android/log.h>

#include "log_capture.h"
#include "module_state.h"
#include "process_env.h"

namespace {

constexpr const char *kParam = "/mnt/vendor/param/audio/";
constexpr const char *kFactory = "/mnt/vendor/odm_ext/etc/tvconfig/audio/audio_floor_wall/XLM-PR417_";

class AmpTuning : public avmtest::FreshModule {
protected:
    void write(const std::string &absolute, const std::string &content)
    {
        const std::filesystem::path path = root.path() + absolute;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << content;
    }

    void remove(const std::string &absolute) { std::filesystem::remove(root.path() + absolute); }

    void generate(const std::string &extra = "")
    {
        const std::string cmd = "python3 '" + avmtest::sourceDir() + "/scripts/gen-tuning-files' '" + root.path() + "' " + extra;
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }

    // A complete register section whose entry i is base + i.
    static std::string regSection(const std::string &name, unsigned base)
    {
        std::string out = "[" + name + "]\n";
        char line[64];
        for (int i = 0; i < AMP_REG_TAB_SIZE; ++i) {
            snprintf(line, sizeof line, "0x%02x = 0x%x\n", i, base + i);
            out += line;
        }
        return out;
    }

    avmtest::FreshRoot root;
    avmtest::LogCapture log;
};

// Reads the value text of `key` in `section` of an ini file, the simple way.
std::string valueIn(const std::string &file, const std::string &section, const std::string &key)
{
    std::ifstream in(file);
    std::string line;
    bool inSection = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '[') {
            inSection = line == "[" + section + "]";
            continue;
        }
        if (inSection && line.rfind(key + " = ", 0) == 0)
            return line.substr(key.size() + 3);
    }
    return "";
}

} // namespace

TEST_F(AmpTuning, GeneratedFilesFillEveryTableOfEveryFormat)
{
    generate();
    parse_PidAmp_RL_Info();
    parse_PidAmp_SUB_Info();
    parseAmp_RL_Floor_Info();
    parseAmp_SUB_Floor_Info();
    parseAmp_RL_Wall_Info();
    parseAmp_SUB_Wall_Info();
    parseAmp_RL_Meeting_Info();
    const std::string floorFile = root.path() + kParam + "amp_RL_FLOOR.ini";
    EXPECT_EQ(m_reg_tab_RL_floor[0x85], std::stoul(valueIn(floorFile, "REG_TAB_RL", "0x85"), nullptr, 16));
    EXPECT_EQ(m_ram1_tab_RL_floor[0x77][3],
              std::stoul(valueIn(floorFile, "RAM1_TAB_RL", "0x77").substr(12), nullptr, 16));
    EXPECT_EQ(tab_R_RL_floor[0x4a][4],
              std::stoul(valueIn(floorFile, "ACM8625_TAB_R", "0x4a").substr(23), nullptr, 16));
    EXPECT_EQ(m_ram1_tab_RL_pid[7][0], 7u) << "start-up rows carry their coefficient address";
    EXPECT_EQ(m_ram2_tab_SUB_pid[119][0], 119u);
    EXPECT_NE(m_reg_tab_SUB_wall[1], m_reg_tab_SUB_floor[1]);
    EXPECT_NE(m_reg_tab_RL_meeting[1], 0u);
    EXPECT_EQ(log.countContaining("DSP", "ampRamTab is NULL"), 0u);
}

TEST_F(AmpTuning, TheTunedCopyWinsOverTheFactoryCopy)
{
    generate();
    write(std::string(kParam) + "amp_RL_WALL.ini", regSection("REG_TAB_RL", 0x100));
    parseAmp_RL_Wall_Info();
    EXPECT_EQ(m_reg_tab_RL_wall[3], 0x103u);
}

TEST_F(AmpTuning, TheFactoryCopyIsUsedWhenTheTunedCopyIsMissing)
{
    generate("--only factory");
    write(std::string(kFactory) + "amp_SUB_WALL.ini", regSection("REG_TAB_SUB", 0x200));
    parseAmp_SUB_Wall_Info();
    EXPECT_EQ(m_reg_tab_SUB_wall[0x10], 0x210u);
    EXPECT_TRUE(log.contains(
        "DSP", "parseAmp_Ini_Info, cannot load (/mnt/vendor/param/audio/amp_SUB_WALL.ini), trying the factory copy\n"));
}

TEST_F(AmpTuning, WithBothCopiesOfAFloorFileAbsentNothingIsFilled)
{
    generate("--only param");
    parseAmp_RL_Floor_Info();
    const uint32_t before = m_reg_tab_RL_floor[4];
    ASSERT_NE(before, 0u);
    remove(std::string(kParam) + "amp_RL_FLOOR.ini");
    remove(std::string(kParam) + "amp_SUB_FLOOR.ini");
    parseAmp_RL_Floor_Info();
    parseAmp_SUB_Floor_Info();
    EXPECT_EQ(m_reg_tab_RL_floor[4], before) << "previous contents stay";
    EXPECT_EQ(m_reg_tab_SUB_floor[4], 0u) << "never loaded: still zero";
    EXPECT_EQ(tab_L_SUB_floor[10][1], 0u);
    EXPECT_TRUE(log.contains("DSP", "parseAmp_Ini_Info, cannot load "
                                    "(/mnt/vendor/odm_ext/etc/tvconfig/audio/audio_floor_wall/"
                                    "XLM-PR417_amp_SUB_FLOOR.ini) either\n"));
    EXPECT_TRUE(log.contains("DSP", "parseAmp_SUB_Floor_Info, INI load file (amp_SUB_FLOOR.ini) error!\n"));
    EXPECT_EQ(parseAmp_Ini_Info("amp_SUB_FLOOR.ini"), nullptr);
}

TEST_F(AmpTuning, ARamValueOfFourNumbersJoinedByBareCommasParses)
{
    write(std::string(kParam) + "amp_RL_MEETING.ini",
          regSection("REG_TAB_RL", 0) + "[RAM1_TAB_RL]\n0x00 = 1a,2b,3c,4d\n0x01 = 0x11,0x22,0x33,0x44\n");
    parseAmp_RL_Meeting_Info();
    EXPECT_EQ(m_ram1_tab_RL_meeting[0][0], 0x1Au);
    EXPECT_EQ(m_ram1_tab_RL_meeting[0][3], 0x4Du);
    EXPECT_EQ(m_ram1_tab_RL_meeting[1][2], 0x33u);
}

TEST_F(AmpTuning, ABlankBeforeACommaStopsTheParseAfterTheFirstNumber)
{
    m_ram1_tab_RL_meeting[2][0] = 0xEE;
    m_ram1_tab_RL_meeting[2][1] = 0xEE;
    m_ram1_tab_RL_meeting[2][2] = 0xEE;
    m_ram1_tab_RL_meeting[2][3] = 0xEE;
    write(std::string(kParam) + "amp_RL_MEETING.ini",
          regSection("REG_TAB_RL", 0) + "[RAM1_TAB_RL]\n0x02 = 01 , 02, 03, 04\n");
    parseAmp_RL_Meeting_Info();
    EXPECT_EQ(m_ram1_tab_RL_meeting[2][0], 0x01u);
    EXPECT_EQ(m_ram1_tab_RL_meeting[2][1], 0xEEu);
    EXPECT_EQ(m_ram1_tab_RL_meeting[2][3], 0xEEu);
}

TEST_F(AmpTuning, AnEqualiserRowNeedsItsLastCommaDirectlyAfterTheFourthNumber)
{
    tab_L_RL_floor[0][4] = 0xEE;
    tab_L_RL_floor[1][4] = 0xEE;
    write(std::string(kParam) + "amp_RL_FLOOR.ini",
          regSection("REG_TAB_RL", 0) + "[ACM8625_TAB_L]\n0x00 = 10, 1, 2, 3,4\n0x01 = 20, 1, 2, 3 ,4\n");
    parseAmp_RL_Floor_Info();
    EXPECT_EQ(tab_L_RL_floor[0][0], 0x10u);
    EXPECT_EQ(tab_L_RL_floor[0][4], 0x4u);
    EXPECT_EQ(tab_L_RL_floor[1][3], 0x3u);
    EXPECT_EQ(tab_L_RL_floor[1][4], 0xEEu);
}

TEST_F(AmpTuning, RowNumbersAboveNineAreLookedUpAsTwoDigitLowerCaseHex)
{
    write(std::string(kParam) + "amp_RL_MEETING.ini", regSection("REG_TAB_RL", 0) +
                                                          "[RAM1_TAB_RL]\n0x0a = 1, 2, 3, 4\n0xb = 5, 6, 7, 8\n"
                                                          "0x0c = 9, 9, 9, 9\n");
    parseAmp_RL_Meeting_Info();
    EXPECT_EQ(m_ram1_tab_RL_meeting[10][3], 4u);
    EXPECT_EQ(m_ram1_tab_RL_meeting[11][0], 0u) << "\"0xb\" is not the key of row 11";
    EXPECT_EQ(m_ram1_tab_RL_meeting[12][0], 9u);
    EXPECT_TRUE(log.contains("DSP", "[pid]error ampRamTab is NULL, RAM1_TAB_key = RAM1_TAB_RL:0x0b\n"));
    EXPECT_EQ(m_reg_tab_RL_meeting[0x0a], 0x0Au);
    EXPECT_EQ(m_reg_tab_RL_meeting[0x85], 0x85u);
}

TEST_F(AmpTuning, MissingRamAndEqualiserRowsAreLoggedAndKept)
{
    tab_R_SUB_wall[5][0] = 0x77;
    m_ram2_tab_SUB_wall[5][0] = 0x66;
    write(std::string(kParam) + "amp_SUB_WALL.ini", regSection("REG_TAB_SUB", 0));
    parseAmp_SUB_Wall_Info();
    EXPECT_EQ(tab_R_SUB_wall[5][0], 0x77u);
    EXPECT_EQ(m_ram2_tab_SUB_wall[5][0], 0x66u);
    EXPECT_EQ(log.countContaining("DSP", "[pid]error ampRamTab is NULL, RAM1_TAB_key = RAM1_TAB_SUB:0x"), 120u);
    EXPECT_EQ(log.countContaining("DSP", "[pid]error ampRamTab is NULL, RAM2_TAB_key = RAM2_TAB_SUB:0x"), 120u);
    EXPECT_TRUE(log.contains("DSP", "[pid]error ampRamTab is NULL, ACM8625_TAB_L_key= ACM8625_TAB_L:0x4a\n"));
    EXPECT_TRUE(log.contains("DSP", "[pid]error ampRamTab is NULL, ACM8625_TAB_R_key = ACM8625_TAB_R:0x00\n"));
    EXPECT_EQ(log.priorityOf("DSP", "[pid]error ampRamTab is NULL, ACM8625_TAB_R_key = ACM8625_TAB_R:0x00\n"),
              ANDROID_LOG_DEBUG);
}

TEST_F(AmpTuning, AMissingRegisterKeyLeavesItsEntryUnchanged)
{
    m_reg_tab_RL_meeting[7] = 0x1234;
    write(std::string(kParam) + "amp_RL_MEETING.ini", "[REG_TAB_RL]\n0x06 = 0x66\n0x08 = zz\n");
    m_reg_tab_RL_meeting[8] = 0x88;
    parseAmp_RL_Meeting_Info();
    EXPECT_EQ(m_reg_tab_RL_meeting[6], 0x66u);
    EXPECT_EQ(m_reg_tab_RL_meeting[7], 0x1234u);
    EXPECT_EQ(m_reg_tab_RL_meeting[8], 0x88u) << "a value that is no number leaves the entry";
}

TEST_F(AmpTuning, ValuesAreStoredWholeNotJustTheirLowByte)
{
    write(std::string(kParam) + "amp_RL_MEETING.ini", "[REG_TAB_RL]\n0x00 = 0x1234abcd\n0x01 = 7f\n");
    parseAmp_RL_Meeting_Info();
    EXPECT_EQ(m_reg_tab_RL_meeting[0], 0x1234ABCDu);
    EXPECT_EQ(m_reg_tab_RL_meeting[1], 0x7Fu);
}

TEST_F(AmpTuning, SectionAndKeyMatchingIgnoresCase)
{
    write(std::string(kParam) + "amp_RL_MEETING.ini", "[reg_tab_rl]\n0X05 = 0x55\n");
    parseAmp_RL_Meeting_Info();
    EXPECT_EQ(m_reg_tab_RL_meeting[5], 0x55u);
}

TEST_F(AmpTuning, TheStartupFileHasNoFactoryFallback)
{
    generate("--only factory");
    write(std::string(kFactory) + "pid_amp.ini", regSection("REG_TAB_RL", 0x40));
    parse_PidAmp_RL_Info();
    EXPECT_EQ(m_reg_tab_RL_pid[1], 0u);
    EXPECT_TRUE(log.contains("DSP", "parse_PidAmp_RL_Info, INI load file (/mnt/vendor/param/audio/pid_amp.ini) error!\n"));
}

TEST_F(AmpTuning, TheMeetingFileFillsNoEqualiserTables)
{
    write(std::string(kParam) + "amp_RL_MEETING.ini", regSection("REG_TAB_RL", 1) +
                                                          "[ACM8625_TAB_L]\n0x00 = 1, 2, 3, 4,5\n");
    parseAmp_RL_Meeting_Info();
    EXPECT_EQ(tab_L_RL_floor[0][0], 0u);
    EXPECT_EQ(tab_L_RL_wall[0][0], 0u);
    EXPECT_EQ(log.countContaining("DSP", "ACM8625_TAB"), 0u);
}

TEST_F(AmpTuning, RlAndSubFilesReadTheirOwnSectionsOfTheStartupFile)
{
    write(std::string(kParam) + "pid_amp.ini",
          regSection("REG_TAB_RL", 0x10) + regSection("REG_TAB_SUB", 0x20) +
              "[RAM1_TAB_SUB]\n0x03 = 3, 0xa, 0xb, 0xc\n[RAM2_TAB_RL]\n0x04 = 4, 1, 2, 3\n");
    parse_PidAmp_RL_Info();
    parse_PidAmp_SUB_Info();
    EXPECT_EQ(m_reg_tab_RL_pid[0], 0x10u);
    EXPECT_EQ(m_reg_tab_SUB_pid[0], 0x20u);
    EXPECT_EQ(m_ram1_tab_SUB_pid[3][3], 0xCu);
    EXPECT_EQ(m_ram2_tab_RL_pid[4][1], 1u);
    EXPECT_EQ(m_ram1_tab_RL_pid[3][3], 0u);
}

TEST_F(AmpTuning, AnUnreadableFileIsLoggedAndStartUpGoesOn)
{
    parse_PidAmp_RL_Info();
    parse_PidAmp_SUB_Info();
    EXPECT_EQ(log.priorityOf("DSP", "parse_PidAmp_SUB_Info, INI load file (/mnt/vendor/param/audio/pid_amp.ini) error!\n"),
              ANDROID_LOG_INFO);
    EXPECT_TRUE(log.contains("DSP", "parse_PidAmp_SUB_Info, parse (/mnt/vendor/param/audio/pid_amp.ini) end\n"));
}
