// Runs the host platform's path helper or module loader in a process of
// its own, so tests can try them under an environment of their choosing
// without changing their own (see process_env.h).
//   platform_probe path SIZE PATH...   prints avm_path(PATH) into SIZE bytes, one per line
//   platform_probe module ID            prints hw_get_module's result
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <avm_paths.h>
#include <hardware/hardware.h>

int main(int argc, char **argv)
{
    if (argc >= 3 && std::strcmp(argv[1], "path") == 0) {
        const size_t size = std::strtoul(argv[2], nullptr, 10);
        std::vector<char> out(size > 0 ? size : 1);
        for (int i = 3; i < argc; ++i)
            std::printf("%s\n", avm_path(argv[i], out.data(), size));
        return 0;
    }
    if (argc == 3 && std::strcmp(argv[1], "module") == 0) {
        const hw_module_t *module = nullptr;
        std::printf("%d\n", hw_get_module(argv[2], &module));
        return 0;
    }
    std::fprintf(stderr, "usage: platform_probe path SIZE PATH... | module ID\n");
    return 2;
}
