#include "live/metricsPage.h"

#include <curl/curl.h>
#include <fmt/core.h>

#include <cstdlib>

#include "common/failure.h"

namespace diskcachectl {

namespace {

constexpr long TIMEOUT_S = 5;
constexpr size_t MAX_PAGE = size_t{64} << 20;

size_t append(char* bytes, size_t, size_t count, void* page) {
  auto& text = *static_cast<std::string*>(page);
  if (text.size() + count > MAX_PAGE) return 0;
  text.append(bytes, count);
  return count;
}

// Where the labels end: a brace in a value does not count.
size_t endOfLabels(std::string_view line, size_t begin) {
  bool isQuoted = false;
  for (size_t at = begin; at < line.size(); ++at) {
    if (isQuoted && line[at] == '\\') {
      ++at;
    } else if (line[at] == '"') {
      isQuoted = !isQuoted;
    } else if (line[at] == '}' && !isQuoted) {
      return at;
    }
  }
  return std::string_view::npos;
}

}  // namespace

MetricsPage::MetricsPage(std::string_view text) {
  while (!text.empty()) {
    const size_t feed = text.find('\n');
    const std::string_view line = text.substr(0, feed);
    text.remove_prefix(feed == std::string_view::npos ? text.size() : feed + 1);
    if (line.empty() || line.front() == '#') continue;
    size_t nameEnd = line.find_first_of("{ ");
    if (nameEnd == std::string_view::npos) continue;
    std::string labels;
    size_t valueAt = nameEnd;
    if (line[nameEnd] == '{') {
      const size_t end = endOfLabels(line, nameEnd);
      if (end == std::string_view::npos) continue;
      labels = line.substr(nameEnd + 1, end - nameEnd - 1);
      valueAt = end + 1;
    }
    const std::string value(line.substr(valueAt));
    char* end = nullptr;
    const double number = std::strtod(value.c_str(), &end);
    if (end != value.c_str()) m_values[std::string(line.substr(0, nameEnd))][labels] = number;
  }
}

std::optional<double> MetricsPage::sum(std::string_view name, std::string_view label) const {
  const auto metric = m_values.find(name);
  if (metric == m_values.end()) return std::nullopt;
  std::optional<double> total;
  for (const auto& [labels, value] : metric->second) {
    if (labels.find(label) != std::string::npos) total = total.value_or(0) + value;
  }
  return total;
}

const std::map<std::string, double>& MetricsPage::of(const std::string& name) const {
  static const std::map<std::string, double> NONE;
  const auto metric = m_values.find(name);
  return metric == m_values.end() ? NONE : metric->second;
}

std::string labelOf(std::string_view labels, std::string_view name) {
  const std::string front = std::string(name) + "=\"";
  size_t at = labels.find(front);
  if (at == std::string_view::npos) return "";
  std::string value;
  for (at += front.size(); at < labels.size() && labels[at] != '"'; ++at) {
    if (labels[at] == '\\' && at + 1 < labels.size()) ++at;
    value += labels[at];
  }
  return value;
}

HttpClient::HttpClient() : m_curl(curl_easy_init()) {
  if (m_curl == nullptr) throw Failure(ExitStatus::Error, "cannot start an HTTP client");
}

HttpClient::~HttpClient() { curl_easy_cleanup(m_curl); }

std::string HttpClient::get(const std::string& url) {
  std::string page;
  const std::string address = url.find("://") == std::string::npos ? "http://" + url : url;
  curl_easy_setopt(m_curl, CURLOPT_URL, address.c_str());
  curl_easy_setopt(m_curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(m_curl, CURLOPT_PROXY, "");  // a server of one's own is asked itself
  curl_easy_setopt(m_curl, CURLOPT_TIMEOUT, TIMEOUT_S);
  curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, static_cast<void*>(&page));
  const CURLcode rc = curl_easy_perform(m_curl);
  if (rc == CURLE_URL_MALFORMAT || rc == CURLE_UNSUPPORTED_PROTOCOL) {
    throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", url, curl_easy_strerror(rc)));
  }
  if (rc != CURLE_OK) throw Failure(ExitStatus::Error, fmt::format("{}: {}", url, curl_easy_strerror(rc)));
  long status = 0;
  curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &status);
  if (status != 200) throw Failure(ExitStatus::Error, fmt::format("{}: HTTP status {}", url, status));
  return page;
}

}  // namespace diskcachectl
