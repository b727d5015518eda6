/*
 * The microphone power switch. The attribute is a plain file in the
 * testbed's /sys tree; an inotify watch on it reports each completed write
 * (the shell's "echo" opens, truncates, writes and closes), and the
 * watcher thread records the content it then finds. inotify is not
 * redirected by umockdev, so the watch is set on the testbed's own path.
 */
#include "mic_power_model.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include <umockdev.h>

namespace sim {

namespace {

constexpr const char *kDeviceDir = "/sys/devices/platform/avm-board/hwmisc_dev";
constexpr const char *kClassDir = "/sys/class/hwmisc_cls";
constexpr const char *kClassLink = "/sys/class/hwmisc_cls/hwmisc_dev";
constexpr const char *kClassLinkTarget = "../../devices/platform/avm-board/hwmisc_dev";
constexpr int kWatchPollMs = 20;

std::string readAll(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    return text;
}

} // namespace

struct MicPowerSwitch::Impl {
    Board &board;
    std::string testbed;             // umockdev's directory
    std::string file;                // the attribute inside the testbed
    int inotifyFd = -1;
    std::atomic<bool> stopping{false};
    std::thread watcher;
    mutable std::mutex mutex;        // guards writes
    std::vector<Write> writes;

    explicit Impl(Board &b) : board(b) {}

    void run()
    {
        alignas(inotify_event) char buf[4096];
        while (!stopping.load(std::memory_order_relaxed)) {
            pollfd pfd = {inotifyFd, POLLIN, 0};
            if (poll(&pfd, 1, kWatchPollMs) <= 0)
                continue;
            const ssize_t n = read(inotifyFd, buf, sizeof buf);
            if (n <= 0)
                continue;
            bool closedAfterWrite = false;
            for (ssize_t off = 0; off < n;) {
                const auto *event = reinterpret_cast<const inotify_event *>(buf + off);
                closedAfterWrite = closedAfterWrite || (event->mask & IN_CLOSE_WRITE);
                off += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
            if (!closedAfterWrite)
                continue;
            Write write{trimmed(readAll(file)), Clock::now()};
            TraceEvent event;
            event.when = write.when;
            event.link = "mic_power";
            event.toDevice = true;
            event.bytes.assign(write.value.begin(), write.value.end());
            event.note = write.value;
            {
                std::lock_guard<std::mutex> lock(mutex);
                writes.push_back(write);
            }
            board.trace().add(std::move(event));
        }
    }
};

MicPowerSwitch::MicPowerSwitch(Board &board) : impl_(std::make_unique<Impl>(board))
{
    gchar *dir = umockdev_testbed_get_root_dir(board.testbed());
    impl_->testbed = dir ? dir : "";
    g_free(dir);
    std::error_code ec;
    std::filesystem::create_directories(impl_->testbed + kDeviceDir, ec);
    std::filesystem::create_directories(impl_->testbed + kClassDir, ec);
    impl_->file = impl_->testbed + kDeviceDir + "/mic_power";
    {
        std::ofstream out(impl_->file, std::ios::trunc);
        out << "1\n"; // powered at boot
    }
    const std::string link = impl_->testbed + kClassLink;
    std::filesystem::remove_all(link, ec);
    std::filesystem::create_directory_symlink(kClassLinkTarget, link, ec);
    impl_->inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (impl_->inotifyFd >= 0 && inotify_add_watch(impl_->inotifyFd, impl_->file.c_str(), IN_CLOSE_WRITE) >= 0)
        impl_->watcher = std::thread([impl = impl_.get()] { impl->run(); });
}

MicPowerSwitch::~MicPowerSwitch()
{
    impl_->stopping.store(true, std::memory_order_relaxed);
    if (impl_->watcher.joinable())
        impl_->watcher.join();
    if (impl_->inotifyFd >= 0)
        close(impl_->inotifyFd);
    std::error_code ec;
    std::filesystem::remove_all(impl_->testbed + kClassDir, ec);
    std::filesystem::remove_all(impl_->testbed + kDeviceDir, ec);
}

std::vector<MicPowerSwitch::Write> MicPowerSwitch::writes() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->writes;
}

std::vector<std::string> MicPowerSwitch::values() const
{
    std::vector<std::string> out;
    for (const auto &write : writes())
        out.push_back(write.value);
    return out;
}

std::string MicPowerSwitch::current() const { return trimmed(readAll(impl_->file)); }

bool MicPowerSwitch::waitForWrites(size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([&] { return writes().size() >= n; }, timeout);
}

} // namespace sim
