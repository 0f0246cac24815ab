#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "lumo/image.h"

namespace lumo::server::detail {

// Decoded baseline images by content hash, least recently used dropped first once their
// pixels pass a byte budget. A hash names its bytes for good, so an entry is never stale and
// one cache serves every session. Thread-safe; an image handed out stays valid after the
// cache drops it.
class BaselineCache {
 public:
  // `capacityBytes` 0 disables the cache.
  explicit BaselineCache(std::size_t capacityBytes);
  BaselineCache(const BaselineCache&) = delete;
  BaselineCache& operator=(const BaselineCache&) = delete;

  using Loader = std::function<std::shared_ptr<const Image>()>;

  // The image under `hash`, from the cache or else from `load` (called without the lock
  // held; a null result is not cached). An image larger than the whole budget is not kept.
  std::shared_ptr<const Image> get(const std::string& hash, const Loader& load);

  std::size_t bytes() const;
  std::uint64_t hits() const;
  std::uint64_t misses() const;

 private:
  struct Entry {
    std::string hash;
    std::shared_ptr<const Image> image;
    std::size_t bytes = 0;
  };

  void insert(const std::string& hash, std::shared_ptr<const Image> image);

  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::list<Entry> order_;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
  std::size_t bytes_ = 0;
  std::uint64_t hits_ = 0;
  std::uint64_t misses_ = 0;
};

}  // namespace lumo::server::detail
