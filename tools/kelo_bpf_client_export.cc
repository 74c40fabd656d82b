#include "tools/kelo_bpf_client_export.h"

#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>

#include "helper/kelo_bpf_helper_strings.h"
#include "tools/kelo_bpf_client_stop.h"
#include "tools/kelo_bpf_client_types.h"

namespace Kelo {
namespace Bpf {
namespace {

// Largest request head read; a scrape's head is a few hundred bytes.
constexpr size_t MAX_REQUEST_HEAD = 8192;
// How long a connection may take to send its request head.
constexpr std::chrono::milliseconds REQUEST_DEADLINE{5000};
// How long a response may take to leave.
constexpr int SEND_TIMEOUT_SECONDS = 5;

const char* Reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 431:
      return "Request Header Fields Too Large";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Error";
  }
}

bool IsTokenChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         strchr("!#$%&'*+-.^_`|~", c) != nullptr;
}

bool IsToken(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c == '\0' || !IsTokenChar(c)) return false;
  }
  return true;
}

// Visible characters only: a target has no blanks or control bytes.
bool IsTargetText(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u == 0x7f) return false;
  }
  return true;
}

bool IsVersion(const std::string& text) {
  return text.size() == 8 && text.compare(0, 5, "HTTP/") == 0 && isdigit(static_cast<unsigned char>(text[5])) &&
         text[6] == '.' && isdigit(static_cast<unsigned char>(text[7]));
}

// Path of a target: origin-form "/p?q", absolute-form "http://host/p?q",
// asterisk-form "*"; empty when it is none of these.
std::string TargetPath(const std::string& target) {
  std::string path = target;
  if (path[0] != '/' && path != "*") {
    const size_t scheme = path.find("://");
    if (scheme == std::string::npos) return "";
    const size_t slash = path.find('/', scheme + 3);
    path = slash == std::string::npos ? "/" : path.substr(slash);
  }
  const size_t query = path.find_first_of("?#");
  if (query != std::string::npos) path.resize(query);
  return path;
}

std::string Label(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

void Family(std::string* text, const char* name, const char* type, const char* help) {
  *text += StringPrintf("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

std::string TypeLabels(int kind) {
  const char* name = EventTypeName(static_cast<uint32_t>(kind));
  return StringPrintf("type=\"%s\",code=\"%d\"", name != nullptr ? name : StateKindColumn(kind), kind);
}

bool IsInteger(const std::string& text) {
  if (text.empty()) return false;
  const size_t start = text[0] == '-' ? 1 : 0;
  return start < text.size() && text.find_first_not_of("0123456789", start) == std::string::npos;
}

// The lines after the service's window as samples (see README, "export").
void ExtraSamples(std::string* text, const std::vector<std::string>& lines) {
  std::string section;
  std::vector<std::string> columns;
  std::string samples;
  for (const std::string& line : lines) {
    std::vector<std::string> fields = android::base::Split(line, ",");
    for (std::string& field : fields) field = android::base::Trim(field);
    while (!fields.empty() && fields.back().empty()) fields.pop_back();
    if (fields.size() < 2 || fields[0].empty()) continue;
    bool numbers = true;
    for (size_t i = 1; i < fields.size(); ++i) numbers = numbers && IsInteger(fields[i]);
    if (!numbers) {
      section = fields[0];
      columns.assign(fields.begin() + 1, fields.end());
      continue;
    }
    const bool inSection = !section.empty() && columns.size() == fields.size() - 1;
    if (!inSection) section.clear();
    for (size_t i = 1; i < fields.size(); ++i) {
      std::string labels = "name=\"" + Label(fields[0]) + "\"";
      if (inSection) labels += ",section=\"" + Label(section) + "\",column=\"" + Label(columns[i - 1]) + "\"";
      if (!inSection && fields.size() > 2) labels += ",column=\"" + std::to_string(i) + "\"";
      samples += "kelobpf_state_extra{" + labels + "} " + fields[i] + "\n";
    }
  }
  if (samples.empty()) return;
  Family(text, "kelobpf_state_extra", "untyped",
         "Figures the service writes after its per-second window (losses and the like), by line name.");
  *text += samples;
}

// Reads a request head from `fd` until it is complete, malformed, too large
// or the deadline passed.
HttpParse ReadRequest(int fd, HttpRequest* request) {
  const auto deadline = std::chrono::steady_clock::now() + REQUEST_DEADLINE;
  std::string received;
  char buffer[2048];
  while (true) {
    const HttpParse result = ParseHttpRequest(received, MAX_REQUEST_HEAD, request);
    if (result != HttpParse::INCOMPLETE) return result;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return HttpParse::INCOMPLETE;
    pollfd p{fd, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return HttpParse::INCOMPLETE;
    const ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
    if (got < 0 && errno == EINTR) continue;
    // The peer went away (or failed) before a whole head: nothing to answer.
    if (got <= 0) return HttpParse::BAD;
    received.append(buffer, static_cast<size_t>(got));
  }
}

void SendAll(int fd, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    sent += static_cast<size_t>(n);
  }
}

// A listening TCP socket on host:port; -1 with a message on failure.
int Listen(const std::string& host, uint16_t port, std::string* bound, std::string* problem) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int status = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
  if (status != 0) {
    *problem = "cannot resolve " + host + ": " + gai_strerror(status);
    return -1;
  }
  std::unique_ptr<addrinfo, void (*)(addrinfo*)> list(found, freeaddrinfo);
  for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
    android::base::unique_fd fd(socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol));
    if (fd.get() < 0) continue;
    const int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (bind(fd.get(), a->ai_addr, a->ai_addrlen) != 0 || listen(fd.get(), 16) != 0) {
      *problem = "cannot listen on " + host + ":" + service + ": " + strerror(errno);
      continue;
    }
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
    char name[INET6_ADDRSTRLEN] = "";
    uint16_t boundPort = 0;
    if (address.ss_family == AF_INET6) {
      const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
      inet_ntop(AF_INET6, &v6->sin6_addr, name, sizeof(name));
      boundPort = ntohs(v6->sin6_port);
      *bound = StringPrintf("[%s]:%u", name, boundPort);
    } else {
      const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
      inet_ntop(AF_INET, &v4->sin_addr, name, sizeof(name));
      boundPort = ntohs(v4->sin_port);
      *bound = StringPrintf("%s:%u", name, boundPort);
    }
    return fd.release();
  }
  if (problem->empty()) *problem = "no address to listen on for " + host;
  return -1;
}

}  // namespace

void StateCounters::update(pid_t pid, const StateFile& state) {
  const int64_t newest = state.curIndex;
  if (started && (pid != lastPid || newest < lastCur)) {
    // A new service: what was seen of the old one's open second stays
    // counted, and the new window is counted from its start.
    for (int kind = 0; kind < STATE_KINDS; ++kind) base[kind] += open[kind];
    open.fill(0);
    started = false;
  }
  if (!started) {
    lastFinal = state.firstIndex - 1;
    started = true;
  }
  if (state.firstIndex > lastFinal + 1) {
    // The second that was open at the last scrape has left the window: what
    // was seen of it stays counted; the seconds after it were never seen.
    for (int kind = 0; kind < STATE_KINDS; ++kind) base[kind] += open[kind];
    open.fill(0);
    if (state.firstIndex > lastFinal + 2) missed += static_cast<uint64_t>(state.firstIndex - lastFinal - 2);
  }
  // Rows are newest first: row r is logical second newest - r.
  for (size_t r = 0; r < state.rows.size(); ++r) {
    const int64_t second = newest - static_cast<int64_t>(r);
    if (second <= lastFinal || second >= newest) continue;
    for (int kind = 0; kind < STATE_KINDS; ++kind) {
      base[kind] += static_cast<uint64_t>(std::max<int64_t>(0, state.rows[r][kind]));
    }
  }
  lastFinal = std::max(lastFinal, newest - 1);
  open.fill(0);
  if (!state.rows.empty()) {
    for (int kind = 0; kind < STATE_KINDS; ++kind) {
      open[kind] = static_cast<uint64_t>(std::max<int64_t>(0, state.rows[0][kind]));
    }
  }
  lastPid = pid;
  lastCur = newest;
}

std::array<uint64_t, STATE_KINDS> StateCounters::totals() const {
  std::array<uint64_t, STATE_KINDS> sum{};
  for (int kind = 0; kind < STATE_KINDS; ++kind) sum[kind] = base[kind] + open[kind];
  return sum;
}

std::string RenderMetrics(const ServiceFigures* figures, const StateCounters& counters, uint64_t scrapeErrors) {
  std::string text;
  Family(&text, "kelobpf_up", "gauge", "1 when this scrape read a fresh state file from the service, else 0.");
  text += StringPrintf("kelobpf_up %d\n", figures != nullptr ? 1 : 0);
  Family(&text, "kelobpf_scrape_errors_total", "counter", "Scrapes that could not read the service's figures.");
  text += StringPrintf("kelobpf_scrape_errors_total %" PRIu64 "\n", scrapeErrors);
  const std::array<uint64_t, STATE_KINDS> totals = counters.totals();
  Family(&text, "kelobpf_events_total", "counter",
         "Events the service counted, by type, since this exporter first read the service (its window then "
         "included).");
  for (int kind = 0; kind < STATE_POLL_KIND; ++kind) {
    text += StringPrintf("kelobpf_events_total{%s} %" PRIu64 "\n", TypeLabels(kind).c_str(), totals[kind]);
  }
  Family(&text, "kelobpf_polls_total", "counter", "Ring-buffer polls the service counted.");
  text += StringPrintf("kelobpf_polls_total %" PRIu64 "\n", totals[STATE_POLL_KIND]);
  Family(&text, "kelobpf_window_missed_seconds_total", "counter",
         "Seconds that left the service's window between two scrapes before they were counted.");
  text += StringPrintf("kelobpf_window_missed_seconds_total %" PRIu64 "\n", counters.missedSeconds());
  if (figures == nullptr) return text;

  const StateSummary& s = figures->summary;
  Family(&text, "kelobpf_window_seconds", "gauge", "Seconds of service time the service's count window holds.");
  text += StringPrintf("kelobpf_window_seconds %" PRId64 "\n", s.windowSeconds);
  Family(&text, "kelobpf_window_events", "gauge", "Events in the service's window, by type.");
  for (int kind = 0; kind < STATE_POLL_KIND; ++kind) {
    text += StringPrintf("kelobpf_window_events{%s} %" PRId64 "\n", TypeLabels(kind).c_str(), s.windowTotals[kind]);
  }
  Family(&text, "kelobpf_event_rate", "gauge",
         "Events per second over the newest 10 seconds of the service's window, by type.");
  for (int kind = 0; kind < STATE_POLL_KIND; ++kind) {
    const double rate = s.recentSeconds > 0 ? static_cast<double>(s.recentTotals[kind]) / s.recentSeconds : 0.0;
    text += StringPrintf("kelobpf_event_rate{%s} %.6g\n", TypeLabels(kind).c_str(), rate);
  }
  if (figures->clients >= 0) {
    Family(&text, "kelobpf_clients_connected", "gauge", "Connections the service has accepted on its socket.");
    text += StringPrintf("kelobpf_clients_connected %d\n", figures->clients);
  }
  Family(&text, "kelobpf_service_pid", "gauge", "Process id of the service.");
  text += StringPrintf("kelobpf_service_pid %d\n", figures->pid);
  ExtraSamples(&text, figures->state.extraLines);
  return text;
}

HttpParse ParseHttpRequest(const std::string& received, size_t maxHead, HttpRequest* request) {
  // Empty lines before the request line are skipped.
  size_t start = 0;
  while (start < received.size() && (received[start] == '\r' || received[start] == '\n')) {
    if (received[start] == '\r' && start + 1 < received.size() && received[start + 1] != '\n') return HttpParse::BAD;
    ++start;
  }
  // The head ends with an empty line: LF LF, with optional CRs before each LF.
  size_t end = std::string::npos;
  for (size_t i = start; i < received.size(); ++i) {
    if (received[i] != '\n') continue;
    size_t j = i + 1;
    if (j < received.size() && received[j] == '\r') ++j;
    if (j < received.size() && received[j] == '\n') {
      end = j + 1;
      break;
    }
  }
  if (end == std::string::npos) return received.size() - start > maxHead ? HttpParse::TOO_LARGE : HttpParse::INCOMPLETE;
  if (end - start > maxHead) return HttpParse::TOO_LARGE;

  std::vector<std::string> lines;
  for (size_t i = start; i < end;) {
    const size_t lf = received.find('\n', i);
    std::string line = received.substr(i, lf - i);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    // A CR anywhere else is not a line end.
    if (line.find('\r') != std::string::npos) return HttpParse::BAD;
    lines.push_back(std::move(line));
    i = lf + 1;
  }
  // The last line is the empty one that ends the head.
  lines.pop_back();
  if (lines.empty()) return HttpParse::BAD;

  HttpRequest out;
  const std::vector<std::string> parts = android::base::Split(lines[0], " ");
  if (parts.size() != 3 || !IsToken(parts[0]) || !IsTargetText(parts[1]) || !IsVersion(parts[2])) {
    return HttpParse::BAD;
  }
  out.method = parts[0];
  out.target = parts[1];
  out.version = parts[2];
  out.path = TargetPath(out.target);
  if (out.path.empty()) return HttpParse::BAD;
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    const size_t colon = line.find(':');
    // No folded lines, no blank between the name and the colon.
    if (colon == std::string::npos || !IsToken(line.substr(0, colon))) return HttpParse::BAD;
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    std::string value = line.substr(colon + 1);
    const size_t first = value.find_first_not_of(" \t");
    const size_t last = value.find_last_not_of(" \t");
    value = first == std::string::npos ? "" : value.substr(first, last - first + 1);
    for (char c : value) {
      if (c == '\0') return HttpParse::BAD;
    }
    out.headers.emplace_back(std::move(name), std::move(value));
  }
  *request = std::move(out);
  return HttpParse::COMPLETE;
}

std::string HttpMessage(int status, const std::string& contentType, const std::string& body, bool headOnly,
                        const std::string& extraHeaders) {
  std::string message = StringPrintf("HTTP/1.1 %d %s\r\n", status, Reason(status));
  message += "Content-Type: " + contentType + "\r\n";
  message += StringPrintf("Content-Length: %zu\r\n", body.size());
  message += extraHeaders;
  message += "Connection: close\r\n\r\n";
  if (!headOnly) message += body;
  return message;
}

bool SplitListenAddress(const std::string& listen, std::string* host, uint16_t* port) {
  const size_t colon = listen.rfind(':');
  if (colon == std::string::npos || colon + 1 >= listen.size()) return false;
  std::string h = listen.substr(0, colon);
  const std::string p = listen.substr(colon + 1);
  if (p.find_first_not_of("0123456789") != std::string::npos || p.size() > 5) return false;
  const unsigned long value = strtoul(p.c_str(), nullptr, 10);
  if (value > 65535) return false;
  if (!h.empty() && h.front() == '[') {
    if (h.size() < 3 || h.back() != ']') return false;
    h = h.substr(1, h.size() - 2);
  } else if (h.find(':') != std::string::npos) {
    return false;  // an IPv6 address needs its brackets
  }
  if (h.empty()) return false;
  *host = h;
  *port = static_cast<uint16_t>(value);
  return true;
}

int RunExport(const ExportOptions& options) {
  std::string host;
  uint16_t port = 0;
  if (!SplitListenAddress(options.listen, &host, &port)) {
    std::fprintf(stderr, "kelobpf-client: --listen wants ADDR:PORT, e.g. 127.0.0.1:9477 or [::1]:9477, not '%s'\n",
                 options.listen.c_str());
    return CLIENT_EXIT_USAGE;
  }
  android::base::unique_fd signalFd = BlockStopSignals();
  signal(SIGPIPE, SIG_IGN);
  std::string bound, problem;
  android::base::unique_fd listenFd(Listen(host, port, &bound, &problem));
  if (listenFd.get() < 0) {
    std::fprintf(stderr, "kelobpf-client: %s\n", problem.c_str());
    return CLIENT_EXIT_FAILED;
  }
  std::fprintf(stderr, "kelobpf-client: serving metrics on http://%s/metrics\n", bound.c_str());
  std::fflush(stderr);

  StateCounters counters;
  uint64_t scrapeErrors = 0;
  const auto scrape = [&]() {
    ServiceFigures figures;
    ClientError error;
    if (!CollectServiceFigures(options.service, &figures, &error)) {
      ++scrapeErrors;
      std::fprintf(stderr, "kelobpf-client: scrape failed: %s\n", error.message.c_str());
      return RenderMetrics(nullptr, counters, scrapeErrors);
    }
    counters.update(figures.pid, figures.state);
    return RenderMetrics(&figures, counters, scrapeErrors);
  };

  while (true) {
    pollfd fds[] = {{listenFd.get(), POLLIN, 0}, {signalFd.get(), POLLIN, 0}};
    const int ready = poll(fds, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) {
      std::fprintf(stderr, "kelobpf-client: poll failed: %s\n", strerror(errno));
      return CLIENT_EXIT_FAILED;
    }
    if ((fds[1].revents & POLLIN) != 0 && NextSignal(signalFd.get()) != 0) return CLIENT_EXIT_OK;
    if ((fds[0].revents & POLLIN) == 0) continue;
    android::base::unique_fd connection(accept4(listenFd.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection.get() < 0) continue;
    const timeval sendTimeout{SEND_TIMEOUT_SECONDS, 0};
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof(sendTimeout));
    try {
      HttpRequest request;
      const HttpParse result = ReadRequest(connection.get(), &request);
      SendAll(connection.get(), HttpResponseFor(result, request, scrape));
    } catch (const std::exception& e) {
      std::fprintf(stderr, "kelobpf-client: cannot answer a request: %s\n", e.what());
    }
  }
}

}  // namespace Bpf
}  // namespace Kelo
