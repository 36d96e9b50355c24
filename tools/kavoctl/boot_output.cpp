// The boot's progress dots only on a terminal. The library prints a "." on
// the process's standard output for every hundredth chunk of the firmware
// download and a newline after it, as it must; kavoctl's results share that
// stream. When standard output is not a terminal, kavoctl points it at a
// temporary file while the device boots and afterwards copies what the boot
// wrote there to the real standard output without the progress, so that a
// pipe gets clean data and loses nothing else (VELT_FW_OPTIONS' echo and
// reply, the firmware-log notes).
#include <unistd.h>

#include <cstdio>
#include <string>

#include "kavoctl.h"

namespace kavoctl {
namespace {

int saved_stdout = -1;
FILE* held = nullptr;

} // namespace

std::string drop_progress(const std::string& captured)
{
    std::string out;
    bool first = true;
    for (size_t from = 0; from < captured.size(); first = false) {
        const size_t nl = captured.find('\n', from);
        const size_t stop = nl == std::string::npos ? captured.size() : nl + 1;
        const std::string line = captured.substr(from, stop - from);
        from = stop;
        const std::string body = line.substr(0, line.find('\n'));
        const bool dots = body.find_first_not_of('.') == std::string::npos;
        // Dots, ended by the newline or not (a download that failed half way
        // has none); an empty first line is the newline of a download without dots.
        if (dots && (!body.empty() || (first && nl != std::string::npos))) continue;
        out += line;
    }
    return out;
}

boot_output::boot_output()
{
    if (isatty(STDOUT_FILENO) || held != nullptr) return;
    std::fflush(stdout);
    held = std::tmpfile();
    if (held == nullptr) return; // no room for a file: the dots stay, nothing is lost
    saved_stdout = dup(STDOUT_FILENO);
    if (saved_stdout < 0 || dup2(fileno(held), STDOUT_FILENO) < 0) {
        if (saved_stdout >= 0) close(saved_stdout);
        saved_stdout = -1;
        std::fclose(held);
        held = nullptr;
    }
}

boot_output::~boot_output() { boot_output_release(); }

void boot_output_release()
{
    if (held == nullptr) return;
    std::fflush(stdout);
    dup2(saved_stdout, STDOUT_FILENO);
    close(saved_stdout);
    saved_stdout = -1;
    std::string captured;
    std::rewind(held);
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof(chunk), held)) > 0;) captured.append(chunk, n);
    std::fclose(held);
    held = nullptr;
    const std::string kept = drop_progress(captured);
    std::fwrite(kept.data(), 1, kept.size(), stdout);
}

} // namespace kavoctl
