// Placeholder until this unit is built: every function does nothing.
#include "dsp/file_transfer.h"

extern "C" {
void dsp_rx_file_operations_handle(DspRequest message)
{
}

}
