/*
 * USB audio mixer model. The handler runs on umockdev's worker thread; the
 * state is guarded by a mutex because tests and the console read it from
 * their own threads.
 */
#include "uac_mixer_model.h"

#include <sys/ioctl.h>
#include <sound/asound.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace sim {

UacMixer::UacMixer(Board &board) : board_(board)
{
    node_ = std::make_unique<IoctlNode>(board, "/dev/snd/controlC2",
                                        [this](IoctlCall &call, int *err) { return handle(call, err); });
}

UacMixer::~UacMixer()
{
    node_.reset();
}

int UacMixer::handle(IoctlCall &call, int *err)
{
    if (call.kind() != IoctlCall::Kind::Ioctl) {
        *err = EINVAL;
        return -1;
    }
    const unsigned long request = call.request();
    const bool isWrite = request == static_cast<unsigned long>(SNDRV_CTL_IOCTL_ELEM_WRITE);
    if (!isWrite && request != static_cast<unsigned long>(SNDRV_CTL_IOCTL_ELEM_READ)) {
        *err = ENOTTY;
        return -1;
    }
    auto *elem = static_cast<snd_ctl_elem_value *>(call.resolveArg(sizeof(snd_ctl_elem_value)));
    if (elem == nullptr) {
        *err = EFAULT;
        return -1;
    }
    int result = 0;
    std::string note;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const unsigned numid = elem->id.numid;
        const int refused = isWrite ? refuseWrites_ : refuseReads_;
        long *slot = numid == kSwitchNumid ? &switch_ : numid == kVolumeNumid ? &volume_ : nullptr;
        const long value = elem->value.integer.value[0];
        const Control &control = kControls[numid - 1]; // numbered from 1 (a slot is 3 or 4)
        const bool outOfRange = isWrite && slot != nullptr && (value < control.min || value > control.max);
        if (refused != 0 || slot == nullptr || outOfRange) {
            *err = refused != 0 ? refused : slot == nullptr ? ENOENT : EINVAL;
            result = -1;
            calls_.push_back({isWrite, numid, elem->value.integer.value[0]});
            note = std::string(isWrite ? "ELEM_WRITE" : "ELEM_READ") + " numid=" +
                   std::to_string(numid) + " refused errno=" + std::to_string(*err);
        } else {
            if (isWrite)
                *slot = elem->value.integer.value[0];
            else
                elem->value.integer.value[0] = *slot;
            calls_.push_back({isWrite, numid, *slot});
            note = std::string(isWrite ? "ELEM_WRITE" : "ELEM_READ") + " numid=" +
                   std::to_string(numid) + " value=" + std::to_string(*slot);
        }
    }
    TraceEvent event;
    event.when = Clock::now();
    event.link = "controlC2";
    event.toDevice = isWrite;
    event.note = note;
    event.bytes.assign(note.begin(), note.end());
    board_.trace().add(std::move(event));
    return result;
}

long UacMixer::switchValue() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return switch_;
}

long UacMixer::volume() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return volume_;
}

void UacMixer::setSwitchValue(long value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    switch_ = value;
}

void UacMixer::setVolume(long value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    volume_ = value;
}

std::vector<UacMixer::Call> UacMixer::calls() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

void UacMixer::clearCalls()
{
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
}

void UacMixer::refuseReads(int err)
{
    std::lock_guard<std::mutex> lock(mutex_);
    refuseReads_ = err;
}

void UacMixer::refuseWrites(int err)
{
    std::lock_guard<std::mutex> lock(mutex_);
    refuseWrites_ = err;
}

} // namespace sim
