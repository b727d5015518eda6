/*
 * USB audio volume and mute: the volume and playback-switch controls of
 * ALSA card 2, read and written through "/dev/snd/controlC2" by numeric
 * control id, plus the conversions between the volume index and the
 * mixer's scale (256 steps per dB, 0 = -65 dB, 16640 = 0 dB).
 *
 * No state and no lock: every call opens its own descriptor and closes it
 * before returning; concurrent calls (service threads) are serialised by
 * the kernel only.
 */
#include "dsp/uac_mixer.h"

#include <android/log.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sound/asound.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "dsp/dsp_audio.h"

#define LOG_TAG "DSP"

namespace {

constexpr const char *kControlPath = "/dev/snd/controlC2";
constexpr unsigned kSwitchNumid = 3; // USB playback switch: 1 sound on, 0 muted
constexpr unsigned kVolumeNumid = 4; // USB volume
constexpr int kMixerFullScale = 16640; // 0 dB: 65 dB above the bottom, 256 a dB
constexpr float kMixerStepsPerDb = 256.0f;
constexpr unsigned kMaxIndex = 100;

// Opens the control device; -1 when it cannot be used. A descriptor of 0
// also counts as failure and is neither logged nor closed: the mixer is
// never expected on descriptor 0, and that answer is kept.
int openControl()
{
    int fd = open(kControlPath, O_RDWR);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "open UAC failed!");
        return -1;
    }
    if (fd == 0)
        return -1;
    return fd;
}

// Reads one control, addressed by numeric id only, into a zero-filled
// element record. Returns the ioctl's result.
int readElement(int fd, unsigned numid, snd_ctl_elem_value &elem)
{
    memset(&elem, 0, sizeof elem);
    elem.id.numid = numid;
    return ioctl(fd, SNDRV_CTL_IOCTL_ELEM_READ, &elem);
}

} // namespace

extern "C" {

int isUacDeviceExist(void)
{
    return access(kControlPath, F_OK) == 0 ? 1 : 0;
}

int set_uac_volume(int value)
{
    int fd = openControl();
    if (fd < 0)
        return -1;
    snd_ctl_elem_value elem;
    int ret = readElement(fd, kVolumeNumid, elem);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "set_uac_volume failed!");
        close(fd);
        return ret;
    }
    // Written as given: no conversion, no range check.
    elem.value.integer.value[0] = value;
    ret = ioctl(fd, SNDRV_CTL_IOCTL_ELEM_WRITE, &elem);
    if (ret < 0)
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "set_uac_volume failed!");
    close(fd);
    return ret;
}

int get_uac_volume(void)
{
    int fd = openControl();
    if (fd < 0)
        return -1;
    snd_ctl_elem_value elem;
    int ret = readElement(fd, kVolumeNumid, elem);
    close(fd);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "get_uac_volume failed!!");
        return ret;
    }
    long raw = elem.value.integer.value[0];
    int value = raw > INT32_MAX ? INT32_MAX : raw < INT32_MIN ? INT32_MIN : static_cast<int>(raw);
    if (value < 0)
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "get_uac_volume failed!!");
    return value;
}

int set_uac_mute(int mute)
{
    int fd = openControl();
    if (fd < 0)
        return -1;
    snd_ctl_elem_value elem;
    int ret = readElement(fd, kSwitchNumid, elem);
    if (ret >= 0) {
        // The switch is the inverse of mute: mute 1 turns the sound off.
        // Only the lowest bit is flipped (mute 2 writes 3), as always.
        elem.value.integer.value[0] = mute ^ 1;
        ret = ioctl(fd, SNDRV_CTL_IOCTL_ELEM_WRITE, &elem);
    }
    close(fd);
    return ret;
}

int get_uac_mute(void)
{
    int fd = openControl();
    if (fd < 0)
        return -1;
    snd_ctl_elem_value elem;
    int ret = readElement(fd, kSwitchNumid, elem);
    close(fd);
    if (ret < 0)
        return ret;
    // The switch state, not the mute state: 1 means sound on.
    return elem.value.integer.value[0] != 0 ? 1 : 0;
}

int convertVolToUacVol(unsigned vol)
{
    if (vol > kMaxIndex)
        return kMixerFullScale;
    return static_cast<int>(static_cast<float>(kMixerFullScale) +
                            volume_to_uac_db[vol] * kMixerStepsPerDb);
}

unsigned convertUacVolToVol(int raw)
{
    if (raw < 0)
        return 0;
    if (raw > kMixerFullScale)
        return 100;
    // Whole dB above -65, not back through the table: 16640 gives 65, and
    // only a value above full scale gives 100.
    return static_cast<unsigned>(raw) >> 8;
}

} // extern "C"
