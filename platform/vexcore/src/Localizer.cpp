#include "vexcore/Localizer.h"

#include <cstdint>
#include <new>

namespace vexcore {
namespace config {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendCodePoint(std::wstring& out, char32_t cp) {
  if constexpr (sizeof(wchar_t) >= 4) {
    out.push_back(static_cast<wchar_t>(cp));
  } else {
    if (cp < 0x10000) {
      out.push_back(static_cast<wchar_t>(cp));
    } else {
      cp -= 0x10000;
      out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
    }
  }
}

// Strict decoding: overlong forms, surrogates and values beyond U+10FFFF are
// replaced, and a broken sequence costs only the bytes examined so far, so the
// character after it survives.
std::wstring DecodeUtf8(const char* text, std::size_t length) {
  std::wstring out;
  out.reserve(length);
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* const end = p + length;
  while (p < end) {
    const unsigned char lead = *p++;
    if (lead < 0x80) {
      out.push_back(static_cast<wchar_t>(lead));
      continue;
    }
    int trailing;
    char32_t cp;
    char32_t minimum;
    if (lead >= 0xC2 && lead <= 0xDF) {
      trailing = 1;
      cp = lead & 0x1F;
      minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      trailing = 2;
      cp = lead & 0x0F;
      minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      trailing = 3;
      cp = lead & 0x07;
      minimum = 0x10000;
    } else {
      AppendCodePoint(out, kReplacement);
      continue;
    }
    bool valid = true;
    for (int i = 0; i < trailing; ++i) {
      if (p == end || (*p & 0xC0) != 0x80) {
        valid = false;
        break;
      }
      cp = (cp << 6) | (*p++ & 0x3F);
    }
    if (valid && (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) valid = false;
    AppendCodePoint(out, valid ? cp : kReplacement);
  }
  return out;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string TrimmedKey(const std::string& text, std::size_t begin, std::size_t end) {
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

}  // namespace

Localizer& Localizer::Get() {
  // Never destroyed, so code running during process exit can still localize.
  alignas(Localizer) static unsigned char storage[sizeof(Localizer)];
  static Localizer* const instance = new (storage) Localizer();
  return *instance;
}

std::wstring Localizer::Localize(const std::string& keyWithDefault) const {
  const std::size_t equals = keyWithDefault.find('=');
  const std::string key = TrimmedKey(keyWithDefault, 0, equals == std::string::npos ? keyWithDefault.size() : equals);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = translations_.find(key);
    if (found != translations_.end()) return found->second;
  }
  if (equals == std::string::npos) return DecodeUtf8(keyWithDefault.data(), keyWithDefault.size());
  return DecodeUtf8(keyWithDefault.data() + equals + 1, keyWithDefault.size() - equals - 1);
}

int Localizer::LoadTranslations(const std::string& text) {
  std::size_t pos = 0;
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) pos = 3;

  // Parsed outside the lock; the table is only touched for the final merge.
  std::unordered_map<std::string, std::wstring> parsed;
  int taken = 0;
  while (pos < text.size()) {
    std::size_t lineEnd = text.find('\n', pos);
    if (lineEnd == std::string::npos) lineEnd = text.size();
    std::size_t contentEnd = lineEnd;
    if (contentEnd > pos && text[contentEnd - 1] == '\r') --contentEnd;

    std::size_t first = pos;
    while (first < contentEnd && IsBlank(text[first])) ++first;
    const bool skipped = first == contentEnd || text[first] == '#';
    const std::size_t equals = skipped ? std::string::npos : text.find('=', first);
    if (!skipped && equals < contentEnd) {
      std::string key = TrimmedKey(text, first, equals);
      if (!key.empty()) {
        parsed[std::move(key)] = DecodeUtf8(text.data() + equals + 1, contentEnd - equals - 1);
        ++taken;
      }
    }
    pos = lineEnd + 1;
  }

  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : parsed) translations_[entry.first] = std::move(entry.second);
  return taken;
}

void Localizer::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  translations_.clear();
}

}  // namespace config
}  // namespace vexcore
