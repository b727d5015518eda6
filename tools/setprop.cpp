// setprop KEY VALUE
#include <cutils/properties.h>

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: setprop KEY VALUE\n");
        return 2;
    }
    if (property_set(argv[1], argv[2]) != 0) {
        fprintf(stderr, "setprop: failed to set property '%s' to '%s'\n", argv[1], argv[2]);
        return 1;
    }
    return 0;
}
