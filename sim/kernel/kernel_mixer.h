/*
 * The USB audio mixer on the kernel board: sound card 2 (snd-virmidi,
 * loaded by scripts/kernel-vm with index=2, has no controls of its own)
 * given user-defined controls (SNDRV_CTL_IOCTL_ELEM_ADD) so that the
 * numeric ids the module addresses are the mixer's: the controls and
 * ranges of the virtual board's mixer (UacMixer::kControls), 3 the
 * playback switch and 4 the playback volume. The kernel keeps the values
 * and checks writes against the ranges; the test reads and sets them
 * through the same control device.
 *
 * Controls outlive the program that added them, so a later test of the
 * same machine finds them in place and only puts the values back.
 */
#pragma once

#include <string>

namespace sim::kernel {

class KernelMixer {
public:
    // Adds the controls when card 2 lacks them; puts switch 1 (sound on)
    // and volume 0 in place.
    KernelMixer();
    ~KernelMixer();
    KernelMixer(const KernelMixer &) = delete;
    KernelMixer &operator=(const KernelMixer &) = delete;

    // Empty when the mixer is up; otherwise what went wrong.
    const std::string &error() const { return error_; }

    long switchValue() const;
    long volume() const;
    bool setSwitchValue(long value);
    bool setVolume(long value);

private:
    bool addControls();
    long read(unsigned numid) const;
    bool write(unsigned numid, long value);

    int fd_ = -1;
    std::string error_;
};

} // namespace sim::kernel
