/*
 * What a camera log lands as on the device. The camera sends the file in
 * whole 64-byte data reports (2 bytes of head, 62 of data) and the module
 * saves the n-2 bytes of every report it reads, so the file it writes is
 * the camera's copy followed by the zero padding of the last report.
 */
#pragma once

#include <string>

namespace avmtest {

inline constexpr size_t kCamDataPerReport = 62;

inline std::string asDownloaded(const std::string &content)
{
    const size_t reports = (content.size() + kCamDataPerReport - 1) / kCamDataPerReport;
    std::string landed = content;
    landed.resize(reports * kCamDataPerReport, '\0');
    return landed;
}

} // namespace avmtest
