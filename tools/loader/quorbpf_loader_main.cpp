// quorbpf-loader: loads and pins the service's BPF programme sets, or removes
// their pins, on a machine where the platform does not.
//
//   quorbpf-loader load   [--pin-dir DIR]   mount bpffs/tracefs if needed, pin
//   quorbpf-loader unload [--pin-dir DIR]   remove the pins
//   quorbpf-loader list                     the pin names the objects produce
//
// Prints one line per pin and per failure; exits 0 when nothing failed.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/loader/quor_bpf_loader.h"

namespace {

void Usage(FILE* out) {
    fprintf(out,
            "usage: quorbpf-loader load|unload|list [--pin-dir DIR]\n"
            "\n"
            "  load    load both programme sets and pin them (maps already pinned\n"
            "          with the same shape are reused, keeping their contents)\n"
            "  unload  remove the pins of both programme sets\n"
            "  list    print the pin names\n"
            "  --pin-dir DIR  bpffs directory (default /sys/fs/bpf/quor/)\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        Usage(stderr);
        return 2;
    }
    const std::string command = argv[1];
    if (command == "-h" || command == "--help") {
        Usage(stdout);
        return 0;
    }
    Quor::Bpf::QuorBpfLoader::Options options;
    for (int i = 2; i < argc; ++i) {
        if (strcmp(argv[i], "--pin-dir") == 0 && i + 1 < argc) {
            options.pinDir = argv[++i];
        } else {
            fprintf(stderr, "quorbpf-loader: unknown argument '%s'\n\n", argv[i]);
            Usage(stderr);
            return 2;
        }
    }

    Quor::Bpf::QuorBpfLoadReport report;
    int failures = 0;
    if (command == "load") {
        failures = Quor::Bpf::QuorBpfLoader::Load(options, &report);
    } else if (command == "unload") {
        failures = Quor::Bpf::QuorBpfLoader::Unload(options.pinDir, &report);
    } else if (command == "list") {
        for (const auto& name : Quor::Bpf::QuorBpfLoader::PinNames()) printf("%s\n", name.c_str());
        return 0;
    } else {
        fprintf(stderr, "quorbpf-loader: unknown command '%s'\n\n", command.c_str());
        Usage(stderr);
        return 2;
    }
    for (const auto& line : report.Lines()) printf("%s\n", line.c_str());
    printf("%s: %zu pinned, %zu reused, %zu removed, %d failed\n", command.c_str(),
           report.pinned.size(), report.reused.size(), report.removed.size(), failures);
    return failures == 0 ? 0 : 1;
}
