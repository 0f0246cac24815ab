#include "lumo/server/open_store.h"

#include <algorithm>
#include <string>

#include "lumo/server/postgres_store.h"
#include "lumo/server/sqlite_store.h"

namespace lumo::server {

bool isPostgresUrl(std::string_view location) {
  return location.starts_with("postgresql://") || location.starts_with("postgres://");
}

std::unique_ptr<Store> openStore(const ServerConfig& config) {
  if (config.storeUrl.empty()) {
    return std::make_unique<SqliteStore>(config.dataDir);
  }
  if (!isPostgresUrl(config.storeUrl)) {
    throw StoreError("the store must be a postgresql:// URL");
  }
  return std::make_unique<PostgresStore>(config.storeUrl, std::max(config.threads, 1));
}

}  // namespace lumo::server
