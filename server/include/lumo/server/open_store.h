#pragma once

#include <memory>
#include <string_view>

#include "lumo/server/server.h"
#include "lumo/server/store.h"

namespace lumo::server {

// True for a store location naming PostgreSQL: a postgresql:// or postgres:// URL.
bool isPostgresUrl(std::string_view location);

// The store a server with `config` keeps its data in: PostgreSQL when `config.storeUrl` is
// given (one connection per request thread at most), SQLite under `config.dataDir`
// otherwise. Throws StoreError when it cannot be opened or the URL is of another kind.
std::unique_ptr<Store> openStore(const ServerConfig& config);

}  // namespace lumo::server
