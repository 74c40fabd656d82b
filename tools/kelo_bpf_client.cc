// kelobpf-client: the command-line client of the kelobpf service. Its
// subcommands (watch, top, dump, stats, export) are described by
// `kelobpf-client --help` and in the README; the command line is parsed in
// tools/kelo_bpf_client_cli.cc.
#include "tools/kelo_bpf_client_commands.h"

int main(int argc, char** argv) { return Kelo::Bpf::RunClient(argc, argv); }
