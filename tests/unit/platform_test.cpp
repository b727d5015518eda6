// The host platform the module runs on: the property store (its file
// format is an interface other tools rely on), the path helper and the
// hardware-module loader with the HMI record it resolves.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <dirent.h>

#include <avm_paths.h>
#include <cutils/properties.h>
#include <hardware/hardware.h>

#include "avmanager_hal.h"
#include "log_capture.h"

namespace {

std::string fileContent(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The build's output directory: where this program, the tools and the
// module lie.
std::string outDir()
{
    const std::string self = avmtest::selfPath();
    return self.substr(0, self.rfind('/'));
}

std::string toolPath(const char *tool) { return outDir() + "/" + tool; }

std::string run(const std::string &command)
{
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    if (!p)
        return out;
    char buf[256];
    while (fgets(buf, sizeof buf, p))
        out += buf;
    pclose(p);
    return out;
}

} // namespace

TEST(PropertyStore, UnsetPropertyReadsAsTheDefaultOrEmpty)
{
    avmtest::FreshPropertyStore props;
    char value[PROPERTY_VALUE_MAX] = "junk";
    EXPECT_EQ(property_get("persist.test.unset", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    EXPECT_EQ(property_get("persist.test.unset", value, nullptr), 0);
    EXPECT_STREQ(value, "");
}

TEST(PropertyStore, ValueIsOneFileNamedAsTheKeyWithoutTrailingNewline)
{
    avmtest::FreshPropertyStore props;
    ASSERT_EQ(property_set("persist.zel.dsp.volumeVal", "40"), 0);
    EXPECT_EQ(fileContent(props.dir() + "/persist.zel.dsp.volumeVal"), "40");
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("persist.zel.dsp.volumeVal", value, "0"), 2);
    EXPECT_STREQ(value, "40");
}

TEST(PropertyStore, ReplacingAValueLeavesNoTemporaryFileBehind)
{
    avmtest::FreshPropertyStore props;
    ASSERT_EQ(property_set("a.key", "first"), 0);
    ASSERT_EQ(property_set("a.key", "second"), 0);
    EXPECT_EQ(fileContent(props.dir() + "/a.key"), "second");
    int entries = 0;
    DIR *d = opendir(props.dir().c_str());
    ASSERT_NE(d, nullptr);
    while (dirent *e = readdir(d))
        entries += e->d_name[0] != '.';
    closedir(d);
    EXPECT_EQ(entries, 1);
}

TEST(PropertyStore, ValueOf91CharactersIsKeptAnd92IsRefused)
{
    avmtest::FreshPropertyStore props;
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
    ASSERT_EQ(property_set("k.longest", longest.c_str()), 0);
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("k.longest", value, ""), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(value, longest);

    ASSERT_EQ(property_set("k.longest", "old"), 0);
    const std::string tooLong(PROPERTY_VALUE_MAX, 'v');
    EXPECT_LT(property_set("k.longest", tooLong.c_str()), 0);
    property_get("k.longest", value, "");
    EXPECT_STREQ(value, "old"); // a refused value changes nothing
}

TEST(PropertyStore, KeysThatWouldLeaveTheStoreAreRefused)
{
    avmtest::FreshPropertyStore props;
    EXPECT_LT(property_set("../escape", "x"), 0);
    EXPECT_LT(property_set("", "x"), 0);
    EXPECT_LT(property_set(nullptr, "x"), 0);
    struct stat st;
    EXPECT_NE(stat((props.dir() + "/../escape").c_str(), &st), 0);
}

TEST(PropertyStore, AReadOnlyMarkerRefusesEveryWriteAndKeepsValuesReadable)
{
    avmtest::FreshPropertyStore props;
    ASSERT_EQ(property_set("persist.zel.dsp.volumeVal", "40"), 0);
    std::ofstream(props.dir() + "/.readonly").close();
    EXPECT_EQ(property_set("persist.zel.dsp.volumeVal", "50"), -EROFS);
    EXPECT_EQ(property_set("persist.new.key", "1"), -EROFS);
    EXPECT_EQ(props.get("persist.zel.dsp.volumeVal"), "40");
    EXPECT_FALSE(props.isSet("persist.new.key"));
    std::filesystem::remove(props.dir() + "/.readonly");
    EXPECT_EQ(property_set("persist.zel.dsp.volumeVal", "50"), 0);
    EXPECT_EQ(props.get("persist.zel.dsp.volumeVal"), "50");
}

TEST(PropertyStore, AFullMarkerRefusesEveryWriteWithNoSpaceLeft)
{
    avmtest::FreshPropertyStore props;
    ASSERT_EQ(property_set("a.key", "kept"), 0);
    std::ofstream(props.dir() + "/.full").close();
    EXPECT_EQ(property_set("a.key", "lost"), -ENOSPC);
    EXPECT_EQ(props.get("a.key"), "kept");
    // Nothing half-written is left behind either.
    int entries = 0;
    for (const auto &e : std::filesystem::directory_iterator(props.dir()))
        entries += e.path().filename() != ".full";
    EXPECT_EQ(entries, 1);
    std::filesystem::remove(props.dir() + "/.full");
    EXPECT_EQ(property_set("a.key", "new"), 0);
    EXPECT_EQ(props.get("a.key"), "new");
}

TEST(PropertyStore, ToolsInAnotherProcessShareTheStore)
{
    avmtest::FreshPropertyStore props;
    ASSERT_EQ(property_set("persist.vendor.dsp.communication", "1"), 0);
    const std::string getprop = avmtest::shellCommandFor(toolPath("getprop"));
    const std::string setprop = avmtest::shellCommandFor(toolPath("setprop"));
    EXPECT_EQ(run(getprop + " persist.vendor.dsp.communication"), "1\n");
    ASSERT_EQ(std::system((setprop + " vendor.camera.test debug").c_str()), 0);
    char value[PROPERTY_VALUE_MAX];
    property_get("vendor.camera.test", value, "OK");
    EXPECT_STREQ(value, "debug");
    EXPECT_NE(std::system((setprop + " k " + std::string(PROPERTY_VALUE_MAX, 'x') + " 2>/dev/null").c_str()), 0);
}

// The path helper and the loader read the environment; they run in a
// probe process with the environment each case needs.
std::vector<std::string> probeLines(const std::string &probe, const std::vector<std::string> &args,
                                    const std::vector<std::string> &env)
{
    std::vector<std::string> argv = {probe};
    argv.insert(argv.end(), args.begin(), args.end());
    const avmtest::ChildResult result = avmtest::runChild(argv, env);
    EXPECT_EQ(result.exitCode, 0) << result.output << result.errors;
    std::vector<std::string> lines;
    std::istringstream in(result.output);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

TEST(PathHelper, ResolvesModulePathsUnderTheBoardRoot)
{
    const auto lines = probeLines(toolPath("platform_probe"),
                                  {"path", "128", "/tmp/.DSP_fifo", "/mnt/vendor/param/audio/pid_amp.ini",
                                   "/dev/ttyS2", "/sys/bus/usb/devices", "/devices/x"},
                                  {"AVMANAGER_ROOT=/tmp/board-root"});
    const std::vector<std::string> expected = {
        "/tmp/board-root/tmp/.DSP_fifo", "/tmp/board-root/mnt/vendor/param/audio/pid_amp.ini",
        // /dev and /sys are redirected by umockdev, not by the helper.
        "/dev/ttyS2", "/sys/bus/usb/devices", "/tmp/board-root/devices/x"};
    EXPECT_EQ(lines, expected);
}

TEST(PathHelper, IsTheIdentityWithoutABoardRoot)
{
    EXPECT_EQ(probeLines(toolPath("platform_probe"), {"path", "16", "/tmp/.DSP_fifo"}, {}),
              std::vector<std::string>{"/tmp/.DSP_fifo"});
}

TEST(PathHelper, AlwaysTerminatesWithinTheBuffer)
{
    const auto lines = probeLines(toolPath("platform_probe"), {"path", "16", "/tmp/.DSP_fifo"},
                                  {"AVMANAGER_ROOT=/a/very/long/board/root"});
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string("/a/very/long/board/root").substr(0, 15));
}

TEST(ModuleLoader, FindsTheModuleAndChecksTagAndId)
{
    const hw_module_t *module = nullptr;
    ASSERT_EQ(hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module), 0);
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->tag, static_cast<uint32_t>(HARDWARE_MODULE_TAG));
    EXPECT_EQ(module->module_api_version, 1);
    EXPECT_EQ(module->hal_api_version, 0x0100);
    EXPECT_STREQ(module->id, "avmanager_hal");
    EXPECT_STREQ(module->name, "Default AVAPI HAL");
    EXPECT_STREQ(module->author, "The QUOR AV Project");
    ASSERT_NE(module->methods, nullptr);
    EXPECT_EQ(module->methods->open, nullptr); // never opened as a device
    EXPECT_NE(module->dso, nullptr);           // set by the loader
}

TEST(ModuleLoader, UnknownIdIsNotFound)
{
    const hw_module_t *module = nullptr;
    EXPECT_EQ(hw_get_module("no_such_hal", &module), -ENOENT);
    EXPECT_EQ(module, nullptr);
}

TEST(ModuleLoader, SearchesEveryDirectoryOfTheHalPath)
{
    // A probe away from the build's output directory, so only the search
    // path can lead the loader to the module.
    avmtest::TempDir elsewhere;
    const std::string probe = elsewhere.path() + "/platform_probe";
    std::filesystem::copy_file(toolPath("platform_probe"), probe);
    std::filesystem::permissions(probe, std::filesystem::perms::owner_all);
    const std::string out = outDir();
    EXPECT_EQ(probeLines(probe, {"module", AVMANAGER_HARDWARE_MODULE_ID}, {"AVMANAGER_HAL_PATH=/nonexistent"}),
              std::vector<std::string>{std::to_string(-ENOENT)});
    EXPECT_EQ(probeLines(probe, {"module", AVMANAGER_HARDWARE_MODULE_ID},
                         {"AVMANAGER_HAL_PATH=/nonexistent:" + out}),
              std::vector<std::string>{"0"});
}

TEST(ModuleRecord, HoldsTheFiftyOperationsInSlotOrderAfterEightZeroWords)
{
    const hw_module_t *module = nullptr;
    ASSERT_EQ(hw_get_module(AVMANAGER_HARDWARE_MODULE_ID, &module), 0);
    const auto *hmi = reinterpret_cast<const avmanager_module_t *>(module);
    for (uint32_t word : hmi->reserved_words)
        EXPECT_EQ(word, 0u);
    for (auto word : hmi->common.reserved)
        EXPECT_EQ(word, 0u);
    // The table is read by position: every slot set, in the documented order.
    const auto *slots = reinterpret_cast<void *const *>(&hmi->hal_init);
    for (int i = 0; i < AVMANAGER_OPERATION_COUNT; ++i)
        EXPECT_NE(slots[i], nullptr) << "slot " << i;
    EXPECT_EQ(slots[0], reinterpret_cast<void *>(&avmanager_hal_init));
    EXPECT_EQ(slots[1], reinterpret_cast<void *>(&avmanager_hal_release));
    EXPECT_EQ(slots[2], reinterpret_cast<void *>(&avmanager_set_volume));
    EXPECT_EQ(slots[15], reinterpret_cast<void *>(&avmanager_set_powerDown));
    EXPECT_EQ(slots[22], reinterpret_cast<void *>(&avmanager_send_cmd_to_dsp));
    EXPECT_EQ(slots[28], reinterpret_cast<void *>(&avmanager_set_camera_status_callback));
    EXPECT_EQ(slots[39], reinterpret_cast<void *>(&avmanager_audio_floor_wall_Parase_Init));
    EXPECT_EQ(slots[46], reinterpret_cast<void *>(&avmanager_get_cam_funclist));
    EXPECT_EQ(slots[49], reinterpret_cast<void *>(&avmanager_get_cam_auto_black_screen));
}
