#include <stdio.h>
#include <string.h>

#include "app/applets.h"

namespace {

constexpr const char* toolbox_name = "zarvo";

const char* last_component(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

}  // namespace

int app_dispatch(int argc, char** argv, std::span<const app_entry> table) {
    const char* name = argc > 0 ? last_component(argv[0]) : toolbox_name;
    if (strcmp(name, toolbox_name) == 0) {
        if (argc < 2) {
            return 1;
        }
        argc--;
        argv++;
        name = last_component(argv[0]);
    }
    for (const app_entry& entry : table) {
        if (strcmp(entry.name, name) == 0) {
            return entry.run(argc, argv);
        }
    }
    printf("%s: unknown zarvo applet\n", name);
    return 1;
}
