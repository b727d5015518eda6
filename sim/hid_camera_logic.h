/*
 * The camera's side of its HID channel, whatever carries the reports: the
 * virtual board's hidraw node (HidCameraModel) or a USB gadget's HID
 * function under a real kernel (the kernel board's camera). It answers
 *
 *   version request  AA BB CC 20 06 ...  ->  AA BB CC 20 07 00 00 <text>
 *   file request     AA BB CC 26 02 <len> <name>
 *                    ->  AA BB CC 26 03 00 00 <refused> <size, big-endian>
 *                        then data reports BB 02 <up to chunk bytes>
 *
 * from the camera-side files it holds (the camera's logs under
 * "/var/volatile/log"), records every report it received, and queues its
 * answers for the transport to hand out one report at a time.
 *
 * Every report the camera sends is a whole report of the size its report
 * descriptor declares (64 bytes), the last data report of a file padded
 * with zeros: a kernel whose HID core checks report sizes (Debian 12's
 * 6.1.0-56 does) drops a shorter input report before hidraw sees it. Older
 * kernels zero-padded a short report and still handed hidraw the bytes as
 * sent; setShortReports(true) makes the camera send the last data report
 * only as long as what is left (2 + the bytes left), as such a camera
 * would look there.
 *
 * Faults: refuse every file, answer a file request with a report of the
 * wrong kind, go silent; the transport faults (read and write errors,
 * removal) are kept here for the transport to honour.
 *
 * Threads: the transport calls received()/takeReport() from its own
 * thread; tests and the console use the setters and getters from theirs.
 * One mutex guards the state.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace sim {

class HidCameraLogic {
public:
    using Report = std::vector<uint8_t>;
    static constexpr size_t kReportSize = 64;
    // The report descriptor of the camera's HID interface: a vendor page
    // with one 64-byte input and one 64-byte output report, unnumbered.
    static const std::vector<uint8_t> &reportDescriptor();
    // Told whenever a report is queued for the host (from any thread).
    using QueuedListener = std::function<void()>;

    HidCameraLogic(uint16_t vid, uint16_t pid);
    virtual ~HidCameraLogic();
    HidCameraLogic(const HidCameraLogic &) = delete;
    HidCameraLogic &operator=(const HidCameraLogic &) = delete;

    // The USB ids the camera has (another camera of the table).
    void setIds(uint16_t vid, uint16_t pid);
    uint16_t vid() const;
    uint16_t pid() const;

    // ---- what the camera holds
    void setVersion(const std::string &text);
    std::string version() const;
    void setFile(const std::string &path, const std::string &content);
    void removeFile(const std::string &path);
    // Data bytes per data report (1..1022); 62 fills a 64-byte report.
    void setChunkSize(size_t bytes);
    // The last data report of a file only as long as what is left (see
    // above); off by default.
    void setShortReports(bool on);

    // ---- what the camera saw
    std::vector<Report> reportsWritten() const;
    // Names asked for with file requests, in order.
    std::vector<std::string> fileRequests() const;
    size_t versionRequests() const;
    size_t probes() const; // all-zero reports
    bool waitForFileRequests(size_t n, std::chrono::milliseconds timeout) const;
    bool waitForVersionRequests(size_t n, std::chrono::milliseconds timeout) const;

    // ---- reports the camera raises by itself
    void sendReport(const Report &report);

    // ---- faults
    void setRefuseAll(bool on);
    void setWrongKind(bool on);  // a file request is answered with a data report
    void setSilent(bool on);     // nothing is answered
    // The host's reads fail with EIO (a transport may end the ones under way).
    virtual void setReadError(bool on);
    void setWriteError(bool on); // the host's writes fail with EIO

protected:
    // ---- the transport's side
    // A report the camera received: recorded and answered. Returns a line
    // for the trace.
    std::string received(const uint8_t *data, size_t size);
    // The next report for the host, if one is queued.
    bool takeReport(Report &report);
    bool hasReport() const;
    // A line for the trace of a report sent to the host.
    static std::string describeSent(const uint8_t *data, size_t size);
    void setQueuedListener(QueuedListener listener);
    void clearQueue();
    bool readError() const;
    bool writeError() const;

private:
    void answer(const uint8_t *data, size_t size, std::vector<Report> &out);
    Report whole(Report report) const;
    void notifyQueued();

    mutable std::mutex mutex_;                // guards everything below
    uint16_t vid_ = 0;
    uint16_t pid_ = 0;
    std::string version_ = "CAM-X3M 1.4.2 (made up)";
    std::map<std::string, std::string> files_; // camera-side path -> content
    size_t chunk_ = 62;
    bool shortReports_ = false;
    std::deque<Report> outbox_;               // reports the host reads next
    std::vector<Report> written_;             // every report the camera received
    std::vector<std::string> fileRequests_;
    size_t versionRequests_ = 0;
    size_t probes_ = 0;
    bool refuseAll_ = false;
    bool wrongKind_ = false;
    bool silent_ = false;
    bool readError_ = false;
    bool writeError_ = false;
    QueuedListener queued_;
};

} // namespace sim
