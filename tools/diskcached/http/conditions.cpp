#include "http/conditions.h"

#include <algorithm>
#include <string>

#include "http/httpDate.h"

namespace diskcached {
namespace {

enum class Comparison { Strong, Weak };

std::string_view opaque(std::string_view tag) { return tag.starts_with("W/") ? tag.substr(2) : tag; }

bool isSame(std::string_view a, std::string_view b, Comparison comparison) {
  if (comparison == Comparison::Strong && (a.starts_with("W/") || b.starts_with("W/"))) return false;
  return !a.empty() && opaque(a) == opaque(b);
}

// Whether a list of tags names this one; a comma may stand within a tag's quotes.
bool names(std::string_view list, std::string_view etag, Comparison comparison) {
  while (!list.empty()) {
    if (list.front() == ' ' || list.front() == '\t' || list.front() == ',') {
      list.remove_prefix(1);
      continue;
    }
    if (list == "*") return true;
    const size_t quote = list.starts_with("W/\"") ? 2 : 0;
    size_t end = list.find(',');
    if (list[quote] == '"') {
      end = list.find('"', quote + 1);
      if (end != std::string_view::npos) ++end;
    }
    end = std::min(end, list.size());
    std::string_view tag = list.substr(0, end);
    while (!tag.empty() && (tag.back() == ' ' || tag.back() == '\t')) tag.remove_suffix(1);
    if (isSame(tag, etag, comparison)) return true;
    list.remove_prefix(end);
  }
  return false;
}

// Whether the object changed after a date that a client names; a wrong date counts as none.
bool isNoLaterThan(std::string_view lastModified, std::string_view date, bool otherwise) {
  const auto changed = parseHttpDate(std::string(lastModified)), known = parseHttpDate(std::string(date));
  return changed && known ? *changed <= *known : otherwise;
}

}  // namespace

Verdict judge(const Conditions& conditions, std::string_view etag, std::string_view lastModified) {
  if (!conditions.ifMatch.empty()) {
    if (!names(conditions.ifMatch, etag, Comparison::Strong)) return Verdict::Failed;
  } else if (!conditions.ifUnmodifiedSince.empty() &&
             !isNoLaterThan(lastModified, conditions.ifUnmodifiedSince, true)) {
    return Verdict::Failed;
  }
  if (!conditions.ifNoneMatch.empty())
    return names(conditions.ifNoneMatch, etag, Comparison::Weak) ? Verdict::NotModified : Verdict::Proceed;
  if (!conditions.ifModifiedSince.empty() && isNoLaterThan(lastModified, conditions.ifModifiedSince, false))
    return Verdict::NotModified;
  return Verdict::Proceed;
}

bool mayAnswerPart(std::string_view ifRange, std::string_view etag, std::string_view lastModified,
                   std::time_t lookedAt) {
  if (ifRange.empty()) return true;
  if (ifRange.ends_with('"')) return isSame(ifRange, etag, Comparison::Strong);
  const auto changed = parseHttpDate(std::string(lastModified));
  return ifRange == lastModified && changed && *changed < lookedAt;
}

}  // namespace diskcached
