/*
 * amp_tuning: the amplifier tuning files and the tables they fill.
 *
 * Owns the process-wide register, coefficient and equaliser tables. The
 * start-up file "pid_amp.ini" is read once at module start; the per-format
 * files (floor, wall, meeting for the main and subwoofer amplifiers) are
 * read once, on the first speaker-placement request of a floor/wall
 * product. A tuned copy in the parameter partition wins over the factory
 * copy shipped with the product configuration.
 *
 * Threads: the start-up thread and the binder thread of the first
 * speaker-placement request write the tables; the format switch (binder
 * thread or Fig DSP receive thread) reads them.
 *
 * State (all guarded by gAmpTablesMutex while filled or programmed):
 *   m_reg_tab_*   134 register values, entry i for register i
 *   m_ram1_tab_*  120 coefficient rows of 4 values, RAM bank 1
 *   m_ram2_tab_*  120 coefficient rows of 4 values, RAM bank 2
 *   tab_L_*       75 ACM8625 equaliser rows (first register, 4 bytes), left
 *   tab_R_*       75 ACM8625 equaliser rows, right
 */
#include "amp/amp_tuning.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <pthread.h>

#include <android/log.h>
#include <avm_paths.h>
#include <iniparser.h>

namespace {

constexpr const char *TAG = "DSP";
constexpr const char *kParamDir = "/mnt/vendor/param/audio/";
constexpr const char *kFactoryDir = "/mnt/vendor/odm_ext/etc/tvconfig/audio/audio_floor_wall/";
constexpr const char *kProductModel = "XLM-PR417";
constexpr const char *kPidFile = "/mnt/vendor/param/audio/pid_amp.ini";
constexpr size_t kFilePathSize = 100;
constexpr size_t kKeySize = 30;

// Value syntax. Each number must be followed directly by its comma, so a
// blank before a comma ends the parse there.
constexpr const char *kRegValueFormat = "%x";
constexpr const char *kRamRowFormat = "%x, %x, %x, %x";
constexpr const char *kEqRowFormat = "%x, %x, %x, %x,%x";

constexpr const char *kRam1Missing = "[pid]error ampRamTab is NULL, RAM1_TAB_key = %s\n";
constexpr const char *kRam2Missing = "[pid]error ampRamTab is NULL, RAM2_TAB_key = %s\n";
constexpr const char *kEqLMissing = "[pid]error ampRamTab is NULL, ACM8625_TAB_L_key= %s\n";
constexpr const char *kEqRMissing = "[pid]error ampRamTab is NULL, ACM8625_TAB_R_key = %s\n";

// Recursive: a format switch holds it across programming steps that each
// take it again.
pthread_mutex_t gAmpTablesMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

using RamTable = uint32_t[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
using EqTable = uint32_t[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];

// One ini file's worth of tables; the section prefixes carry the colon.
struct TuningSet {
    const char *function; // parse function, as logged
    const char *regSection;
    const char *ram1Section;
    const char *ram2Section;
    uint32_t *regTab;
    RamTable *ram1Tab;
    RamTable *ram2Tab;
    EqTable *eqLTab; // null for sets without equaliser tables
    EqTable *eqRTab;
};

void formatKey(char (&key)[kKeySize], const char *section, int row)
{
    snprintf(key, sizeof key, "%s0x%02x", section, row);
}

const char *lookup(dictionary *dict, const char *key)
{
    return iniparser_getstring(dict, key, nullptr);
}

// Register sections carry no presence check on the device: every file has
// all 134 keys. A missing key here simply leaves the entry as it was.
void fillRegisters(dictionary *dict, const char *section, uint32_t *table)
{
    char key[kKeySize];
    for (int i = 0; i < AMP_REG_TAB_SIZE; ++i) {
        formatKey(key, section, i);
        const char *value = lookup(dict, key);
        if (value != nullptr)
            sscanf(value, kRegValueFormat, &table[i]);
    }
}

void fillRamRows(dictionary *dict, const char *section, RamTable &table, const char *missing)
{
    char key[kKeySize];
    for (int row = 0; row < AMP_RAM_TAB_ROWS; ++row) {
        formatKey(key, section, row);
        const char *value = lookup(dict, key);
        if (value == nullptr) {
            __android_log_print(ANDROID_LOG_DEBUG, TAG, missing, key);
            continue;
        }
        // A partial parse fills the leading columns and keeps the rest.
        sscanf(value, kRamRowFormat, &table[row][0], &table[row][1], &table[row][2], &table[row][3]);
    }
}

void fillEqRows(dictionary *dict, const char *section, EqTable &table, const char *missing)
{
    char key[kKeySize];
    for (int row = 0; row < AMP_EQ_TAB_ROWS; ++row) {
        formatKey(key, section, row);
        const char *value = lookup(dict, key);
        if (value == nullptr) {
            __android_log_print(ANDROID_LOG_DEBUG, TAG, missing, key);
            continue;
        }
        sscanf(value, kEqRowFormat, &table[row][0], &table[row][1], &table[row][2], &table[row][3],
               &table[row][4]);
    }
}

dictionary *loadIni(const char *devicePath)
{
    char resolved[PATH_MAX];
    return iniparser_load(avm_path(devicePath, resolved, sizeof resolved));
}

// Fills one set from a loaded dictionary (or fills nothing when dict is
// null), then frees the dictionary and logs the end of the parse.
void fillSet(dictionary *dict, const TuningSet &set, const char *file)
{
    pthread_mutex_lock(&gAmpTablesMutex);
    if (dict == nullptr) {
        __android_log_print(ANDROID_LOG_INFO, TAG, "%s, INI load file (%s) error!\n", set.function, file);
    } else {
        fillRegisters(dict, set.regSection, set.regTab);
        fillRamRows(dict, set.ram1Section, *set.ram1Tab, kRam1Missing);
        fillRamRows(dict, set.ram2Section, *set.ram2Tab, kRam2Missing);
        if (set.eqLTab != nullptr) {
            fillEqRows(dict, "ACM8625_TAB_L:", *set.eqLTab, kEqLMissing);
            fillEqRows(dict, "ACM8625_TAB_R:", *set.eqRTab, kEqRMissing);
        }
    }
    pthread_mutex_unlock(&gAmpTablesMutex);
    iniparser_freedict(dict);
    __android_log_print(ANDROID_LOG_INFO, TAG, "%s, parse (%s) end\n", set.function, file);
}

void parseFormatFile(const char *file, const TuningSet &set)
{
    fillSet(parseAmp_Ini_Info(file), set, file);
}

} // namespace

extern "C" {

uint32_t m_reg_tab_RL_pid[AMP_REG_TAB_SIZE];
uint32_t m_reg_tab_SUB_pid[AMP_REG_TAB_SIZE];
uint32_t m_ram1_tab_RL_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram2_tab_RL_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram1_tab_SUB_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram2_tab_SUB_pid[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];

uint32_t m_reg_tab_RL_floor[AMP_REG_TAB_SIZE];
uint32_t m_reg_tab_SUB_floor[AMP_REG_TAB_SIZE];
uint32_t m_ram1_tab_RL_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram2_tab_RL_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram1_tab_SUB_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram2_tab_SUB_floor[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t tab_L_RL_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
uint32_t tab_R_RL_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
uint32_t tab_L_SUB_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
uint32_t tab_R_SUB_floor[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];

uint32_t m_reg_tab_RL_wall[AMP_REG_TAB_SIZE];
uint32_t m_reg_tab_SUB_wall[AMP_REG_TAB_SIZE];
uint32_t m_ram1_tab_RL_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram2_tab_RL_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram1_tab_SUB_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram2_tab_SUB_wall[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t tab_L_RL_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
uint32_t tab_R_RL_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
uint32_t tab_L_SUB_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];
uint32_t tab_R_SUB_wall[AMP_EQ_TAB_ROWS][AMP_EQ_TAB_COLS];

uint32_t m_reg_tab_RL_meeting[AMP_REG_TAB_SIZE];
uint32_t m_ram1_tab_RL_meeting[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];
uint32_t m_ram2_tab_RL_meeting[AMP_RAM_TAB_ROWS][AMP_RAM_TAB_COLS];

void ampTablesLock(void)
{
    pthread_mutex_lock(&gAmpTablesMutex);
}

void ampTablesUnlock(void)
{
    pthread_mutex_unlock(&gAmpTablesMutex);
}

// The start-up file has no factory fallback.
void parse_PidAmp_RL_Info(void)
{
    static const TuningSet set{"parse_PidAmp_RL_Info", "REG_TAB_RL:", "RAM1_TAB_RL:", "RAM2_TAB_RL:",
                               m_reg_tab_RL_pid, &m_ram1_tab_RL_pid, &m_ram2_tab_RL_pid, nullptr, nullptr};
    fillSet(loadIni(kPidFile), set, kPidFile);
}

void parse_PidAmp_SUB_Info(void)
{
    static const TuningSet set{"parse_PidAmp_SUB_Info", "REG_TAB_SUB:", "RAM1_TAB_SUB:", "RAM2_TAB_SUB:",
                               m_reg_tab_SUB_pid, &m_ram1_tab_SUB_pid, &m_ram2_tab_SUB_pid, nullptr, nullptr};
    fillSet(loadIni(kPidFile), set, kPidFile);
}

dictionary *parseAmp_Ini_Info(const char *file)
{
    char path[kFilePathSize];
    snprintf(path, sizeof path, "%s%s", kParamDir, file);
    dictionary *dict = loadIni(path);
    if (dict != nullptr)
        return dict;
    __android_log_print(ANDROID_LOG_INFO, TAG, "parseAmp_Ini_Info, cannot load (%s), trying the factory copy\n", path);
    snprintf(path, sizeof path, "%s%s%s%s", kFactoryDir, kProductModel, "_", file);
    dict = loadIni(path);
    if (dict != nullptr)
        return dict;
    __android_log_print(ANDROID_LOG_INFO, TAG, "parseAmp_Ini_Info, cannot load (%s) either\n", path);
    return nullptr;
}

void parseAmp_RL_Floor_Info(void)
{
    static const TuningSet set{"parseAmp_RL_Floor_Info", "REG_TAB_RL:", "RAM1_TAB_RL:", "RAM2_TAB_RL:",
                               m_reg_tab_RL_floor, &m_ram1_tab_RL_floor, &m_ram2_tab_RL_floor,
                               &tab_L_RL_floor, &tab_R_RL_floor};
    parseFormatFile("amp_RL_FLOOR.ini", set);
}

void parseAmp_SUB_Floor_Info(void)
{
    static const TuningSet set{"parseAmp_SUB_Floor_Info", "REG_TAB_SUB:", "RAM1_TAB_SUB:", "RAM2_TAB_SUB:",
                               m_reg_tab_SUB_floor, &m_ram1_tab_SUB_floor, &m_ram2_tab_SUB_floor,
                               &tab_L_SUB_floor, &tab_R_SUB_floor};
    parseFormatFile("amp_SUB_FLOOR.ini", set);
}

void parseAmp_RL_Wall_Info(void)
{
    static const TuningSet set{"parseAmp_RL_Wall_Info", "REG_TAB_RL:", "RAM1_TAB_RL:", "RAM2_TAB_RL:",
                               m_reg_tab_RL_wall, &m_ram1_tab_RL_wall, &m_ram2_tab_RL_wall,
                               &tab_L_RL_wall, &tab_R_RL_wall};
    parseFormatFile("amp_RL_WALL.ini", set);
}

void parseAmp_SUB_Wall_Info(void)
{
    static const TuningSet set{"parseAmp_SUB_Wall_Info", "REG_TAB_SUB:", "RAM1_TAB_SUB:", "RAM2_TAB_SUB:",
                               m_reg_tab_SUB_wall, &m_ram1_tab_SUB_wall, &m_ram2_tab_SUB_wall,
                               &tab_L_SUB_wall, &tab_R_SUB_wall};
    parseFormatFile("amp_SUB_WALL.ini", set);
}

// The meeting format programs the main amplifier only: no SUB set and no
// equaliser tables.
void parseAmp_RL_Meeting_Info(void)
{
    static const TuningSet set{"parseAmp_RL_Meeting_Info", "REG_TAB_RL:", "RAM1_TAB_RL:", "RAM2_TAB_RL:",
                               m_reg_tab_RL_meeting, &m_ram1_tab_RL_meeting, &m_ram2_tab_RL_meeting,
                               nullptr, nullptr};
    parseFormatFile("amp_RL_MEETING.ini", set);
}

} // extern "C"

#ifdef AVM_HOST_BUILD
extern "C" void ampTuning_resetForTest(void)
{
    ampTablesLock();
    std::memset(m_reg_tab_RL_pid, 0, sizeof m_reg_tab_RL_pid);
    std::memset(m_reg_tab_SUB_pid, 0, sizeof m_reg_tab_SUB_pid);
    std::memset(m_ram1_tab_RL_pid, 0, sizeof m_ram1_tab_RL_pid);
    std::memset(m_ram2_tab_RL_pid, 0, sizeof m_ram2_tab_RL_pid);
    std::memset(m_ram1_tab_SUB_pid, 0, sizeof m_ram1_tab_SUB_pid);
    std::memset(m_ram2_tab_SUB_pid, 0, sizeof m_ram2_tab_SUB_pid);
    std::memset(m_reg_tab_RL_floor, 0, sizeof m_reg_tab_RL_floor);
    std::memset(m_reg_tab_SUB_floor, 0, sizeof m_reg_tab_SUB_floor);
    std::memset(m_ram1_tab_RL_floor, 0, sizeof m_ram1_tab_RL_floor);
    std::memset(m_ram2_tab_RL_floor, 0, sizeof m_ram2_tab_RL_floor);
    std::memset(m_ram1_tab_SUB_floor, 0, sizeof m_ram1_tab_SUB_floor);
    std::memset(m_ram2_tab_SUB_floor, 0, sizeof m_ram2_tab_SUB_floor);
    std::memset(tab_L_RL_floor, 0, sizeof tab_L_RL_floor);
    std::memset(tab_R_RL_floor, 0, sizeof tab_R_RL_floor);
    std::memset(tab_L_SUB_floor, 0, sizeof tab_L_SUB_floor);
    std::memset(tab_R_SUB_floor, 0, sizeof tab_R_SUB_floor);
    std::memset(m_reg_tab_RL_wall, 0, sizeof m_reg_tab_RL_wall);
    std::memset(m_reg_tab_SUB_wall, 0, sizeof m_reg_tab_SUB_wall);
    std::memset(m_ram1_tab_RL_wall, 0, sizeof m_ram1_tab_RL_wall);
    std::memset(m_ram2_tab_RL_wall, 0, sizeof m_ram2_tab_RL_wall);
    std::memset(m_ram1_tab_SUB_wall, 0, sizeof m_ram1_tab_SUB_wall);
    std::memset(m_ram2_tab_SUB_wall, 0, sizeof m_ram2_tab_SUB_wall);
    std::memset(tab_L_RL_wall, 0, sizeof tab_L_RL_wall);
    std::memset(tab_R_RL_wall, 0, sizeof tab_R_RL_wall);
    std::memset(tab_L_SUB_wall, 0, sizeof tab_L_SUB_wall);
    std::memset(tab_R_SUB_wall, 0, sizeof tab_R_SUB_wall);
    std::memset(m_reg_tab_RL_meeting, 0, sizeof m_reg_tab_RL_meeting);
    std::memset(m_ram1_tab_RL_meeting, 0, sizeof m_ram1_tab_RL_meeting);
    std::memset(m_ram2_tab_RL_meeting, 0, sizeof m_ram2_tab_RL_meeting);
    ampTablesUnlock();
}
#endif
