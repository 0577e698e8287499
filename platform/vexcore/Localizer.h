#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

#include "vexcore/Export.h"

namespace vexcore {
namespace config {

/// Looks up user-visible strings by key. Keys have the form
/// "$$$/Path/Name=Default text": the part before '=' is the key, the part
/// after it is shown when no translation for the key is loaded. Translations
/// are loaded from "key=text" lines. All text is UTF-8 in and wide (UTF-32 on
/// this platform) out; malformed UTF-8 decodes to U+FFFD. Thread-safe (one
/// mutex) and allocating; not for audio paths.
class VEX_API Localizer {
 public:
  /// The process-wide instance.
  static Localizer& Get();

  /// Translation of `keyWithDefault`, or its default text. A string without
  /// '=' is its own default.
  std::wstring Localize(const std::string& keyWithDefault) const;

  /// Adds (or replaces) translations from UTF-8 text of "key=text" lines;
  /// blank lines and lines starting with '#' are skipped. The key is the text
  /// before the first '=' with surrounding blanks removed; lines with no '='
  /// or an empty key are skipped. Line ends may be "\n" or "\r\n"; a leading
  /// byte-order mark is ignored. A key given twice keeps its last text.
  /// Returns the number of lines taken as translations.
  int LoadTranslations(const std::string& text);
  /// Forgets every loaded translation.
  void Clear();

 private:
  Localizer() = default;
  Localizer(const Localizer&) = delete;
  Localizer& operator=(const Localizer&) = delete;

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::wstring> translations_;
};

}  // namespace config
}  // namespace vexcore
