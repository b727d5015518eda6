/*
 * The module's operations as console commands: each by its name without
 * the "avmanager_" prefix, arguments checked and called through the HMI
 * slot exactly as the service would (the shared table of
 * tools/operations), result printed. The two callbacks print each call
 * among the trace lines.
 */
#include <string>

#include "console.h"

namespace console {

namespace {

int printCameraStatus(int status)
{
    consolePrint("  [camera status callback] " + std::to_string(status));
    return 0;
}

int printDspStatus(int status)
{
    consolePrint("  [dsp status callback] " + std::to_string(status));
    return 0;
}

} // namespace

bool callOperation(const avmanager_module_t *hal, const std::string &name, const Args &args)
{
    const avmops::Operation *op = avmops::findOperation(name);
    if (!op)
        return false;
    avmops::Values values;
    std::string error;
    if (!avmops::parseArgs(*op, args, &values, &error)) {
        consolePrint(error);
        return true;
    }
    avmops::Callbacks callbacks;
    callbacks.cameraStatus = printCameraStatus;
    callbacks.dspStatus = printDspStatus;
    consolePrint("= " + avmops::invoke(*op, hal, values, callbacks).text);
    return true;
}

} // namespace console
