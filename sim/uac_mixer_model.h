/*
 * USB audio mixer of sound card 2 on /dev/snd/controlC2: the control
 * device's element read and write calls (SNDRV_CTL_IOCTL_ELEM_READ/WRITE
 * with the kernel's struct snd_ctl_elem_value) for numid 3 (playback
 * switch, 1 = sound on) and numid 4 (volume). Keeps the values, records
 * every call and traces it on the link "controlC2". As the kernel does,
 * a write outside a control's range is refused with EINVAL (the switch
 * takes 0 and 1). Can refuse calls with an errno. A board without the
 * card simply does not construct the model (the node stays masked).
 */
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "board.h"

namespace sim {

class UacMixer {
public:
    static constexpr unsigned kSwitchNumid = 3;
    static constexpr unsigned kVolumeNumid = 4;

    // The card's controls, in numid order from 1 (the kernel board adds
    // them in this order to a card that has none). The volume's range
    // takes both forms the module writes: whole dB (-65..0) and the
    // mixer's scale of 256 steps per dB (0..16640).
    struct Control {
        unsigned numid;
        const char *name;
        bool boolean;
        long min;
        long max;
    };
    static constexpr Control kControls[] = {
        {1, "Headset Capture Switch", true, 0, 1},
        {2, "Headset Capture Volume", false, 0, 65 * 256},
        {kSwitchNumid, "PCM Playback Switch", true, 0, 1},
        {kVolumeNumid, "PCM Playback Volume", false, -65 * 256, 65 * 256},
    };
    static_assert(kControls[kSwitchNumid - 1].numid == kSwitchNumid && kControls[kVolumeNumid - 1].numid == kVolumeNumid);

    struct Call {
        bool write;    // true: ELEM_WRITE, false: ELEM_READ
        unsigned numid;
        long value;    // value[0] after the call (written, or answered)
    };

    explicit UacMixer(Board &board);
    ~UacMixer();

    long switchValue() const;
    long volume() const;
    void setSwitchValue(long value);
    void setVolume(long value);

    // Every element call, in order.
    std::vector<Call> calls() const;
    void clearCalls();

    // 0: calls succeed; otherwise element reads (and writes) fail with this errno.
    void refuseReads(int err);
    void refuseWrites(int err);

private:
    int handle(IoctlCall &call, int *err);

    Board &board_;
    mutable std::mutex mutex_; // guards the fields below (umockdev worker vs. test)
    long switch_ = 1;
    long volume_ = 0;
    std::vector<Call> calls_;
    int refuseReads_ = 0;
    int refuseWrites_ = 0;
    std::unique_ptr<IoctlNode> node_; // last: the handler may run as soon as it exists
};

} // namespace sim
