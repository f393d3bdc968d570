// Conversions between UTF-8 and the UTF-16 text used everywhere in this system.
#pragma once
#include <optional>
#include <string>
#include <string_view>

// UTF-16 to UTF-8. Unpaired surrogates become U+FFFD. Never fails.
std::string lmUtf8(std::u16string_view text);

// UTF-8 to UTF-16; invalid byte sequences become U+FFFD. Never fails.
std::u16string lmUtf16(std::string_view utf8);

// UTF-8 to UTF-16, or nullopt when `utf8` is not valid UTF-8 (overlong
// forms, surrogates and values above U+10FFFF are invalid).
std::optional<std::u16string> lmUtf16Strict(std::string_view utf8);
