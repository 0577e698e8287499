#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vexaudiodsp/Export.h"
#include "vexaudiodsp/host/Effect.h"

namespace dsp {
namespace host {

/// The process-wide list of effects a host can run by name, shared by the
/// editor, the command line, the Python module and the tests. It is filled
/// at library load by EffectRegistration objects, one beside each effect's
/// implementation, and is read-only afterwards (safe to read from any
/// thread once the library is loaded).
class VEXAUDIODSP_API EffectRegistry {
 public:
  static EffectRegistry& Instance();

  /// Adds an effect; false (and nothing added) for an empty name, a
  /// missing factory or a name already taken.
  bool Add(EffectInfo info);
  /// nullptr when no effect has that name.
  const EffectInfo* Find(const std::string& name) const;
  /// Every effect, sorted by name.
  std::vector<const EffectInfo*> All() const;
  /// Effects whose name, description or parameter ids contain `text`
  /// (case-insensitive), sorted by name.
  std::vector<const EffectInfo*> Search(const std::string& text) const;

 private:
  EffectRegistry() = default;
  std::map<std::string, std::unique_ptr<EffectInfo>> effects_;
};

/// Registers one effect at library load:
/// `const dsp::host::EffectRegistration kEq{MakeEqInfo()};`
/// A refused registration (duplicate name) aborts with a message: it is a
/// programming error that must not ship.
struct VEXAUDIODSP_API EffectRegistration {
  explicit EffectRegistration(EffectInfo info);
};

/// Builds an effect from its text form `name`, `name:` or
/// `name:key=value,key=value`: keys are parameter ids, values their text
/// form (ParamDescriptor::Parse, or a path). Unknown effect or key, a
/// repeated key, a malformed item or a refused value give nullptr and a
/// one-line reason in `error`.
VEXAUDIODSP_API std::unique_ptr<Effect> CreateEffect(const std::string& text, std::string* error);

/// The canonical text of an effect, every key spelled out in descriptor
/// order ("gain:db=-6"); CreateEffect reads it back to the same settings.
/// With `changedOnly`, keys at their default are left out (the short form a
/// listing shows; it reads back the same too).
VEXAUDIODSP_API std::string FormatEffect(const Effect& effect, bool changedOnly = false);

}  // namespace host
}  // namespace dsp
