/*
 * File transfer command set with the DSP (FWSTR/FWDAT/FWEND/FINF...), hex
 * encoding, MD5 of files and small local file operations.
 */
#ifndef AVM_FILE_TRANSFER_H
#define AVM_FILE_TRANSFER_H

#include "dsp/dsp_link.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Offered every chunk the DSP receive thread reads. */
void dsp_rx_file_operations_handle(DspRequest message);

#ifdef __cplusplus
}
#endif

#endif
