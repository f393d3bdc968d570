#include "recognizers/pattern_escaping.h"

std::u16string lmEscapedPatternForString(std::u16string_view text) {
  static constexpr std::u16string_view kSpecial = u"*?+[(){}^$|\\./";
  std::u16string escaped;
  escaped.reserve(text.size());
  for (char16_t c : text) {
    if (kSpecial.find(c) != std::u16string_view::npos) escaped.push_back(u'\\');
    escaped.push_back(c);
  }
  return escaped;
}
