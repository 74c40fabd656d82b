// `kelobpf-client top`: the service's process table, live.
//
// 1. Finds the service and subscribes to the derived events 50001 to 50004
//    on a connection of its own (tools/kelo_bpf_client_feed.h), waiting (up
//    to the timeout) until the subscriptions are confirmed, so that nothing
//    that happens after the dump is missed.
// 2. Sends signal 51 and loads the task dump it writes.
// 3. Every `delay` seconds reads the events that came meanwhile into the
//    table, takes a snapshot and prints it: on a terminal as a full-screen
//    redraw (alternate screen, cursor home, each line cleared to its end),
//    cut to the terminal's size; otherwise, or with -b, as plain text with
//    every row, one block per refresh, separated by a blank line.
// On a terminal, 'q' ends it; so do SIGINT and SIGTERM, and -n iterations.
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>

#include "bpf/kelo_bpf_events.h"
#include "tools/kelo_bpf_client_commands.h"
#include "tools/kelo_bpf_client_feed.h"
#include "tools/kelo_bpf_client_figures.h"
#include "tools/kelo_bpf_client_stop.h"
#include "tools/kelo_bpf_client_top_table.h"
#include "tools/kelo_bpf_client_types.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr char ENTER_SCREEN[] = "\x1b[?1049h\x1b[?25l";  // alternate screen, cursor hidden
constexpr char LEAVE_SCREEN[] = "\x1b[?25h\x1b[?1049l";
constexpr char HOME[] = "\x1b[H";
constexpr char CLEAR_LINE_END[] = "\x1b[K";
constexpr char CLEAR_BELOW[] = "\x1b[J";

bool WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// The terminal's state while top draws on it: alternate screen, and keys
// read one at a time without echo. Restored on destruction.
class Terminal {
 public:
  explicit Terminal(bool keys) {
    if (keys && tcgetattr(STDIN_FILENO, &saved) == 0) {
      termios raw = saved;
      raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
      raw.c_cc[VMIN] = 1;
      raw.c_cc[VTIME] = 0;
      restoreKeys = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
    }
    WriteAll(STDOUT_FILENO, ENTER_SCREEN);
  }
  ~Terminal() {
    WriteAll(STDOUT_FILENO, LEAVE_SCREEN);
    if (restoreKeys) tcsetattr(STDIN_FILENO, TCSANOW, &saved);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

 private:
  termios saved{};
  bool restoreKeys = false;
};

std::string Clock() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char text[16];
  strftime(text, sizeof(text), "%H:%M:%S", &local);
  return text;
}

// A rendered frame for a terminal: every line cleared to its end, the rest
// of the screen cleared below it.
void ScreenFrame(const std::string& rendered, std::string* out) {
  std::string& frame = *out;
  frame = HOME;
  size_t start = 0;
  while (start < rendered.size()) {
    size_t end = rendered.find('\n', start);
    if (end == std::string::npos) end = rendered.size();
    frame.append(rendered, start, end - start);
    frame += CLEAR_LINE_END;
    // No line feed after the last line: it would scroll a full screen.
    if (end + 1 < rendered.size()) frame += "\r\n";
    start = end + 1;
  }
  frame += CLEAR_BELOW;
}

}  // namespace

int RunTop(const TopOptions& options) {
  const bool interactive = !options.batch && isatty(STDOUT_FILENO);
  const bool keys = interactive && isatty(STDIN_FILENO);
  android::base::unique_fd signalFd = BlockStopSignals({SIGWINCH});
  if (signalFd.get() < 0) {
    std::fprintf(stderr, "kelobpf-client: cannot set up: %s\n", strerror(errno));
    return CLIENT_EXIT_FAILED;
  }

  ClientError error;
  pid_t pid = 0;
  if (!FindServicePid(options.service.pidFile, options.service.socketName, &pid, &error)) {
    std::fprintf(stderr, "kelobpf-client: %s\n", error.message.c_str());
    return error.exitStatus;
  }

  // Log lines would land in the middle of the screen.
  if (interactive) __android_log_set_minimum_priority(ANDROID_LOG_SILENT);

  const std::vector<int> types = {KELO_CLIENT_EVENT_PROCESS_CREATE, KELO_CLIENT_EVENT_PROCESS_EXIT,
                                  KELO_CLIENT_EVENT_THREAD_COUNT, KELO_CLIENT_EVENT_RSS_CHANGE};
  TopTable table;
  const EventFeed::EventFn apply = [&table](const char* record, size_t size) { table.apply(record, size); };
  android::base::unique_fd connection(ConnectToService(options.service.socketName));
  if (connection.get() < 0) {
    std::fprintf(stderr, "kelobpf-client: cannot connect to %s: %s\n", options.service.socketName.c_str(),
                 strerror(errno));
    return CLIENT_EXIT_NO_SERVICE;
  }
  EventFeed feed(std::move(connection));
  std::string problem;
  // Subscribed before the dump is asked for, so that no change after it is
  // missed.
  if (!feed.subscribe(types, options.service.timeout, apply, &problem)) {
    std::fprintf(stderr, "kelobpf-client: %s\n", problem.c_str());
    return CLIENT_EXIT_FAILED;
  }

  std::string text;
  if (!RequestServiceFile(pid, SIGNAL_DUMP_ALL, ServiceFilePath(TASK_DUMP_FILE), options.service.timeout, &text,
                          &error)) {
    std::fprintf(stderr, "kelobpf-client: %s\n", error.message.c_str());
    return error.exitStatus;
  }
  TaskDump dump;
  if (!ParseTaskDump(text, &dump, &problem)) {
    std::fprintf(stderr, "kelobpf-client: %s: %s\n", ServiceFilePath(TASK_DUMP_FILE).c_str(), problem.c_str());
    return CLIENT_EXIT_FAILED;
  }
  table.load(dump);

  std::unique_ptr<Terminal> terminal;
  if (interactive) terminal = std::make_unique<Terminal>(keys);
  TopScreen screen;
  screen.delay = options.delay;
  // Kept across refreshes, so that their storage is reused.
  TopSnapshot last;
  std::string rendered;
  std::string frame;
  const auto draw = [&](bool fresh) {
    if (fresh) table.snapshot(&last);
    screen.clock = Clock();
    if (interactive) {
      winsize size{};
      if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0) {
        screen.width = size.ws_col;
        screen.height = size.ws_row;
      }
      RenderTop(last, screen, &rendered);
      ScreenFrame(rendered, &frame);
      return WriteAll(STDOUT_FILENO, frame);
    }
    RenderTop(last, screen, &rendered);
    return WriteAll(STDOUT_FILENO, rendered);
  };

  for (uint64_t iteration = 1;; ++iteration) {
    // Everything the service sent since the last refresh, in one go.
    if (!feed.drain(apply, &problem)) {
      terminal.reset();
      std::fprintf(stderr, "kelobpf-client: %s\n", problem.c_str());
      return CLIENT_EXIT_FAILED;
    }
    if (!draw(true)) return CLIENT_EXIT_FAILED;
    if (options.iterations != 0 && iteration >= options.iterations) return CLIENT_EXIT_OK;
    const auto due = std::chrono::steady_clock::now() + std::chrono::duration<double>(options.delay);
    while (true) {
      const double left = std::chrono::duration<double>(due - std::chrono::steady_clock::now()).count();
      if (left <= 0) break;
      pollfd fds[] = {{signalFd.get(), POLLIN, 0}, {keys ? STDIN_FILENO : -1, POLLIN, 0}};
      const int ready = poll(fds, 2, static_cast<int>(std::ceil(left * 1000)));
      if (ready < 0 && errno != EINTR) return CLIENT_EXIT_FAILED;
      if (ready <= 0) continue;
      if ((fds[0].revents & POLLIN) != 0) {
        const int signal = NextSignal(signalFd.get());
        if (signal == SIGWINCH) {
          draw(false);
        } else if (signal != 0) {
          return CLIENT_EXIT_OK;
        }
      }
      if ((fds[1].revents & (POLLIN | POLLHUP)) != 0) {
        char key = 0;
        const ssize_t got = read(STDIN_FILENO, &key, 1);
        if (got <= 0 || key == 'q' || key == 'Q') return CLIENT_EXIT_OK;
        if (key == ' ') break;  // refresh now
      }
    }
    if (!interactive) WriteAll(STDOUT_FILENO, "\n");
  }
}

}  // namespace Bpf
}  // namespace Kelo
