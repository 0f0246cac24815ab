#include "common/options.h"

#include <utility>

#include "lumo/exception.h"

namespace lumo {

Options::Options(std::optional<std::string> name, bool ignoreMismatch, bool ignoreMatch,
                 bool forceMismatch, bool forceMatch,
                 std::shared_ptr<ImageMatchSettings> imageMatchSettings)
    : name_(std::move(name)),
      ignoreMismatch_(ignoreMismatch),
      ignoreMatch_(ignoreMatch),
      forceMismatch_(forceMismatch),
      forceMatch_(forceMatch),
      imageMatchSettings_(std::move(imageMatchSettings)) {}

Json Options::dictionary() const {
  if (!name_) {
    throw illegalArgumentException("The match options have no value for \"name\"");
  }
  if (!imageMatchSettings_) {
    throw illegalArgumentException("The match options have no value for \"imageMatchSettings\"");
  }
  return Json{{"name", *name_},
              {"ignoreMismatch", ignoreMismatch_},
              {"ignoreMatch", ignoreMatch_},
              {"forceMismatch", forceMismatch_},
              {"forceMatch", forceMatch_},
              {"imageMatchSettings", imageMatchSettings_->dictionary()}};
}

}  // namespace lumo
