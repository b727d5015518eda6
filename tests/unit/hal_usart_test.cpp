// Serial port unit on real pseudo-terminals: every setting is read back
// with tcgetattr from the port the unit configured.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "common/hal_usart.h"
#include "log_capture.h"

// The attributes the unit last handed to the kernel. A pseudo-terminal
// forces 8 data bits and no parity, and the C library drops the top input
// flag bit, so those settings are checked on what the unit applied.
namespace {
struct termios gApplied {};
int gApplyCount = 0;
} // namespace

extern "C" int tcsetattr(int fd, int action, const struct termios *tio)
{
    using Fn = int (*)(int, int, const struct termios *);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "tcsetattr"));
    if (tio) {
        gApplied = *tio;
        ++gApplyCount;
    }
    return real(fd, action, tio);
}

namespace {
std::vector<int> gAttributeReads; // descriptors passed to tcgetattr, in order
} // namespace

extern "C" int tcgetattr(int fd, struct termios *tio)
{
    using Fn = int (*)(int, struct termios *);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "tcgetattr"));
    gAttributeReads.push_back(fd);
    return real(fd, tio);
}

namespace {

// Every test counts the attribute calls of its own port only.
class HalUsart : public ::testing::Test {
protected:
    void SetUp() override
    {
        gApplied = {};
        gApplyCount = 0;
        gAttributeReads.clear();
    }
};

// A pseudo-terminal pair: the unit opens the slave by path like a port.
struct Pty {
    int master = -1;
    std::string slavePath;

    Pty()
    {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        EXPECT_GE(master, 0);
        EXPECT_EQ(grantpt(master), 0);
        EXPECT_EQ(unlockpt(master), 0);
        const char *name = ptsname(master);
        EXPECT_NE(name, nullptr);
        slavePath = name ? name : "";
    }
    ~Pty()
    {
        if (master >= 0)
            close(master);
    }
};

// Opens the slave with the given settings and returns its attributes.
struct Opened {
    int result = 0;
    int fd = -1;
    struct termios tio {};
    ~Opened()
    {
        if (fd >= 0)
            close(fd);
    }
};

void openWith(Opened &out, const std::string &path, unsigned baud, int dataBits, unsigned stopBits,
              char parity, unsigned flow)
{
    out.result = openUsartDevice(&out.fd, path.c_str(), baud, dataBits, stopBits, parity, flow);
    if (out.fd >= 0) {
        ASSERT_EQ(tcgetattr(out.fd, &out.tio), 0);
    }
}

// Presets the slave's attributes before the unit opens it again.
void presetSlave(const std::string &path, void (*change)(struct termios &))
{
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    struct termios tio {};
    ASSERT_EQ(tcgetattr(fd, &tio), 0);
    change(tio);
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &tio), 0);
    close(fd);
}

} // namespace

TEST_F(HalUsart, DefaultLinkSettingsGiveRaw115200EightNoneOne)
{
    avmtest::LogCapture log;
    Pty pty;
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 1, 'N', 0);
    EXPECT_EQ(port.result, 0);
    ASSERT_GE(port.fd, 0);
    EXPECT_EQ(cfgetispeed(&port.tio), static_cast<speed_t>(B115200));
    EXPECT_EQ(cfgetospeed(&port.tio), static_cast<speed_t>(B115200));
    EXPECT_EQ(port.tio.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(port.tio.c_cflag & (CSTOPB | PARENB | CRTSCTS), 0u);
    EXPECT_EQ(port.tio.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_EQ(port.tio.c_iflag & (INPCK | IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL |
                                  IXON | IXOFF | IXANY),
              0u);
    EXPECT_EQ(port.tio.c_oflag & OPOST, 0u);
    EXPECT_EQ(port.tio.c_lflag & (ECHO | ECHONL | ICANON | ISIG | IEXTEN), 0u);
    EXPECT_EQ(port.tio.c_cc[VMIN], 128);
    EXPECT_EQ(port.tio.c_cc[VTIME], 1);
    EXPECT_EQ(log.priorityOf("UART", "OpenDev " + pty.slavePath + " success\n"), ANDROID_LOG_INFO);
    EXPECT_TRUE(log.contains("UART", "Set Parity success\n"));
    EXPECT_FALSE(log.contains("UART", "com set error!\n"));
}

TEST_F(HalUsart, OpenFailureReturnsMinusOneStoresMinusOneAndLogsAtInfo)
{
    avmtest::LogCapture log;
    int fd = 1234;
    EXPECT_EQ(openUsartDevice(&fd, "/nonexistent/ttyS9", 115200, 8, 1, 'N', 0), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(log.priorityOf("UART", "OpenDev /nonexistent/ttyS9 failed\n"), ANDROID_LOG_INFO);
    EXPECT_FALSE(log.contains("UART", "Set Parity success\n"));
}

TEST_F(HalUsart, FailedOpenStillReadsAttributesBeforeLookingAtTheResult)
{
    gAttributeReads.clear();
    int fd = 0;
    EXPECT_EQ(openUsartDevice(&fd, "/nonexistent/ttyS9", 115200, 8, 1, 'N', 0), -1);
    ASSERT_EQ(gAttributeReads.size(), 1u);
    EXPECT_EQ(gAttributeReads[0], -1);
    EXPECT_EQ(gApplyCount, 0);
}

TEST_F(HalUsart, UnsupportedBaud57600KeepsPreviousSpeedAndStillReturnsZero)
{
    avmtest::LogCapture log;
    Pty pty;
    presetSlave(pty.slavePath, [](struct termios &t) {
        cfsetispeed(&t, B9600);
        cfsetospeed(&t, B9600);
    });
    Opened port;
    openWith(port, pty.slavePath, 57600, 8, 1, 'N', 0);
    EXPECT_EQ(port.result, 0);
    EXPECT_EQ(cfgetospeed(&port.tio), static_cast<speed_t>(B9600));
    EXPECT_EQ(cfgetispeed(&port.tio), static_cast<speed_t>(B9600));
    // Silently: no line mentions the rate.
    for (const auto &line : log.lines())
        EXPECT_EQ(line.text.find("57600"), std::string::npos) << line.text;
}

TEST_F(HalUsart, EveryListedBaudRateIsApplied)
{
    const std::pair<unsigned, speed_t> rates[] = {{300, B300},     {1200, B1200},  {2400, B2400},
                                                  {4800, B4800},   {9600, B9600},  {19200, B19200},
                                                  {115200, B115200}};
    Pty pty;
    for (const auto &[baud, speed] : rates) {
        Opened port;
        openWith(port, pty.slavePath, baud, 8, 1, 'N', 0);
        EXPECT_EQ(port.result, 0);
        EXPECT_EQ(cfgetospeed(&port.tio), speed) << baud;
    }
}

TEST_F(HalUsart, SpaceParityClearsStopBitEvenWithTwoStopBits)
{
    Pty pty;
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 2, 's', 0);
    EXPECT_EQ(port.result, 0);
    EXPECT_EQ(port.tio.c_cflag & CSTOPB, 0u);
    EXPECT_EQ(port.tio.c_cflag & PARENB, 0u);

    Opened upper;
    openWith(upper, pty.slavePath, 115200, 8, 2, 'S', 0);
    EXPECT_EQ(upper.tio.c_cflag & CSTOPB, 0u);
}

TEST_F(HalUsart, TwoStopBitsWithNoParitySetCstopb)
{
    Pty pty;
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 2, 'n', 0);
    EXPECT_NE(port.tio.c_cflag & CSTOPB, 0u);
}

TEST_F(HalUsart, UnsupportedStopBitsLogAndKeepCstopb)
{
    avmtest::LogCapture log;
    Pty pty;
    presetSlave(pty.slavePath, [](struct termios &t) { t.c_cflag |= CSTOPB; });
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 3, 'N', 0);
    EXPECT_EQ(port.result, 0);
    EXPECT_TRUE(log.contains("UART", "Unsupported stop bits\n"));
    EXPECT_NE(port.tio.c_cflag & CSTOPB, 0u);
    EXPECT_EQ(port.tio.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
}

TEST_F(HalUsart, EvenAndOddParitySetInpckParenbAndParodd)
{
    Pty pty;
    Opened even;
    openWith(even, pty.slavePath, 115200, 8, 1, 'E', 0);
    EXPECT_NE(even.tio.c_iflag & INPCK, 0u);
    EXPECT_NE(gApplied.c_iflag & INPCK, 0u);
    EXPECT_NE(gApplied.c_cflag & PARENB, 0u);
    EXPECT_EQ(gApplied.c_cflag & PARODD, 0u);

    Opened odd;
    openWith(odd, pty.slavePath, 115200, 8, 1, 'o', 0);
    EXPECT_NE(odd.tio.c_iflag & INPCK, 0u);
    EXPECT_NE(gApplied.c_cflag & PARENB, 0u);
    EXPECT_NE(gApplied.c_cflag & PARODD, 0u);

    Opened even2;
    openWith(even2, pty.slavePath, 115200, 8, 1, 'e', 0);
    EXPECT_NE(gApplied.c_cflag & PARENB, 0u);
    EXPECT_EQ(gApplied.c_cflag & PARODD, 0u);

    Opened none;
    openWith(none, pty.slavePath, 115200, 8, 1, 'n', 0);
    EXPECT_EQ(none.tio.c_iflag & INPCK, 0u);
    EXPECT_EQ(gApplied.c_iflag & INPCK, 0u);
    EXPECT_EQ(gApplied.c_cflag & PARENB, 0u);
}

TEST_F(HalUsart, UnsupportedParityLogsAndLeavesParityAsItWas)
{
    avmtest::LogCapture log;
    Pty pty;
    presetSlave(pty.slavePath, [](struct termios &t) { t.c_cflag |= PARODD; t.c_iflag |= INPCK; });
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 1, 'x', 0);
    EXPECT_EQ(port.result, 0);
    EXPECT_TRUE(log.contains("UART", "Unsupported parity\n"));
    EXPECT_NE(port.tio.c_iflag & INPCK, 0u);
    EXPECT_NE(port.tio.c_cflag & PARODD, 0u);
    EXPECT_NE(gApplied.c_cflag & PARODD, 0u);
}

TEST_F(HalUsart, SixDataBitsLeaveFiveBitSizeAndLogUnsupportedDataSize)
{
    avmtest::LogCapture log;
    Pty pty;
    Opened port;
    openWith(port, pty.slavePath, 115200, 6, 1, 'N', 0);
    EXPECT_EQ(port.result, 0);
    EXPECT_EQ(gApplyCount, 1);
    EXPECT_EQ(gApplied.c_cflag & CSIZE, static_cast<tcflag_t>(CS5));
    EXPECT_EQ(log.count("UART", "Unsupported data size\n"), 1u);
}

TEST_F(HalUsart, SevenDataBitsSetCs7)
{
    Pty pty;
    Opened port;
    openWith(port, pty.slavePath, 115200, 7, 1, 'N', 0);
    EXPECT_EQ(gApplied.c_cflag & CSIZE, static_cast<tcflag_t>(CS7));
}

TEST_F(HalUsart, FlowControlTwoEndsWithIxoffIxanySetAndIxonCleared)
{
    Pty pty;
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 1, 'N', 2);
    EXPECT_EQ(port.result, 0);
    EXPECT_NE(port.tio.c_iflag & IXOFF, 0u);
    EXPECT_NE(port.tio.c_iflag & IXANY, 0u);
    EXPECT_EQ(port.tio.c_iflag & IXON, 0u);
}

TEST_F(HalUsart, FlowControlOnePutsCrtsctsValueInInputFlagsNotControlFlags)
{
    Pty pty;
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 1, 'N', 1);
    EXPECT_EQ(port.result, 0);
    EXPECT_EQ(port.tio.c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(gApplied.c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(gApplied.c_iflag & CRTSCTS, static_cast<tcflag_t>(CRTSCTS));
}

TEST_F(HalUsart, FlowControlZeroClearsCrtsctsAndSoftwareFlow)
{
    Pty pty;
    presetSlave(pty.slavePath, [](struct termios &t) {
        t.c_cflag |= CRTSCTS;
        t.c_iflag |= IXON | IXOFF | IXANY;
    });
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 1, 'N', 0);
    EXPECT_EQ(port.tio.c_cflag & CRTSCTS, 0u);
    EXPECT_EQ(port.tio.c_iflag & (IXON | IXOFF | IXANY), 0u);
}

TEST_F(HalUsart, OtherFlowControlValuesChangeNothing)
{
    Pty pty;
    presetSlave(pty.slavePath, [](struct termios &t) { t.c_iflag |= IXOFF; });
    Opened port;
    openWith(port, pty.slavePath, 115200, 8, 1, 'N', 7);
    EXPECT_NE(port.tio.c_iflag & IXOFF, 0u);
}

TEST_F(HalUsart, AttributesThatCannotBeAppliedLogComSetErrorAndStillReturnZero)
{
    avmtest::LogCapture log;
    int fd = -1;
    EXPECT_EQ(openUsartDevice(&fd, "/dev/null", 115200, 8, 1, 'N', 0), 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(log.priorityOf("UART", "com set error!\n"), ANDROID_LOG_ERROR);
    EXPECT_FALSE(log.contains("UART", "Set Parity success\n"));
    close(fd);
}

TEST_F(HalUsart, NegativeDescriptorToAnyReadOrWriteReturnsMinusOneWithoutSystemCall)
{
    avmtest::LogCapture log;
    char buf[8] = {};
    // A system call on -1 would set errno to EBADF; the sentinel survives.
    errno = 4242;
    EXPECT_EQ(writeUsartDevice(-1, "x", 1), -1);
    EXPECT_EQ(errno, 4242);
    EXPECT_EQ(readUsartDevice(-3, buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, 4242);
    EXPECT_EQ(readDspUsartDeviceChar(-1, buf), -1);
    EXPECT_EQ(errno, 4242);
    EXPECT_EQ(readDspUsartDevice(-1, buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, 4242);
    for (const char *name :
         {"writeUsartDevice", "readUsartDevice", "readDspUsartDeviceChar", "readDspUsartDevice"}) {
        std::string prefix = std::string("fd is error! func[") + name + "] line[";
        size_t found = 0;
        for (const auto &line : log.lines()) {
            if (line.tag == "UART" && line.text.rfind(prefix, 0) == 0) {
                ++found;
                EXPECT_EQ(line.priority, ANDROID_LOG_ERROR);
                EXPECT_EQ(line.text.substr(line.text.size() - 4), "] \n\r");
            }
        }
        EXPECT_EQ(found, 1u) << name;
    }
    EXPECT_EQ(log.countContaining("UART", "lenth:"), 0u);
}

TEST_F(HalUsart, WriteSendsExactCountOnceAndLogsLength)
{
    avmtest::LogCapture log;
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(writeUsartDevice(p[1], "AB\0CD", 5), 5);
    char got[8] = {};
    EXPECT_EQ(read(p[0], got, sizeof(got)), 5);
    EXPECT_EQ(std::string(got, 5), std::string("AB\0CD", 5));
    EXPECT_EQ(log.priorityOf("UART", "lenth:5\n"), ANDROID_LOG_INFO);
    close(p[0]);
    close(p[1]);
}

TEST_F(HalUsart, WriteFailureLogsErrnoAndReturnsRawResult)
{
    avmtest::LogCapture log;
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(writeUsartDevice(fd, "abc", 3), -1);
    bool found = false;
    for (const auto &line : log.lines()) {
        if (line.tag == "UART" && line.text.find("FUNC:writeUsartDevice, LINE:") != std::string::npos) {
            found = true;
            EXPECT_EQ(line.priority, ANDROID_LOG_ERROR);
            EXPECT_EQ(line.text.rfind("FILE:", 0), 0u);
            EXPECT_NE(line.text.find(std::string("ERRNO:") + strerror(EBADF) + ", wirte usart failed\r\n"),
                      std::string::npos)
                << line.text;
        }
    }
    EXPECT_TRUE(found);
    EXPECT_TRUE(log.contains("UART", "lenth:3\n"));
    close(fd);
}

TEST_F(HalUsart, ReadReturnsOneReadAndLogsEndOfData)
{
    avmtest::LogCapture log;
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "hello", 5), 5);
    char buf[16] = {};
    EXPECT_EQ(readUsartDevice(p[0], buf, 3), 3);
    EXPECT_EQ(std::string(buf, 3), "hel");
    EXPECT_EQ(log.countContaining("UART", "read usart failed"), 0u);
    close(p[1]);
    EXPECT_EQ(readUsartDevice(p[0], buf, sizeof(buf)), 2);
    EXPECT_EQ(readUsartDevice(p[0], buf, sizeof(buf)), 0);
    EXPECT_EQ(log.countContaining("UART", "FUNC:readUsartDevice, LINE:"), 1u);
    EXPECT_EQ(log.countContaining("UART", ", read usart failed\r\n"), 1u);
    close(p[0]);
}

TEST_F(HalUsart, ReadCharReadsOneByte)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "xy", 2), 2);
    char c = 0;
    EXPECT_EQ(readDspUsartDeviceChar(p[0], &c), 1);
    EXPECT_EQ(c, 'x');
    EXPECT_EQ(readDspUsartDeviceChar(p[0], &c), 1);
    EXPECT_EQ(c, 'y');
    close(p[0]);
    close(p[1]);
}

TEST_F(HalUsart, ReadDspGathersUpToTerminatingZero)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "MV=1", 4), 4);
    char buf[32] = {};
    // First chunk has no zero byte: the reader goes on to the next one.
    std::thread later([&] {
        usleep(20000);
        EXPECT_EQ(write(p[1], "0\0", 2), 2);
    });
    EXPECT_EQ(readDspUsartDevice(p[0], buf, sizeof(buf)), 6);
    later.join();
    EXPECT_STREQ(buf, "MV=10");
    close(p[0]);
    close(p[1]);
}

TEST_F(HalUsart, ReadDspReturnsRequestedCountWhenDataEndsOrBufferFills)
{
    avmtest::LogCapture log;
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "abc", 3), 3);
    close(p[1]);
    char buf[16] = {};
    EXPECT_EQ(readDspUsartDevice(p[0], buf, 10), 10);
    EXPECT_EQ(log.countContaining("UART", "read usart failed"), 1u);
    close(p[0]);

    // A burst longer than the buffer stops at the buffer's end.
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "0123456789ABCDEF", 16), 16);
    char small[6];
    memset(small, 0x55, sizeof(small));
    EXPECT_EQ(readDspUsartDevice(p[0], small, 4), 4);
    EXPECT_EQ(std::string(small, 4), "0123");
    EXPECT_EQ(small[4], 0x55);
    close(p[0]);
    close(p[1]);
}
