// A page of metrics in Prometheus' text format, fetched over HTTP.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace diskcachectl {

class MetricsPage {
 public:
  // Lines that make no sense are passed over: a page may hold what this tool does not know.
  explicit MetricsPage(std::string_view text);

  // The sum over all labels, or over those whose text holds `label`; none when there is no such metric.
  std::optional<double> sum(std::string_view name, std::string_view label = "") const;
  // Each value by the text of its labels, as "directory=\"/a\"".
  const std::map<std::string, double>& of(const std::string& name) const;

 private:
  std::map<std::string, std::map<std::string, double>, std::less<>> m_values;
};

// The value of one label in such a text; empty when there is none.
std::string labelOf(std::string_view labels, std::string_view name);

// A client that keeps its connection. Used by one thread.
class HttpClient {
 public:
  HttpClient();
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // The answer's body. Throws a Failure that names the URL for anything but a 200 within 5 s.
  std::string get(const std::string& url);

 private:
  void* const m_curl;
};

}  // namespace diskcachectl
