#include "tools/kelo_bpf_loader_lib.h"

#include <bpf/libbpf.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
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
  va_list measure;
  va_copy(measure, args);
  int len = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (len <= 0) {
    return 0;
  }
  std::string text(static_cast<size_t>(len) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, args);
  text.resize(static_cast<size_t>(len));
  // A verifier log arrives as one multi-line message; the platform log takes
  // one line per entry.
  int priority = level == LIBBPF_WARN ? ANDROID_LOG_WARN : ANDROID_LOG_INFO;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    if (end > start) {
      __android_log_print(priority, LOG_TAG_LOADER, "%s", text.substr(start, end - start).c_str());
    }
    start = end + 1;
  }
  return 0;
}

std::string ErrorText(int err) { return std::strerror(err < 0 ? -err : err); }

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
  bpf_object__for_each_program(prog, object.get()) { bpf_program__set_autoload(prog, name == bpf_program__name(prog)); }
  return bpf_object__load(object.get());
}

// Replaces whatever is pinned at path with the object pin() pins there.
template <typename Pinner>
int Replace(const std::string& path, Pinner pin) {
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    return -errno;
  }
  return pin(path.c_str());
}

// Collects what went wrong with one set, for the report and the log.
class SetProblems {
 public:
  SetProblems(const BpfObjectSet& set, BpfLoadReport* report) : set_(set), report_(report) {}

  void program(const std::string& name, const std::string& reason) {
    std::string line = set_.defineset + " " + name + ": " + reason;
    KELO_LOGE(LOG_TAG_LOADER, "not loaded: %s", line.c_str());
    report_->failedPrograms.push_back(line);
    ++count_;
  }
  void set(const std::string& reason) {
    KELO_LOGE(LOG_TAG_LOADER, "%s: %s", set_.defineset.c_str(), reason.c_str());
    report_->errors.push_back(set_.defineset + ": " + reason);
    ++count_;
  }
  int count() const { return count_; }

 private:
  const BpfObjectSet& set_;
  BpfLoadReport* report_;
  int count_ = 0;
};

// Loads the set's object without the programs in leftOut. libbpf loads an
// object all or nothing, so when the kernel refuses it each program is tried
// on its own and the refused ones join leftOut. Null when even that fails.
ObjectPtr LoadLeavingOut(const BpfObjectSet& set, std::set<std::string>* leftOut, SetProblems* problems) {
  auto load = [&](bpf_object* object) {
    bpf_program* prog;
    bpf_object__for_each_program(prog, object) {
      bpf_program__set_autoload(prog, leftOut->count(bpf_program__name(prog)) == 0);
    }
    return bpf_object__load(object);
  };
  std::string error;
  ObjectPtr object = OpenObject(set.objectPath, &error);
  if (object && load(object.get()) == 0) {
    return object;
  }
  if (object) {
    // A failed load leaves the object unusable; start again from the file.
    object = OpenObject(set.objectPath, &error);
  }
  if (!object) {
    problems->set(error);
    return nullptr;
  }
  bpf_program* prog;
  bpf_object__for_each_program(prog, object.get()) {
    std::string name = bpf_program__name(prog);
    if (leftOut->count(name) != 0) {
      continue;
    }
    int err = TryLoadProgram(set.objectPath, name);
    if (err != 0) {
      leftOut->insert(name);
      problems->program(name, ErrorText(err));
    }
  }
  int err = load(object.get());
  if (err != 0) {
    problems->set("cannot load " + set.objectPath + ": " + ErrorText(err));
    return nullptr;
  }
  return object;
}

int LoadAndPinSet(const BpfObjectSet& set, const std::string& dir, BpfLoadReport* report) {
  SetProblems problems(set, report);
  std::string error;
  ObjectPtr probe = OpenObject(set.objectPath, &error);
  if (!probe) {
    problems.set(error);
    return problems.count();
  }
  // Programs whose section the service cannot attach are never pinned.
  std::set<std::string> leftOut;
  bpf_program* prog;
  bpf_object__for_each_program(prog, probe.get()) {
    if (AttachKindOfSection(bpf_program__section_name(prog)).empty()) {
      leftOut.insert(bpf_program__name(prog));
      problems.program(bpf_program__name(prog),
                       std::string("section ") + bpf_program__section_name(prog) + " cannot be attached");
    }
  }
  probe.reset();

  ObjectPtr object = LoadLeavingOut(set, &leftOut, &problems);
  if (!object) {
    return problems.count();
  }
  bpf_object__for_each_program(prog, object.get()) {
    if (leftOut.count(bpf_program__name(prog)) != 0) {
      continue;
    }
    std::string path = dir + "/prog_" + set.defineset + "_" + AttachKindOfSection(bpf_program__section_name(prog)) +
                       "_" + bpf_program__name(prog);
    int err = Replace(path, [prog](const char* p) { return bpf_program__pin(prog, p); });
    if (err != 0) {
      problems.set("cannot pin " + path + ": " + ErrorText(err));
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
    int err = Replace(path, [map](const char* p) { return bpf_map__pin(map, p); });
    if (err != 0) {
      problems.set("cannot pin " + path + ": " + ErrorText(err));
      continue;
    }
    report->pinnedMaps.push_back(path);
  }
  return problems.count();
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

int LoadAndPinBpfSets(const std::vector<BpfObjectSet>& sets, const std::string& dir, BpfLoadReport* report) {
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
  KELO_LOGI(LOG_TAG_LOADER, "pinned %zu programs and %zu maps under %s, %d failures", report->pinnedPrograms.size(),
            report->pinnedMaps.size(), dir.c_str(), failures);
  return failures;
}

}  // namespace Bpf
}  // namespace Kelo
