// kavo-mkimage: creates and inspects firmware image files of the virtual chip.
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
    for (int i = 3; i < argc; ++i) {
        const char* opt = argv[i];
        const char* val = i + 1 < argc ? argv[i + 1] : nullptr;
        bool ok = true;
        if (!std::strcmp(opt, "--corrupt")) {
            corrupt = true;
            continue;
        } else if (!std::strcmp(opt, "--version")) {
            ok = kavo_sim::image_version_parse(val, v);
        } else if (!std::strcmp(opt, "--vcs")) {
            ok = kavo_sim::parse_u32(val, v.vcs_id);
        } else if (!std::strcmp(opt, "--rev")) {
            ok = kavo_sim::image_rev_parse(val, v.device_rev);
        } else if (!std::strcmp(opt, "--body")) {
            ok = kavo_sim::parse_u32(val, v.body_size) && v.body_size % 4 == 0 && v.body_size <= kavo_sim::PAYLOAD_MAX_BODY;
        } else {
            return usage();
        }
        if (!ok) {
            std::fprintf(stderr, "kavo-mkimage: bad value for %s\n", opt);
            return 2;
        }
        ++i;
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
