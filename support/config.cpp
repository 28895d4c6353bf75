#include "support/config.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <string_view>
#include <tuple>
#include <vector>

#include "support/atomicCounter.h"
#include "support/file.h"
#include "support/lock.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr int CONFIG_TYPE_TEXT = 1;

using Key = std::tuple<std::string, std::string, std::string>;  // focus, section, name
using KeyView = std::tuple<std::string_view, std::string_view, std::string_view>;

// Compares views, so that a lookup copies none of its three texts.
struct ByParts {
  using is_transparent = void;
  bool operator()(const KeyView& a, const KeyView& b) const { return a < b; }
};

struct Store {
  KxCriticalSection lock;
  std::map<Key, std::string, ByParts> values DC_GUARDED_BY(lock);
  RelaxedAtomic<size_t> count{0};  // of values: most processes have none, and then no lookup takes the lock
  std::string focus = "Instance001";  // constant once engines run
};

// Made at the first use and never destroyed: threads of the process may look values up until its last moment.
Store& store() {
  static Store& instance = *new Store;
  return instance;
}

std::string_view trimmed(std::string_view text) {
  const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

// Reads an unsigned number as formatted stream input does: white space, a sign, then digits as far as they
// go. A minus negates modulo 2^64; no digit or a value of more than 64 bits fails.
bool extractNumber(std::string_view text, unsigned long& value) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0) text.remove_prefix(1);
  const bool negative = !text.empty() && text.front() == '-';
  if (negative || (!text.empty() && text.front() == '+')) text.remove_prefix(1);
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (code != std::errc{}) return false;
  if (negative) value = 0UL - value;
  return true;
}

}  // namespace

const char* KXPI_Focus::getFocus() { return store().focus.c_str(); }
void KXPI_Focus::setProcessFocus(const std::string& focus) { store().focus = focus; }

int KXPlatformInfo::getRegValue(const char* section, const char* name, unsigned int* size, void* buffer,
                                int& type) const {
  if (*size == 0) return 0;
  const KxCriticalSectionLock lock(&store().lock);
  const auto found = store().values.find(KeyView(m_focus, section, name));
  if (found == store().values.end()) return 0;
  const size_t copied = std::min<size_t>(found->second.size(), *size - 1);
  std::memcpy(buffer, found->second.data(), copied);
  static_cast<char*>(buffer)[copied] = '\0';
  *size = static_cast<unsigned int>(copied);
  type = CONFIG_TYPE_TEXT;
  return 1;
}

void ConfigStore::set(const std::string& section, const std::string& name, const std::string& value) {
  const KxCriticalSectionLock lock(&store().lock);
  store().values[{store().focus, section, name}] = value;
  store().count = store().values.size();
}

void ConfigStore::unset(const std::string& section, const std::string& name) {
  const KxCriticalSectionLock lock(&store().lock);
  store().values.erase({store().focus, section, name});
  store().count = store().values.size();
}

void ConfigStore::clear() {
  const KxCriticalSectionLock lock(&store().lock);
  store().values.clear();
  store().count = 0;
}

int ConfigStore::loadFile(const std::string& path, std::string& error) {
  std::string content;
  if (const int rc = readWholeFile(path, content); rc != 0) {
    error = path + ": " + std::strerror(rc);
    return rc;
  }
  std::vector<std::tuple<std::string, std::string, std::string>> read;  // section, name, value
  std::string section;
  size_t number = 0;
  for (std::string_view rest = content; !rest.empty();) {
    const std::string_view line = trimmed(takeLine(rest));
    ++number;
    if (line.empty() || line.front() == '#' || line.front() == ';') continue;
    const size_t equals = line.find('=');
    if (line.front() == '[' && line.back() == ']') {
      section = trimmed(line.substr(1, line.size() - 2));
    } else if (equals == std::string_view::npos || trimmed(line.substr(0, equals)).empty() ||
               section.empty()) {
      error = path + ":" + std::to_string(number) + ": expected [section] or, below one, name = value";
      return EINVAL;
    } else {
      read.emplace_back(section, trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }
  }
  const KxCriticalSectionLock lock(&store().lock);  // a lookup sees all of the file or nothing
  for (const auto& [inSection, name, value] : read) set(inSection, name, value);
  return 0;
}

template <>
unsigned long getRegistryValue<unsigned long>(const char* name, unsigned long defaultValue,
                                              unsigned long /*minValue*/, unsigned long /*maxValue*/) {
  if (store().count == 0) return defaultValue;
  KXPlatformInfo info;
  info.setFocus(KXPI_Focus::getFocus());
  std::array<char, 32> text;
  auto size = static_cast<unsigned int>(text.size());
  int type = 0;
  if (info.getRegValue(CONFIG_SECTION, name, &size, text.data(), type) != 1) return defaultValue;
  unsigned long value = 0;
  if (!extractNumber({text.data(), size}, value)) {
    DC_LOG(LogLevel::Error, "Error: Can't parse [%s]: [%s]", name, text.data());
    return defaultValue;
  }
  return value;
}

}  // namespace ObjectStore
