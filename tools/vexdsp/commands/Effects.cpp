// vexdsp effects: every registered effect with its parameters, as text or
// JSON, optionally narrowed by a search word.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "vexaudiodsp/host/EffectRegistry.h"

namespace vexdsp {
namespace {

using dsp::host::EffectInfo;
using dsp::host::ParamDescriptor;
using dsp::host::ParamKind;

nlohmann::json ToJson(const ParamDescriptor& param) {
  nlohmann::json out{{"id", param.id},
                     {"name", param.name},
                     {"unit", param.unit},
                     {"kind", dsp::host::ToString(param.kind)},
                     {"scale", dsp::host::ToString(param.scale)},
                     {"description", param.description},
                     {"rebuilds_state", param.rebuildsState}};
  if (param.kind != ParamKind::kPath) {
    out["minimum"] = param.minimum;
    out["maximum"] = param.maximum;
    out["default"] = param.defaultValue;
    out["default_text"] = param.Format(param.defaultValue);
  }
  if (param.kind == ParamKind::kChoice) {
    out["choices"] = param.choices;
  }
  return out;
}

nlohmann::json ToJson(const EffectInfo& info) {
  nlohmann::json params = nlohmann::json::array();
  for (const ParamDescriptor& param : info.params) {
    params.push_back(ToJson(param));
  }
  return {{"name", info.name},
          {"description", info.description},
          {"note", info.note},
          {"channels", {{"minimum", info.io.minChannels}, {"maximum", info.io.maxChannels}}},
          {"sample_rate", {{"minimum", info.io.minSampleRate}, {"maximum", info.io.maxSampleRate}}},
          {"accepts", info.io.Describe()},
          {"parameters", params}};
}

class EffectsCommand final : public Command {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("SEARCH", search_, "Only effects whose name, description or keys contain this word");
    app.add_flag("--json", json_, "Print one JSON array with every descriptor field");
  }

  int Run() override {
    const auto& registry = dsp::host::EffectRegistry::Instance();
    const std::vector<const EffectInfo*> effects = search_.empty() ? registry.All() : registry.Search(search_);
    if (json_) {
      nlohmann::json out = nlohmann::json::array();
      for (const EffectInfo* info : effects) {
        out.push_back(ToJson(*info));
      }
      std::printf("%s\n", out.dump(2).c_str());
      return 0;
    }
    for (const EffectInfo* info : effects) {
      std::printf("%s\n  %s\n", info->name.c_str(), info->description.c_str());
      for (const ParamDescriptor& param : info->params) {
        const std::string value = param.kind == ParamKind::kPath ? "PATH" : param.Format(param.defaultValue);
        std::printf("  %s:%s=%s  %s; %s", info->name.c_str(), param.id.c_str(), value.c_str(),
                    param.description.c_str(), param.DescribeRange().c_str());
        if (param.kind != ParamKind::kPath) {
          std::printf(", default %s", param.Format(param.defaultValue).c_str());
        }
        std::printf("\n");
      }
      std::printf("  takes %s\n", info->io.Describe().c_str());
      if (!info->note.empty()) {
        std::printf("  %s\n", info->note.c_str());
      }
      std::printf("\n");
    }
    if (effects.empty()) {
      std::printf("No effect matches '%s'.\n", search_.c_str());
      return 1;
    }
    std::printf("Use as name:key=value,key=value; a bare name takes every default.\n");
    return 0;
  }

 private:
  std::string search_;
  bool json_ = false;
};

const CommandRegistration kEffects{"effects", "List the effects with their keys, units, ranges and defaults.",
                                   [] { return std::make_unique<EffectsCommand>(); }};

}  // namespace
}  // namespace vexdsp
