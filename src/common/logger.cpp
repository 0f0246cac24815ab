#include "common/logger.h"

#include "lumo/system_log.h"

namespace lumo {

void Logger::log(std::string_view message) { systemLog(fmt::format("{} {}", kTag, message)); }

}  // namespace lumo
