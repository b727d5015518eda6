/*
 * Host hardware-module loader: finds "<id>.default.so" in the directories
 * of AVMANAGER_HAL_PATH (colon-separated), then next to the calling
 * program, dlopens it, resolves HMI and checks its tag and id.
 */
#include <hardware/hardware.h>

#include <android/log.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <limits.h>
#include <string>
#include <unistd.h>

#define LOG_TAG "HAL"

namespace {

bool readable(const std::string &path)
{
    return access(path.c_str(), R_OK) == 0;
}

std::string findModule(const char *id)
{
    std::string file = std::string(id) + ".default.so";
    if (const char *dirs = getenv("AVMANAGER_HAL_PATH")) {
        std::string all(dirs);
        size_t start = 0;
        while (start <= all.size()) {
            size_t end = all.find(':', start);
            if (end == std::string::npos)
                end = all.size();
            std::string dir = all.substr(start, end - start);
            if (!dir.empty() && readable(dir + "/" + file))
                return dir + "/" + file;
            start = end + 1;
        }
    }
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
        self[n] = '\0';
        std::string dir(self);
        dir.erase(dir.rfind('/'));
        if (readable(dir + "/" + file))
            return dir + "/" + file;
    }
    return {};
}

} // namespace

extern "C" int hw_get_module(const char *id, const struct hw_module_t **module)
{
    if (!id || !module)
        return -EINVAL;
    std::string path = findModule(id);
    if (path.empty()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "load: module=%s not found", id);
        return -ENOENT;
    }
    void *handle = dlopen(path.c_str(), RTLD_NOW);
    if (!handle) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "load: module=%s\n%s", path.c_str(), dlerror());
        return -EINVAL;
    }
    auto *hmi = static_cast<struct hw_module_t *>(dlsym(handle, HAL_MODULE_INFO_SYM_AS_STR));
    if (!hmi) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "load: couldn't find symbol %s", HAL_MODULE_INFO_SYM_AS_STR);
        dlclose(handle);
        return -EINVAL;
    }
    if (hmi->tag != HARDWARE_MODULE_TAG || !hmi->id || strcmp(id, hmi->id) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "load: id=%s != hmi->id=%s", id, hmi->id ? hmi->id : "(null)");
        dlclose(handle);
        return -EINVAL;
    }
    hmi->dso = handle;
    *module = hmi;
    return 0;
}
