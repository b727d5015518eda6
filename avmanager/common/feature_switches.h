/*
 * Feature switches: system properties that decide which peripherals the
 * module talks to. A switch is on when its value starts with '1'.
 */
#ifndef AVM_FEATURE_SWITCHES_H
#define AVM_FEATURE_SWITCHES_H

#ifdef __cplusplus
extern "C" {
#endif

int enableCameraCommunication(void);
int enableDspCommunication(void);
int enableSendDoaToCamera(void);
int enableAudioWallFloorProp(void);

#ifdef AVM_HOST_BUILD
/* Forgets the cached switches, as a restart of the service does. Only tests
 * call it (a test program runs many tests in one process). */
void featureSwitches_resetForTest(void);
#endif

#ifdef __cplusplus
}
#endif

#endif
