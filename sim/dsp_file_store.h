/*
 * File store of the audio DSP model: the DSP's own files (its working copy
 * of the configuration bundle, "/data/misc/AllConfigs.bin"), kept in memory,
 * and the file commands that read and replace them:
 *
 *   "FINF=<path>"                      -> "FINF=<path>,<len>,<md5>" or "FINF=NULL"
 *   "FWSTR=<path>,<len>,<md5>"         -> "FWSTR=<path>,OK"
 *   "FWDAT=<off>,<len>,<sum>,<hex>"    -> "FWDAT=<off>,<len>,OK" or an error status
 *   "FWEND=<path>"                     -> "FWEND=<path>,OK" or an error status
 *
 * A chunk is accepted only when its offset continues the file, its hex text
 * has twice its length in valid digits and its checksum (sum of the hex
 * characters modulo 256) matches; the end is accepted only when length and
 * MD5 match what FWSTR announced, and only then the new copy replaces the
 * old one. Faults: reject one chunk, miss one chunk (as if it was lost on
 * the line), answer chunks with a repeated offset, stay silent on file
 * commands.
 *
 * reboot() is a DSP restart: the transfer in progress is forgotten, reboot
 * hooks run (other features forget their settings there) and the DSP
 * announces itself with "VER_FULL=<version>".
 *
 * Threads: commands arrive on the DSP model's reader thread; tests call the
 * setters and getters from their own thread. One mutex guards all state.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "board.h"
#include "dsp_model.h"

namespace sim {

// Where the module looks for the reference bundle and where the DSP keeps
// its copy.
inline constexpr const char *kConfigBundlePath = "/system/etc/dsp_config/AllConfigs.bin";
inline constexpr const char *kDspConfigPath = "/data/misc/AllConfigs.bin";

// The made-up configuration bundle of the virtual board: deterministic
// bytes of the given size (a small header, then tuning-like records).
std::string makeConfigBundle(size_t size = 2900);
// Writes makeConfigBundle(size) to the board root at kConfigBundlePath and
// returns its content.
std::string installConfigBundle(Board &board, size_t size = 2900);

// MD5 of bytes as 32 lower-case hex digits (the DSP's own computation).
std::string dspMd5Hex(const std::string &bytes);

class DspFileStore {
public:
    explicit DspFileStore(DspModel &dsp, std::string version = "AVM-DSP 2.4.1 build 0917");
    ~DspFileStore();
    DspFileStore(const DspFileStore &) = delete;
    DspFileStore &operator=(const DspFileStore &) = delete;

    // The DSP's files.
    void setFile(const std::string &path, const std::string &content);
    void removeFile(const std::string &path);
    std::optional<std::string> file(const std::string &path) const;

    // Fault modes.
    // The chunk at this offset is answered "FWDAT=<off>,<len>,ERR_REJECT"
    // (once); clear with std::nullopt.
    void rejectChunkAt(std::optional<uint32_t> offset);
    // The first copy of the chunk at this offset is neither stored nor
    // answered (once), as if it never arrived: the module sends it again,
    // and that copy is taken. Clear with std::nullopt.
    void missChunkOnceAt(std::optional<uint32_t> offset);
    // Chunks are answered "OK" but with the offset of the previous chunk
    // (0 for the first); nothing is stored.
    void setRepeatOffset(bool repeat);
    // File commands get no answer at all (other commands are unaffected).
    void setSilent(bool silent);

    // What the store saw: every file command, in order of arrival.
    std::vector<std::string> fileCommands() const;
    size_t chunksAccepted() const;
    size_t transfersCompleted() const;

    // Restart of the DSP: forgets the transfer in progress, runs the reboot
    // hooks and announces "VER_FULL=<version>".
    void reboot();
    void addRebootHook(std::function<void()> hook);
    const std::string &version() const { return version_; }

private:
    // The store's state lives as long as the responder that the DSP model
    // keeps (the model offers commands until it is itself destroyed, which
    // may be after this object); the destructor only detaches it.
    struct Impl;
    DspModel &dsp_;
    const std::string version_;
    std::shared_ptr<Impl> impl_;
};

} // namespace sim
