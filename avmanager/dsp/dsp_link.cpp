// Placeholder until this unit is built: every function does nothing.
#include "dsp/dsp_link.h"

extern "C" {
int dsp_process_init(void)
{
    return 0;
}

int dsp_process_deinit(void)
{
    return 0;
}

int dsp_mkfifo_init(void)
{
    return 0;
}

int dsp_mkfifo_write(DspRequest request)
{
    return 0;
}

int dsp_mkfifo_read(DspRequest *buffer)
{
    return 0;
}

int dsp_mkfifo_read_fd_open(void)
{
    return 0;
}

int dsp_mkfifo_write_fd_open(void)
{
    return 0;
}

int send_cmd_to_dsp(const char *text)
{
    return 0;
}

int dspHalWriteUsart(DspRequest request)
{
    return 0;
}

int dspHalReadUsart(char *buffer)
{
    return 0;
}

int dspHal_uart_init(void)
{
    return 0;
}

int dspHal_uart_deinit(void)
{
    return 0;
}

int dsp_tx_protocol_handle(DspRequest request)
{
    return 0;
}

void * dspHal_tx_thread(void *arg)
{
    return nullptr;
}

void * dspHal_rx_thread(void *arg)
{
    return nullptr;
}

void * init_parameter_thread(void *arg)
{
    return nullptr;
}

int dsp_post(int32_t cmd, const char *text)
{
    return 0;
}

}
