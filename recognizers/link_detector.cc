#include "recognizers/link_detector.h"

#include <algorithm>
#include <string>
#include <utility>

#include "kit/strings.h"
#include "recognizers/detector_text.h"
#include "recognizers/regex.h"

namespace lm_detector {
namespace {

// The length of `url` without trailing sentence punctuation and quotes, and
// without closing brackets the URL does not open.
size_t trimmedURLLength(std::u16string_view url) {
  static constexpr std::u16string_view kTrailing = u".,;:!?'\"*\u2019\u201d";
  size_t length = url.size();
  while (length > 0) {
    const char16_t last = url[length - 1];
    if (kTrailing.find(last) != std::u16string_view::npos) {
      --length;
      continue;
    }
    const char16_t open = last == u')' ? u'(' : last == u']' ? u'[' : last == u'}' ? u'{' : 0;
    if (open == 0) break;
    const std::u16string_view kept = url.substr(0, length);
    if (std::count(kept.begin(), kept.end(), open) >= std::count(kept.begin(), kept.end(), last)) {
      break;
    }
    --length;
  }
  return length;
}

// True when `host` ends in a label of two or more letters ("de", "co.nz").
bool hasTopLevelDomain(std::u16string_view host) {
  const size_t dot = host.rfind(u'.');
  if (dot == std::u16string_view::npos) return false;
  const std::u16string_view label = host.substr(dot + 1);
  return label.size() >= 2 && std::all_of(label.begin(), label.end(), isLetter);
}

// A scheme and anything up to a blank, or "www." and a host name with an
// optional path; what ends a sentence is cut off in code.
const LMRegex& linkExpression() {
  static constexpr char16_t kPattern[] =
      uR"RX(
    (?<![\p{L}\d@.\-/_])
    (?:
      (?<scheme> https?:// ) [^\s<>"\x{201c}\x{201d}\x{ab}\x{bb}]++
    |
      www\. [\p{L}\d\-]++ (?: \. [\p{L}\d\-]++ )++
      (?: [/?\x{23}:] [^\s<>"\x{201c}\x{201d}\x{ab}\x{bb}]*+ )?
    )
  )RX";
  static const auto* regex = new LMRegex(kPattern, kCaseInsensitive);
  return *regex;
}

bool isASCIIAlnum(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9');
}
bool isMailLocalCharacter(char16_t c) {
  return isASCIIAlnum(c) || std::u16string_view(u"._%+-").find(c) != std::u16string_view::npos;
}
bool isMailDomainCharacter(char16_t c) { return isASCIIAlnum(c) || c == u'.' || c == u'-'; }

}  // namespace

std::vector<LMDetectedItem> findURLs(std::u16string_view text) {
  std::vector<LMDetectedItem> items;
  linkExpression().enumerateMatchesInString(text, [&](const LMRegexMatch& m, bool*) {
    const LMTextRange whole = m.range();
    const std::u16string_view url =
        slice(text, whole).substr(0, trimmedURLLength(slice(text, whole)));
    const LMTextRange scheme = m.rangeForGroupName(u"scheme");
    const size_t hostStart = scheme.found() ? scheme.length : 0;
    if (url.size() <= hostStart) return;  // "http://" alone
    const size_t hostEnd = std::min(url.find_first_of(u"/?#:", hostStart), url.size());
    const std::u16string_view host = url.substr(hostStart, hostEnd - hostStart);
    // An explicit scheme may name any host ("http://localhost/"); a bare
    // "www." name needs a top-level domain.
    if (host.empty() || (!scheme.found() && !hasTopLevelDomain(host))) return;
    LMDetectedItem item;
    item.type = LMDetectedType::kLink;
    item.range = LMTextRange::make(whole.location, url.size());
    item.link = std::u16string(url);
    items.push_back(std::move(item));
  });
  return items;
}

// Found around each "@" without a pattern: a page has few "@", and scanning
// out from each is cheaper than trying a pattern at every word.
std::vector<LMDetectedItem> findMailAddresses(std::u16string_view text,
                                              const std::vector<LMDetectedItem>& urls) {
  std::vector<LMDetectedItem> items;
  static constexpr std::u16string_view kMailto = u"mailto:";
  for (size_t at = text.find(u'@'); at != std::u16string_view::npos; at = text.find(u'@', at + 1)) {
    size_t start = at;
    while (start > 0 && isMailLocalCharacter(text[start - 1])) --start;
    while (start < at && text[start] == u'.') ++start;
    size_t end = at + 1;
    while (end < text.size() && isMailDomainCharacter(text[end])) ++end;
    while (end > at + 1 && (text[end - 1] == u'.' || text[end - 1] == u'-')) --end;
    if (start == at || end == at + 1) continue;
    const std::u16string_view local = text.substr(start, at - start);
    const std::u16string_view domain = text.substr(at + 1, end - at - 1);
    if (local.back() == u'.' || domain.front() == u'.' || domain.front() == u'-' ||
        domain.find(u"..") != std::u16string_view::npos || !hasTopLevelDomain(domain)) {
      continue;
    }
    // Glued to a further "@" ("a@b.de@c"): not one address.
    if ((end < text.size() && text[end] == u'@') || (start > 0 && text[start - 1] == u'@')) {
      continue;
    }
    size_t rangeStart = start;
    if (start >= kMailto.size() &&
        lmLower(text.substr(start - kMailto.size(), kMailto.size())) == kMailto) {
      rangeStart = start - kMailto.size();
    }
    const LMTextRange range = LMTextRange::make(rangeStart, end - rangeStart);
    if (std::any_of(urls.begin(), urls.end(),
                    [&](const LMDetectedItem& url) { return url.range.intersects(range); })) {
      continue;
    }
    LMDetectedItem item;
    item.type = LMDetectedType::kLink;
    item.range = range;
    item.link = std::u16string(kMailto) + std::u16string(text.substr(start, end - start));
    items.push_back(std::move(item));
  }
  return items;
}

void prepareLinks() { linkExpression(); }

}  // namespace lm_detector
