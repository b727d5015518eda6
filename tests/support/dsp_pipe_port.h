/*
 * An ordinary pipe standing in for the DSP's serial port in unit tests:
 * the link writes one end (installed as the port's descriptor), the test
 * reads what crossed from the other. The port is taken away again and
 * both ends closed when the object goes (the link's end only while the
 * link has not closed it).
 */
#ifndef AVM_TEST_DSP_PIPE_PORT_H
#define AVM_TEST_DSP_PIPE_PORT_H

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "dsp/dsp_link.h"

namespace avmtest {

class DspPipePort {
public:
    DspPipePort() = default;
    DspPipePort(const DspPipePort &) = delete;
    DspPipePort &operator=(const DspPipePort &) = delete;
    ~DspPipePort()
    {
        if (ends_[1] >= 0)
            gDspHalDev.fd.store(-1);
        for (int fd : ends_)
            if (fd >= 0)
                close(fd);
    }

    // Makes the pipe the link's port; false when no pipe could be made.
    bool attach()
    {
        if (pipe(ends_) != 0)
            return false;
        fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        gDspHalDev.fd.store(ends_[1]);
        return true;
    }

    // Everything written to the port since the last call.
    std::string bytes()
    {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = read(ends_[0], buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

    // True once the link closed its end of the pipe (what it sent before is
    // read and dropped). That end is then the link's no more and not the
    // object's either: its number may already name another descriptor.
    bool closedByLink()
    {
        char buf[4096];
        ssize_t n;
        while ((n = read(ends_[0], buf, sizeof buf)) > 0) {
        }
        if (n != 0)
            return false;
        ends_[1] = -1;
        return true;
    }

private:
    int ends_[2] = {-1, -1};
};

} // namespace avmtest

#endif
