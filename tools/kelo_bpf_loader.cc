// kelo_bpf_loader: loads the kernel-side program sets and pins every program
// and map under a bpffs directory, as the platform's BPF loader does on a
// device. Attaches nothing.
//
//   kelo_bpf_loader [--dir DIR] [--obj-dir DIR]
//
// --dir      where to pin (default /sys/fs/bpf/kelo; created when missing)
// --obj-dir  where the .bpf.o files are (default: <bindir>/../share/kelobpf
//            of an installed tool, else the build tree, else the configured
//            install directory)
// Exit status 0 when everything was pinned, 1 when anything was left out, 2
// for bad usage.
#include <getopt.h>

#include <cstdio>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_loader_lib.h"
#include "tools/kelo_bpf_object_dir.h"

namespace {

constexpr char kUsage[] = "usage: kelo_bpf_loader [--dir DIR] [--obj-dir DIR]\n";
// --help: the usage, then every option. The manual page takes its options
// from this text.
constexpr char kOptionsHelp[] =
    "\n"
    "Loads the kernel-side program sets and pins every program and map; attaches nothing.\n"
    "\n"
    "Options:\n"
    "  --dir DIR       where to pin (default /sys/fs/bpf/kelo; created when missing)\n"
    "  --obj-dir DIR   where the .bpf.o files are (default: <bindir>/../share/kelobpf of\n"
    "                  an installed tool, else the build tree, else the install directory)\n"
    "  -h, --help      print this help and exit\n"
    "\n"
    "Exit status: 0 everything was pinned; 1 anything was left out; 2 bad usage.\n";

}  // namespace

int main(int argc, char** argv) {
  std::string dir = KELO_BPF_FS_DIR;
  std::string objectDir = Kelo::Bpf::DefaultBpfObjectDir();
  static const option kOptions[] = {
      {"dir", required_argument, nullptr, 'd'},
      {"obj-dir", required_argument, nullptr, 'o'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  int opt;
  while ((opt = getopt_long(argc, argv, "d:o:h", kOptions, nullptr)) != -1) {
    switch (opt) {
      case 'd':
        dir = optarg;
        break;
      case 'o':
        objectDir = optarg;
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        std::fputs(kOptionsHelp, stdout);
        return 0;
      default:
        std::fputs(kUsage, stderr);
        return 2;
    }
  }
  if (optind != argc) {
    std::fputs(kUsage, stderr);
    return 2;
  }

  Kelo::Bpf::BpfLoadReport report;
  int failures = Kelo::Bpf::LoadAndPinBpfSets(Kelo::Bpf::DefaultBpfObjectSets(objectDir), dir, &report);
  for (const std::string& path : report.pinnedPrograms) {
    std::printf("pinned %s\n", path.c_str());
  }
  for (const std::string& path : report.pinnedMaps) {
    std::printf("pinned %s\n", path.c_str());
  }
  for (const std::string& line : report.failedPrograms) {
    std::fprintf(stderr, "not loaded: %s\n", line.c_str());
  }
  for (const std::string& line : report.errors) {
    std::fprintf(stderr, "error: %s\n", line.c_str());
  }
  return failures == 0 ? 0 : 1;
}
