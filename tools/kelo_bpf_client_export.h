// `kelobpf-client export`: the figures of `stats` in the Prometheus text
// exposition format (version 0.0.4), served over HTTP/1.1 by a minimal
// server on one thread: GET or HEAD of /metrics, nothing else.
//
// Each scrape asks the service for a fresh state file. The service keeps
// per-second counts of the last 30 minutes only, so the exporter turns them
// into counters that only grow: a second's counts are added once the window
// has moved past it, the newest (still open) second is added on top, and a
// new service (another pid, or a window that went back) starts adding afresh
// without resetting what was counted. The first scrape takes in the whole
// window the service has then.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tools/kelo_bpf_client_figures.h"

namespace Kelo {
namespace Bpf {

// Counters built from successive state files (see above). Main thread.
class StateCounters {
 public:
  void update(pid_t pid, const StateFile& state);
  // Totals of kinds 0 to 8 (events by type, then polls).
  std::array<uint64_t, STATE_KINDS> totals() const;
  // Seconds of service time that left the window between two scrapes
  // before they could be counted.
  uint64_t missedSeconds() const { return missed; }

 private:
  bool started = false;
  pid_t lastPid = 0;
  int64_t lastCur = 0;
  // Seconds up to this logical index are in `base`.
  int64_t lastFinal = -1;
  std::array<uint64_t, STATE_KINDS> base{};
  // Counts of the newest second, lastFinal + 1.
  std::array<uint64_t, STATE_KINDS> open{};
  uint64_t missed = 0;
};

// The exposition text of one scrape. `figures` is null when the scrape could
// not read the service's figures (then only the counters kept so far, up
// and the error count are given).
std::string RenderMetrics(const ServiceFigures* figures, const StateCounters& counters, uint64_t scrapeErrors);

// The head of one HTTP request.
struct HttpRequest {
  std::string method;
  // As sent; `path` is its path without query (absolute-form targets
  // reduced to their path).
  std::string target;
  std::string path;
  std::string version;
  std::vector<std::pair<std::string, std::string>> headers;
};

enum class HttpParse {
  // The head is complete and well-formed.
  COMPLETE,
  // More bytes are needed.
  INCOMPLETE,
  // Malformed: bad request line, header line or line end.
  BAD,
  // No end of the head within maxHead bytes.
  TOO_LARGE,
};

// Parses the head of a request from the bytes received so far: request line
// "METHOD SP target SP HTTP/x.y", header lines "name: value" (name a token,
// no blank before the colon, no folded lines), an empty line; lines end in
// CRLF or LF; empty lines before the request line are skipped.
HttpParse ParseHttpRequest(const std::string& received, size_t maxHead, HttpRequest* request);

// The whole response (status line, headers, body) to a request parsed with
// `result` (INCOMPLETE means the client was too slow: 408). `metrics` makes
// the body of /metrics and is called only for it.
template <typename MetricsFn>
std::string HttpResponseFor(HttpParse result, const HttpRequest& request, MetricsFn metrics);

// Splits "ADDR:PORT" ("127.0.0.1:9477", "[::1]:9477", "localhost:0");
// false when there is no port or it is not 0 to 65535.
bool SplitListenAddress(const std::string& listen, std::string* host, uint16_t* port);

// ---- implementation of the template ----

std::string HttpMessage(int status, const std::string& contentType, const std::string& body, bool headOnly,
                        const std::string& extraHeaders = "");

template <typename MetricsFn>
std::string HttpResponseFor(HttpParse result, const HttpRequest& request, MetricsFn metrics) {
  constexpr char TEXT[] = "text/plain; charset=utf-8";
  switch (result) {
    case HttpParse::INCOMPLETE:
      return HttpMessage(408, TEXT, "request timeout\n", false);
    case HttpParse::BAD:
      return HttpMessage(400, TEXT, "bad request\n", false);
    case HttpParse::TOO_LARGE:
      return HttpMessage(431, TEXT, "request header fields too large\n", false);
    case HttpParse::COMPLETE:
      break;
  }
  if (request.version != "HTTP/1.1" && request.version != "HTTP/1.0") {
    return HttpMessage(505, TEXT, "HTTP version not supported\n", false);
  }
  if (request.version == "HTTP/1.1") {
    int hosts = 0;
    for (const auto& header : request.headers) hosts += header.first == "host";
    if (hosts != 1) return HttpMessage(400, TEXT, "bad request: HTTP/1.1 needs one Host header\n", false);
  }
  const bool head = request.method == "HEAD";
  if (request.method != "GET" && !head) {
    return HttpMessage(405, TEXT, "method not allowed\n", false, "Allow: GET, HEAD\r\n");
  }
  if (request.path == "/metrics") {
    return HttpMessage(200, "text/plain; version=0.0.4; charset=utf-8", metrics(), head);
  }
  if (request.path == "/") return HttpMessage(200, TEXT, "kelobpf exporter: see /metrics\n", head);
  return HttpMessage(404, TEXT, "not found\n", head);
}

}  // namespace Bpf
}  // namespace Kelo
