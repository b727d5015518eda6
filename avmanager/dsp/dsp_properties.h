/*
 * The properties the DSP units share: the user's persisted audio settings
 * (written by the setters, replayed by the restore) and the DSP's version
 * status. Each key is named here once.
 */
#ifndef AVM_DSP_PROPERTIES_H
#define AVM_DSP_PROPERTIES_H

inline constexpr const char *kDspVolumeProperty = "persist.zel.dsp.volumeVal";
inline constexpr const char *kDspBalanceProperty = "persist.zel.dsp.balanceVal";
inline constexpr const char *kDspTrebleProperty = "persist.zel.dsp.trebleVal";
inline constexpr const char *kDspBassProperty = "persist.zel.dsp.bassVal";
inline constexpr const char *kDspSoundModeProperty = "persist.zel.dsp.soundMode";
inline constexpr const char *kDspSpkEqModeProperty = "persist.zel.dsp.spkEqMode";
inline constexpr const char *kDspAudioOutModeProperty = "persist.zel.dsp.audioOutMode";
inline constexpr const char *kDspVersionProperty = "persist.sys.dune.version";
inline constexpr const char *kDspUpdateProperty = "persist.sys.dune.update";

// Speaker placement texts, as persisted and as sent in "SPK_EQ_MODE=".
inline constexpr const char *kDspSpkEqFloor = "FOOT";
inline constexpr const char *kDspSpkEqWall = "WALL";

#endif
