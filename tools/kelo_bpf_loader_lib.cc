#include "tools/kelo_bpf_loader_lib.h"

#include <bpf/libbpf.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <memory>
#include <set>

#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {

namespace {

struct ObjectCloser {
  void operator()(bpf_object* object) const { bpf_object__close(object); }
};
using ObjectPtr = std::unique_ptr<bpf_object, ObjectCloser>;

// libbpf reports verifier logs and relocation failures through its print
// callback; they are what explains a refused program, so they go to the
// platform log. Debug chatter is dropped.
int PrintLibbpf(enum libbpf_print_level level, const char* format, va_list args) {
  if (level == LIBBPF_DEBUG) {
    return 0;
  }
  __android_log_vprint(level == LIBBPF_WARN ? ANDROID_LOG_WARN : ANDROID_LOG_INFO, LOG_TAG_LOADER,
                       format, args);
  return 0;
}

std::string ErrorText(int err) {
  return std::strerror(err < 0 ? -err : err);
}

bool MakeDirs(const std::string& dir) {
  std::string path;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    path = dir.substr(0, pos);
    if (path.empty() || mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) {
      continue;
    }
    return false;
  }
  struct stat st;
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

ObjectPtr OpenObject(const std::string& path, std::string* error) {
  bpf_object* object = bpf_object__open_file(path.c_str(), nullptr);
  int err = libbpf_get_error(object);
  if (err != 0) {
    *error = "cannot open " + path + ": " + ErrorText(err);
    return nullptr;
  }
  return ObjectPtr(object);
}

// Loads only the named program of the object (with the maps it needs) to
// find out whether this kernel accepts it.
int TryLoadProgram(const std::string& objectPath, const std::string& name) {
  std::string error;
  ObjectPtr object = OpenObject(objectPath, &error);
  if (!object) {
    return -EINVAL;
  }
  bpf_program* prog;
  bpf_object__for_each_program(prog, object.get()) {
    bpf_program__set_autoload(prog, name == bpf_program__name(prog));
  }
  return bpf_object__load(object.get());
}

// Replaces whatever is pinned at path.
int Pin(const std::string& path, int (*pin)(void*, const char*), void* object) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    return -errno;
  }
  return pin(object, path.c_str());
}

int PinProgram(void* prog, const char* path) {
  return bpf_program__pin(static_cast<bpf_program*>(prog), path);
}

int PinMap(void* map, const char* path) {
  return bpf_map__pin(static_cast<bpf_map*>(map), path);
}

int LoadAndPinSet(const BpfObjectSet& set, const std::string& dir, BpfLoadReport* report) {
  int failures = 0;
  auto setError = [&](const std::string& reason) {
    KELO_LOGE(LOG_TAG_LOADER, "%s: %s", set.defineset.c_str(), reason.c_str());
    report->errors.push_back(set.defineset + ": " + reason);
    ++failures;
  };

  std::string error;
  ObjectPtr object = OpenObject(set.objectPath, &error);
  if (!object) {
    setError(error);
    return failures;
  }

  // Programs whose section the service cannot attach are never pinned.
  std::set<std::string> refused;
  bpf_program* prog;
  bpf_object__for_each_program(prog, object.get()) {
    if (AttachKindOfSection(bpf_program__section_name(prog)).empty()) {
      refused.insert(bpf_program__name(prog));
      std::string line = set.defineset + " " + bpf_program__name(prog) +
                         ": section " + bpf_program__section_name(prog) + " cannot be attached";
      KELO_LOGE(LOG_TAG_LOADER, "%s", line.c_str());
      report->failedPrograms.push_back(line);
      ++failures;
    }
  }

  // libbpf loads an object all or nothing. When the kernel refuses it, each
  // program is tried on its own so that only the refused ones are left out.
  auto loadObject = [&]() {
    bpf_object__for_each_program(prog, object.get()) {
      bpf_program__set_autoload(prog, refused.count(bpf_program__name(prog)) == 0);
    }
    return bpf_object__load(object.get());
  };
  int err = loadObject();
  if (err != 0) {
    object = OpenObject(set.objectPath, &error);
    if (!object) {
      setError(error);
      return failures;
    }
    bpf_object__for_each_program(prog, object.get()) {
      std::string name = bpf_program__name(prog);
      if (refused.count(name) != 0) {
        continue;
      }
      int progErr = TryLoadProgram(set.objectPath, name);
      if (progErr != 0) {
        refused.insert(name);
        std::string line = set.defineset + " " + name + ": " + ErrorText(progErr);
        KELO_LOGE(LOG_TAG_LOADER, "cannot load %s", line.c_str());
        report->failedPrograms.push_back(line);
        ++failures;
      }
    }
    err = loadObject();
    if (err != 0) {
      setError("cannot load " + set.objectPath + ": " + ErrorText(err));
      return failures;
    }
  }

  bpf_object__for_each_program(prog, object.get()) {
    if (refused.count(bpf_program__name(prog)) != 0) {
      continue;
    }
    std::string path = dir + "/prog_" + set.defineset + "_" +
                       AttachKindOfSection(bpf_program__section_name(prog)) + "_" +
                       bpf_program__name(prog);
    err = Pin(path, PinProgram, prog);
    if (err != 0) {
      setError("cannot pin " + path + ": " + ErrorText(err));
      continue;
    }
    report->pinnedPrograms.push_back(path);
  }

  bpf_map* map;
  bpf_object__for_each_map(map, object.get()) {
    // Sections such as .rodata belong to the object, not to the service.
    if (bpf_map__is_internal(map)) {
      continue;
    }
    std::string path = dir + "/map_" + set.defineset + "_" + bpf_map__name(map);
    err = Pin(path, PinMap, map);
    if (err != 0) {
      setError("cannot pin " + path + ": " + ErrorText(err));
      continue;
    }
    report->pinnedMaps.push_back(path);
  }
  return failures;
}

}  // namespace

std::vector<BpfObjectSet> DefaultBpfObjectSets(const std::string& objectDir) {
  return {
      {objectDir + "/kelo_bpf_normal.bpf.o", "KeloBpfDefineset"},
      {objectDir + "/kelo_bpf_gpl.bpf.o", "KeloBpfGplDefineset"},
  };
}

std::string AttachKindOfSection(const std::string& section) {
  static const std::pair<const char*, const char*> kPrefixes[] = {
      {"tracepoint/", "tracepoint"},
      {"tp/", "tracepoint"},
      {"kprobe/", "kprobe"},
      {"kretprobe/", "kretprobe"},
  };
  for (const auto& [prefix, kind] : kPrefixes) {
    if (section.compare(0, std::strlen(prefix), prefix) == 0) {
      return kind;
    }
  }
  return "";
}

int LoadAndPinBpfSets(const std::vector<BpfObjectSet>& sets, const std::string& dir,
                      BpfLoadReport* report) {
  BpfLoadReport scratch;
  if (report == nullptr) {
    report = &scratch;
  }
  libbpf_set_print(PrintLibbpf);
  if (!MakeDirs(dir)) {
    std::string line = "cannot create " + dir + ": " + ErrorText(errno);
    KELO_LOGE(LOG_TAG_LOADER, "%s", line.c_str());
    report->errors.push_back(line);
    return 1;
  }
  int failures = 0;
  for (const BpfObjectSet& set : sets) {
    failures += LoadAndPinSet(set, dir, report);
  }
  KELO_LOGI(LOG_TAG_LOADER, "pinned %zu programs and %zu maps under %s, %d failures",
            report->pinnedPrograms.size(), report->pinnedMaps.size(), dir.c_str(), failures);
  return failures;
}

}  // namespace Bpf
}  // namespace Kelo
