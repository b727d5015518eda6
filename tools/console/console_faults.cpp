/*
 * Faults of the platform under the module, on the console's board: the
 * property store refusing writes as a read-only or a full file system
 * would ("store readonly on|off", "store full on|off", "store state").
 * The store's own markers do it (a ".readonly" or ".full" file in the
 * store directory), so getprop/setprop in another shell see the same
 * refusal.
 */
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "console.h"

namespace console {

namespace {

// The property store of the console's board and its write faults.
struct StoreFaults {
    explicit StoreFaults(sim::Board &b) : board(b) {}
    std::string marker(const char *name) const { return board.rootPath(std::string("/properties/") + name); }
    bool on(const char *name) const { return std::filesystem::exists(marker(name)); }
    void set(const char *name, bool on)
    {
        std::error_code ec;
        if (on)
            board.writeFile(std::string("/properties/") + name, "");
        else
            std::filesystem::remove(marker(name), ec);
    }
    sim::Board &board;
};

bool storeCommands(StoreFaults &store, const Args &args)
{
    if (args.size() == 1 && args[0] == "state") {
        consolePrint(std::string("property store: ") +
                     (store.on(".readonly") ? "read-only" : store.on(".full") ? "full" : "writable") + " (" +
                     store.board.rootPath("/properties") + ")");
        return true;
    }
    if (args.size() == 2 && (args[0] == "readonly" || args[0] == "full") &&
        (args[1] == "on" || args[1] == "off")) {
        store.set(args[0] == "readonly" ? ".readonly" : ".full", args[1] == "on");
        return true;
    }
    return false;
}

} // namespace

void addFaultModels(sim::Board &board, ModelSet &models)
{
    models.add("store", std::make_unique<StoreFaults>(board), ModelSet::Commands<StoreFaults>(storeCommands),
               "store readonly on|off | full on|off | state");
}

} // namespace console
