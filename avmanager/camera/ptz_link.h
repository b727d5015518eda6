/*
 * PTZ link: the camera's serial line "/dev/ttyS1", frame sending with
 * reply waits, framing of received bytes, dispatch, and its threads.
 */
#ifndef AVM_PTZ_LINK_H
#define AVM_PTZ_LINK_H

#ifdef __cplusplus
extern "C" {
#endif

int camera_ptzHal_init(void);
int camera_ptzHal_deinit(void);
void joinPtzThreadPool(void);

#ifdef __cplusplus
}
#endif

#endif
