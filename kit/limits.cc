#include "kit/limits.h"

#include "kit/unicode.h"

std::u16string lmLimitMessage(int64_t count, std::u16string_view what) {
  std::u16string message = u"Document too large: more than " + lmUtf16(std::to_string(count));
  message += u' ';
  message += what;
  return message;
}
