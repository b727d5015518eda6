/*
 * The camera's raw HID interface on a hidraw node (link "hid"): answers
 * the raw-information request (HIDIOCGRAWINFO) with its USB ids, records
 * every report the module writes, and answers
 *
 *   version request  AA BB CC 20 06 ...  ->  AA BB CC 20 07 00 00 <text>
 *   file request     AA BB CC 26 02 <len> <name>
 *                    ->  AA BB CC 26 03 00 00 <refused> <size, big-endian>
 *                        then data reports BB 02 <up to chunk bytes>, the
 *                        last one only as long as what is left
 *
 * from the camera-side files it holds (the camera's logs under
 * "/var/volatile/log"). Each read of the node returns one report; with
 * nothing to report a read waits a little and comes back empty, which
 * lets the module's writes on the same descriptor through (umockdev
 * serves one call per descriptor at a time).
 *
 * Faults: refuse every file, answer a file request with a report of the
 * wrong kind, go silent (no answers at all), fail reads, fail writes,
 * unplug (the node goes away; reads and writes fail).
 *
 * Threads: calls arrive on umockdev's worker thread; tests and the console
 * use the setters and getters from their own. One mutex guards the state.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board.h"

namespace sim {

class HidCameraModel {
public:
    using Report = std::vector<uint8_t>;
    static constexpr size_t kReportSize = 64;
    // An empty read comes back after this long.
    static constexpr std::chrono::milliseconds kIdleRead{20};

    // The model of the dual x3m camera on /dev/hidraw0 unless told
    // otherwise.
    explicit HidCameraModel(Board &board, std::string node = "/dev/hidraw0", uint16_t vid = 0x2E7D,
                            uint16_t pid = 0x051A);
    ~HidCameraModel();
    HidCameraModel(const HidCameraModel &) = delete;
    HidCameraModel &operator=(const HidCameraModel &) = delete;

    const std::string &node() const { return node_; }
    // The USB ids its raw information gives (another camera of the table).
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

    // ---- what the camera saw
    std::vector<Report> reportsWritten() const;
    // Names asked for with file requests, in order.
    std::vector<std::string> fileRequests() const;
    size_t versionRequests() const;
    size_t probes() const; // all-zero reports
    size_t rawInfoRequests() const;
    bool waitForFileRequests(size_t n, std::chrono::milliseconds timeout) const;
    bool waitForVersionRequests(size_t n, std::chrono::milliseconds timeout) const;

    // ---- reports the camera raises by itself
    void sendReport(const Report &report);

    // ---- faults
    void setRefuseAll(bool on);
    void setWrongKind(bool on);  // a file request is answered with a data report
    void setSilent(bool on);     // nothing is answered
    void setReadError(bool on);  // reads fail with EIO
    void setWriteError(bool on); // writes fail with EIO
    void unplug();               // the node goes away
    void plug();                 // and comes back
    bool plugged() const;

private:
    struct State;
    int handle(IoctlCall &call, int *err);
    void answer(State &st, const uint8_t *data, size_t size, std::vector<Report> &out);
    void trace(bool toDevice, const uint8_t *data, size_t size, const std::string &note);

    Board &board_;
    std::string node_;
    std::shared_ptr<State> state_;
    std::unique_ptr<IoctlNode> ioctl_;
};

} // namespace sim
