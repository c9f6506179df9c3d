// UTF-8 and wide text. Malformed UTF-8 becomes U+FFFD; nothing here reads past its input.
#pragma once

#include <string>

namespace lumo {
std::wstring Utf8ToWide(const std::string& text);
std::string WideToUtf8(const std::wstring& text);
}  // namespace lumo
