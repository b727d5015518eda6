// getprop KEY [DEFAULT] | getprop (lists every property of the store)
#include <cutils/properties.h>

#include <cstdio>
#include <cstdlib>
#include <dirent.h>

int main(int argc, char **argv)
{
    if (argc >= 2) {
        char value[PROPERTY_VALUE_MAX];
        property_get(argv[1], value, argc >= 3 ? argv[2] : "");
        printf("%s\n", value);
        return 0;
    }
    const char *dir = getenv("AVMANAGER_PROPERTY_DIR");
    DIR *d = opendir(dir && *dir ? dir : "/tmp/avmanager-properties");
    if (!d)
        return 0;
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        char value[PROPERTY_VALUE_MAX];
        property_get(e->d_name, value, "");
        printf("[%s]: [%s]\n", e->d_name, value);
    }
    closedir(d);
    return 0;
}
