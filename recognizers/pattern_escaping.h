// Escaping of literal text for use inside a regular-expression pattern.
#pragma once
#include <string>
#include <string_view>

// `text` with a backslash before each of the characters * ? + [ ( ) { } ^ $ | \ . /
// so that the result matches `text` literally. Nothing else is escaped: in
// particular blanks and "#" stay as they are, so a result that holds either
// is not literal inside a free-spacing pattern.
std::u16string lmEscapedPatternForString(std::u16string_view text);
