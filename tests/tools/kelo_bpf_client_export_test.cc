// The exporter's HTTP request parsing and answers, its counters over
// successive state files, and the exposition text.
#include <gtest/gtest.h>

#include <string>

#include "tools/kelo_bpf_client_export.h"

namespace {

using namespace Kelo::Bpf;

HttpParse Parse(const std::string& text, HttpRequest* request = nullptr) {
  HttpRequest scratch;
  return ParseHttpRequest(text, 8192, request != nullptr ? request : &scratch);
}

TEST(ClientHttp, ParsesRequestHeadsStrictlyButAcceptsBareLineFeeds) {
  HttpRequest request;
  ASSERT_EQ(Parse("GET /metrics?x=1 HTTP/1.1\r\nHost: a\r\nAccept:  text/plain \r\n\r\n", &request),
            HttpParse::COMPLETE);
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/metrics?x=1");
  EXPECT_EQ(request.path, "/metrics");
  EXPECT_EQ(request.version, "HTTP/1.1");
  ASSERT_EQ(request.headers.size(), 2u);
  EXPECT_EQ(request.headers[1], (std::pair<std::string, std::string>{"accept", "text/plain"}));

  EXPECT_EQ(Parse("\r\n\nGET http://h:9/metrics#f HTTP/1.0\n\n", &request), HttpParse::COMPLETE);
  EXPECT_EQ(request.path, "/metrics");

  EXPECT_EQ(Parse("GET /metrics HTTP/1.1\r\nHost: a\r\n"), HttpParse::INCOMPLETE);
  EXPECT_EQ(Parse(""), HttpParse::INCOMPLETE);
  for (const char* bad : {
           "GET  /metrics HTTP/1.1\r\n\r\n",               // two blanks
           "GET /metrics\r\n\r\n",                         // no version
           "GET /metrics HTTP/1\r\n\r\n",                  // malformed version
           "GET /me trics HTTP/1.1\r\n\r\n",               // blank in the target
           "GET metrics HTTP/1.1\r\n\r\n",                 // neither origin nor absolute form
           "G(T /metrics HTTP/1.1\r\n\r\n",                // method not a token
           "GET /metrics HTTP/1.1\r\nHost : a\r\n\r\n",    // blank before the colon
           "GET /metrics HTTP/1.1\r\nHost\r\n\r\n",        // no colon
           "GET /metrics HTTP/1.1\r\nA: b\r\n c\r\n\r\n",  // folded line
           "GET /metrics HTTP/1.1\rX\r\n\r\n",             // lone CR
           "\rGET /metrics HTTP/1.1\r\n\r\n",
       }) {
    EXPECT_EQ(Parse(bad), HttpParse::BAD) << bad;
  }
  const std::string huge = "GET / HTTP/1.1\r\nX: " + std::string(9000, 'a');
  EXPECT_EQ(Parse(huge), HttpParse::TOO_LARGE);
  EXPECT_EQ(Parse(huge + "\r\n\r\n"), HttpParse::TOO_LARGE);
}

TEST(ClientHttp, AnswersOnlyGetAndHeadOfMetricsAndSaysWhyOtherwise) {
  int scrapes = 0;
  const auto answer = [&](const std::string& text) {
    HttpRequest request;
    const HttpParse result = ParseHttpRequest(text, 8192, &request);
    return HttpResponseFor(result, request, [&] {
      ++scrapes;
      return std::string("kelobpf_up 1\n");
    });
  };
  EXPECT_EQ(answer("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: 13\r\n"
            "Connection: close\r\n\r\nkelobpf_up 1\n");
  const std::string head = answer("HEAD /metrics HTTP/1.0\r\n\r\n");
  EXPECT_NE(head.find("Content-Length: 13\r\n"), std::string::npos);
  EXPECT_EQ(head.substr(head.size() - 4), "\r\n\r\n");
  EXPECT_EQ(scrapes, 2);

  const auto status = [&](const std::string& text) { return answer(text).substr(0, 12); };
  EXPECT_EQ(status("GET /other HTTP/1.1\r\nHost: x\r\n\r\n"), "HTTP/1.1 404");
  EXPECT_EQ(status("POST /metrics HTTP/1.1\r\nHost: x\r\n\r\n"), "HTTP/1.1 405");
  EXPECT_NE(answer("DELETE /metrics HTTP/1.0\r\n\r\n").find("Allow: GET, HEAD\r\n"), std::string::npos);
  EXPECT_EQ(status("GET /metrics HTTP/1.1\r\n\r\n"), "HTTP/1.1 400");  // HTTP/1.1 without Host
  EXPECT_EQ(status("GET /metrics HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n"), "HTTP/1.1 400");
  EXPECT_EQ(status("GET /metrics HTTP/2.0\r\n\r\n"), "HTTP/1.1 505");
  EXPECT_EQ(status("GET /metrics HTTP/1.1\r\nHost: x\r\n"), "HTTP/1.1 408");  // never finished
  EXPECT_EQ(status("GET / HTTP/1.1\r\nX: " + std::string(9000, 'a') + "\r\n\r\n"), "HTTP/1.1 431");
  EXPECT_EQ(scrapes, 2);
}

TEST(ClientHttp, SplitsListenAddresses) {
  std::string host;
  uint16_t port = 1;
  ASSERT_TRUE(SplitListenAddress("127.0.0.1:9477", &host, &port));
  EXPECT_EQ(host, "127.0.0.1");
  EXPECT_EQ(port, 9477);
  ASSERT_TRUE(SplitListenAddress("[::1]:0", &host, &port));
  EXPECT_EQ(host, "::1");
  EXPECT_EQ(port, 0);
  for (const char* bad : {"127.0.0.1", "127.0.0.1:", ":9477", "::1:9477", "[::1]9477", "h:65536", "h:-1", "h:x"}) {
    EXPECT_FALSE(SplitListenAddress(bad, &host, &port)) << bad;
  }
}

// A state file of `seconds` rows, newest first, with `rows[i]` fork counts
// for logical second cur - i.
StateFile Window(int64_t cur, const std::vector<int64_t>& forks) {
  StateFile state;
  state.curIndex = cur;
  state.firstIndex = cur - static_cast<int64_t>(forks.size()) + 1;
  for (int64_t count : forks) {
    std::array<int64_t, STATE_KINDS> row{};
    row[2] = count;
    row[STATE_POLL_KIND] = 1;
    state.rows.push_back(row);
  }
  return state;
}

TEST(ClientExport, CountersOnlyGrowAsTheWindowMovesAndAcrossANewService) {
  StateCounters counters;
  counters.update(10, Window(4, {1, 2, 3, 4, 5}));  // the whole window: 15
  EXPECT_EQ(counters.totals()[2], 15u);
  counters.update(10, Window(4, {3, 2, 3, 4, 5}));  // the open second grew
  EXPECT_EQ(counters.totals()[2], 17u);
  counters.update(10, Window(6, {1, 0, 6, 2, 3, 4, 5}));  // second 4 closed at 6
  EXPECT_EQ(counters.totals()[2], 15u - 1 + 6 + 0 + 1);
  EXPECT_EQ(counters.totals()[STATE_POLL_KIND], 7u);
  EXPECT_EQ(counters.missedSeconds(), 0u);
  // Far ahead: seconds 7 to 2005 left the window unseen.
  std::vector<int64_t> late(1800, 0);
  late[0] = 2;
  counters.update(10, Window(3805, late));
  EXPECT_EQ(counters.totals()[2], 21u + 2);
  EXPECT_EQ(counters.missedSeconds(), 2005u - 7 + 1);
  // Another service: its window is added on top.
  counters.update(11, Window(1, {4, 1}));
  EXPECT_EQ(counters.totals()[2], 23u + 5);
  // A window that went back is a new service too, even under the same pid.
  counters.update(11, Window(0, {1}));
  EXPECT_EQ(counters.totals()[2], 28u + 1);
}

TEST(ClientExport, RendersTypedFamiliesAndTheLinesAfterTheWindowAsSamples) {
  ServiceFigures figures;
  figures.pid = 42;
  figures.clients = 3;
  figures.state = Window(1, {2, 8});
  figures.state.extraLines = {"KernelLost, kelo_task_init, kmem_rss_info, ", "normal, 1, 2, ", "QueueTrimmed, 7, ",
                              "Odd \"name\", 5, ", "no numbers here"};
  figures.summary = SummarizeState(figures.state);
  StateCounters counters;
  counters.update(figures.pid, figures.state);
  const std::string text = RenderMetrics(&figures, counters, 1);
  for (const char* line : {
           "# TYPE kelobpf_events_total counter\n",
           "kelobpf_events_total{type=\"fork\",code=\"2\"} 10\n",
           "kelobpf_events_total{type=\"dmabuf_update\",code=\"7\"} 0\n",
           "kelobpf_polls_total 2\n",
           "kelobpf_up 1\n",
           "kelobpf_scrape_errors_total 1\n",
           "kelobpf_clients_connected 3\n",
           "kelobpf_window_seconds 2\n",
           "kelobpf_event_rate{type=\"fork\",code=\"2\"} 5\n",
           "kelobpf_state_extra{name=\"normal\",section=\"KernelLost\",column=\"kmem_rss_info\"} 2\n",
           "kelobpf_state_extra{name=\"QueueTrimmed\"} 7\n",
           "kelobpf_state_extra{name=\"Odd \\\"name\\\"\"} 5\n",
       }) {
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  }
  EXPECT_EQ(text.find("no numbers"), std::string::npos);
  // Every line is a comment or "name{labels} value".
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    const std::string line = text.substr(start, end - start);
    EXPECT_TRUE(line.rfind("# ", 0) == 0 || line.find(' ') != std::string::npos) << line;
    start = end + 1;
  }

  const std::string down = RenderMetrics(nullptr, counters, 2);
  EXPECT_NE(down.find("kelobpf_up 0\n"), std::string::npos);
  EXPECT_NE(down.find("kelobpf_events_total{type=\"fork\",code=\"2\"} 10\n"), std::string::npos);
  EXPECT_EQ(down.find("kelobpf_clients_connected"), std::string::npos);
}

}  // namespace
