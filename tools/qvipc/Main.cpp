// qvipc: a command-line tool over the library's public API: an echo server and a load client
// for a service, a sweep of stale FIFOs, and the JSON and parameter-list utilities.
#include <cstdio>
#include <cstring>

#include "tools/qvipc/Commands.h"
#include "tools/qvipc/Options.h"

namespace {

const char USAGE[] =
    "usage: qvipc <command> [options]\n"
    "\n"
    "commands:\n"
    "  serve --guid G       run an echo server for the service G\n"
    "  ping --guid G        connect clients to G, send requests and check the echoes\n"
    "  sweep                remove the FIFOs in /tmp left by processes that are gone\n"
    "  json pretty|get|check  lay out, query or check a JSON document\n"
    "  params decode TEXT   show a parameter-list text\n"
    "\n"
    "Run 'qvipc <command> --help' for a command's options.\n";

struct Command {
    const char* name;
    int (*run)(int argc, char** argv, int first);
};

const Command COMMANDS[] = {
    {"serve", RunServe}, {"ping", RunPing},     {"sweep", RunSweep},
    {"json", RunJson},   {"params", RunParams},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fputs(USAGE, stderr);
        return EXIT_USAGE;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
        strcmp(argv[1], "help") == 0) {
        fputs(USAGE, stdout);
        return EXIT_OK;
    }
    for (const Command& c : COMMANDS) {
        if (strcmp(argv[1], c.name) == 0) return c.run(argc, argv, 2);
    }
    fprintf(stderr, "qvipc: unknown command '%s' (see qvipc --help)\n", argv[1]);
    return EXIT_USAGE;
}
