/*
 * Sound card 2's controls, added as user-defined controls of the kernel.
 */
#include "kernel_mixer.h"

#include <fcntl.h>
#include <sound/asound.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sim/uac_mixer_model.h"

namespace sim::kernel {

namespace {

constexpr const char *kControlNode = "/dev/snd/controlC2";

} // namespace

KernelMixer::KernelMixer()
{
    if (!addControls())
        return;
    fd_ = open(kControlNode, O_RDWR | O_CLOEXEC);
    if (fd_ < 0) {
        error_ = std::string("open ") + kControlNode + ": " + std::strerror(errno);
        return;
    }
    if (!setSwitchValue(1) || !setVolume(0))
        error_ = std::string("cannot set the controls: ") + std::strerror(errno);
}

// The file that adds a user-defined control owns it, and the kernel
// refuses writes from any other file while it is open: the controls are
// added through a descriptor of their own, closed at once.
bool KernelMixer::addControls()
{
    const int fd = open(kControlNode, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        error_ = std::string("open ") + kControlNode + ": " + std::strerror(errno);
        return false;
    }
    for (const UacMixer::Control &control : UacMixer::kControls) {
        snd_ctl_elem_info info{};
        info.id.numid = control.numid;
        if (ioctl(fd, SNDRV_CTL_IOCTL_ELEM_INFO, &info) == 0) {
            if (std::strcmp(reinterpret_cast<const char *>(info.id.name), control.name) != 0) {
                error_ = "card 2 has another control at numid " + std::to_string(control.numid);
                close(fd);
                return false;
            }
            continue;
        }
        info = snd_ctl_elem_info{};
        info.id.iface = SNDRV_CTL_ELEM_IFACE_MIXER;
        std::strncpy(reinterpret_cast<char *>(info.id.name), control.name, sizeof info.id.name - 1);
        info.type = control.boolean ? SNDRV_CTL_ELEM_TYPE_BOOLEAN : SNDRV_CTL_ELEM_TYPE_INTEGER;
        info.access = SNDRV_CTL_ELEM_ACCESS_READWRITE;
        info.count = 1;
        info.value.integer.min = control.min;
        info.value.integer.max = control.max;
        info.value.integer.step = control.boolean ? 0 : 1;
        if (ioctl(fd, SNDRV_CTL_IOCTL_ELEM_ADD, &info) != 0) {
            error_ = std::string("add ") + control.name + ": " + std::strerror(errno);
            close(fd);
            return false;
        }
        if (info.id.numid != control.numid) {
            error_ = std::string(control.name) + " got numid " + std::to_string(info.id.numid) + ", not " +
                     std::to_string(control.numid);
            close(fd);
            return false;
        }
    }
    close(fd);
    return true;
}

KernelMixer::~KernelMixer()
{
    if (fd_ >= 0)
        close(fd_);
}

long KernelMixer::read(unsigned numid) const
{
    snd_ctl_elem_value value{};
    value.id.numid = numid;
    if (ioctl(fd_, SNDRV_CTL_IOCTL_ELEM_READ, &value) != 0)
        return -1;
    return value.value.integer.value[0];
}

bool KernelMixer::write(unsigned numid, long v)
{
    snd_ctl_elem_value value{};
    value.id.numid = numid;
    value.value.integer.value[0] = v;
    return ioctl(fd_, SNDRV_CTL_IOCTL_ELEM_WRITE, &value) == 0;
}

long KernelMixer::switchValue() const { return read(UacMixer::kSwitchNumid); }
long KernelMixer::volume() const { return read(UacMixer::kVolumeNumid); }
bool KernelMixer::setSwitchValue(long value) { return write(UacMixer::kSwitchNumid, value); }
bool KernelMixer::setVolume(long value) { return write(UacMixer::kVolumeNumid, value); }

} // namespace sim::kernel
