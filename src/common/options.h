#pragma once

#include <memory>
#include <optional>
#include <string>

#include "lumo/detail/json.h"
#include "lumo/image_match_settings.h"

namespace lumo {

// How the server treats one checkpoint: its name, four match flags and its comparison
// settings. Immutable after construction; the settings are shared, not copied.
class Options {
 public:
  Options(std::optional<std::string> name, bool ignoreMismatch, bool ignoreMatch,
          bool forceMismatch, bool forceMatch,
          std::shared_ptr<ImageMatchSettings> imageMatchSettings);

  const std::optional<std::string>& name() const { return name_; }
  bool ignoreMismatch() const { return ignoreMismatch_; }
  bool ignoreMatch() const { return ignoreMatch_; }
  bool forceMismatch() const { return forceMismatch_; }
  bool forceMatch() const { return forceMatch_; }
  const std::shared_ptr<ImageMatchSettings>& imageMatchSettings() const {
    return imageMatchSettings_;
  }

  // Always the six keys "name", "ignoreMismatch", "ignoreMatch", "forceMismatch",
  // "forceMatch", "imageMatchSettings". Throws an "IllegalArgumentException" Exception when the
  // name or the settings are missing: the server needs both.
  Json dictionary() const;

 private:
  std::optional<std::string> name_;
  bool ignoreMismatch_;
  bool ignoreMatch_;
  bool forceMismatch_;
  bool forceMatch_;
  std::shared_ptr<ImageMatchSettings> imageMatchSettings_;
};

}  // namespace lumo
