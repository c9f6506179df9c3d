#include "platform/text.h"

#include <cstdint>

// One conversion for every platform: wchar_t is UTF-16 on Windows and UTF-32 elsewhere, and
// malformed input gives the same U+FFFD replacements on both.

namespace lumo {
namespace {

void AppendCodePoint(std::wstring& out, uint32_t cp) {
  if (sizeof(wchar_t) == 2 && cp >= 0x10000) {
    cp -= 0x10000;
    out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out.push_back(static_cast<wchar_t>(cp));
  }
}

}  // namespace

std::wstring Utf8ToWide(const std::string& text) {
  std::wstring out;
  out.reserve(text.size());
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    unsigned char c = s[i];
    if (c < 0x80) {
      out.push_back(c);
      ++i;
      continue;
    }
    size_t len = 0;
    uint32_t cp = 0;
    uint32_t min = 0;
    if ((c & 0xE0) == 0xC0) {
      len = 2; cp = c & 0x1F; min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3; cp = c & 0x0F; min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4; cp = c & 0x07; min = 0x10000;
    }
    bool ok = len != 0 && i + len <= n;
    for (size_t k = 1; ok && k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) ok = false;
      else cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
    if (!ok) {
      out.push_back(0xFFFD);
      ++i;  // resynchronise on the next byte
      continue;
    }
    AppendCodePoint(out, cp);
    i += len;
  }
  return out;
}

std::string WideToUtf8(const std::wstring& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t cp = static_cast<uint32_t>(text[i]);
    if (sizeof(wchar_t) == 2) {
      cp &= 0xFFFF;
      if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size()) {
        uint32_t low = static_cast<uint32_t>(text[i + 1]) & 0xFFFF;
        if (low >= 0xDC00 && low <= 0xDFFF) {
          cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
    }
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

}  // namespace lumo
