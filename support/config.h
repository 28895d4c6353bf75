// Numeric configuration values by name, and the in-memory store behind them.
//
// The store keeps texts under (focus, section, name); the focus is the instance of the server that the
// process runs as. Every lookup is made afresh, so a changed value counts from the next lookup on. All
// operations may be called from any thread.
#pragma once

#include <string>

#include "support/export.h"

namespace ObjectStore {

// The section in which the cache looks its values up.
inline constexpr const char* CONFIG_SECTION = "~Wolk";

// The instance of the server that this process is.
class DISKCACHE_EXPORT KXPI_Focus {
 public:
  // Valid until the next setProcessFocus; "Instance001" until the first.
  static const char* getFocus();
  // Set once by the hosting process before it starts engines.
  static void setProcessFocus(const std::string& focus);
};

// A handle on the store, made for one lookup and used by one thread.
class DISKCACHE_EXPORT KXPlatformInfo {
 public:
  KXPlatformInfo() = default;

  // Directs later lookups of this handle to an instance; `focus` must outlive them.
  void setFocus(const char* focus) { m_focus = focus; }
  // Copies the value's text into `buffer` and ends it with a zero byte; what does not fit in `*size` bytes
  // is cut. Returns 1 and sets `*size` to the bytes copied, the zero not counted, and `type` to 1 (text);
  // returns 0 when there is no such value.
  int getRegValue(const char* section, const char* name, unsigned int* size, void* buffer, int& type) const;

 private:
  const char* m_focus = "";
};

// What the hosting process puts into the store.
struct DISKCACHE_EXPORT ConfigStore {
  // For the instance that this process is.
  static void set(const std::string& section, const std::string& name, const std::string& value);
  static void unset(const std::string& section, const std::string& name);
  // Empties the store for every instance.
  static void clear();

  // Adds the values of a file: lines `[section]` and `name = value`, '#' and ';' begin a comment line,
  // blanks around names and values do not count. Returns 0, or an error number with the reason in `error`
  // (file, line, what is wrong); the store is then left as it was.
  static int loadFile(const std::string& path, std::string& error);
};

// The value `name` of the cache's section as a number. Leading white space is skipped and digits count as
// far as they go. An absent value gives `defaultValue`; so does a text that is no number, with one error
// line. The two bounds are taken and not applied, on purpose: callers clamp by their own rules.
template <typename T>
T getRegistryValue(const char* name, T defaultValue, T minValue, T maxValue);

template <>
DISKCACHE_EXPORT unsigned long getRegistryValue<unsigned long>(const char* name, unsigned long defaultValue,
                                                               unsigned long minValue,
                                                               unsigned long maxValue);

}  // namespace ObjectStore
