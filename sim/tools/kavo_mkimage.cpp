// kavo-mkimage: creates and inspects firmware image files of the virtual chip.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kavo_sim/image.h"

namespace {

int usage()
{
    std::fprintf(stderr,
                 "usage: kavo-mkimage create FILE [--version MAJOR.MINOR.BUILD] [--vcs N] [--rev any|reva|revb]\n"
                 "                           [--body BYTES] [--corrupt]\n"
                 "       kavo-mkimage inspect FILE\n");
    return 2;
}

int create(int argc, char** argv)
{
    if (argc < 3) return usage();
    const char* path = argv[2];
    kavo_sim::image_version v;
    bool corrupt = false;
    std::string why;
    if (!kavo_sim::image_create_parse(std::vector<std::string>(argv + 3, argv + argc), v, corrupt, why)) {
        std::fprintf(stderr, "kavo-mkimage: %s\n", why.c_str());
        return 2;
    }
    if (!kavo_sim::image_write(path, v, corrupt)) {
        std::fprintf(stderr, "kavo-mkimage: cannot write %s\n", path);
        return 1;
    }
    return 0;
}

int inspect(int argc, char** argv)
{
    if (argc != 3) return usage();
    const kavo_sim::image_info info = kavo_sim::image_inspect_file(argv[2]);
    std::fputs(kavo_sim::image_describe(info).c_str(), stdout);
    return info.readable && info.problem.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && !std::strcmp(argv[1], "create")) return create(argc, argv);
    if (argc >= 2 && !std::strcmp(argv[1], "inspect")) return inspect(argc, argv);
    return usage();
}
