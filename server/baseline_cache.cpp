#include "baseline_cache.h"

namespace lumo::server::detail {

BaselineCache::BaselineCache(std::size_t capacityBytes) : capacity_(capacityBytes) {}

std::shared_ptr<const Image> BaselineCache::get(const std::string& hash, const Loader& load) {
  {
    std::lock_guard lock(mutex_);
    if (const auto it = index_.find(hash); it != index_.end()) {
      order_.splice(order_.begin(), order_, it->second);
      ++hits_;
      return it->second->image;
    }
    ++misses_;
  }
  // Decoding takes tens of milliseconds: other sessions must not wait for it. Two sessions
  // missing the same hash at once both decode it, and the second insert finds it present.
  std::shared_ptr<const Image> image = load();
  if (image) {
    insert(hash, image);
  }
  return image;
}

void BaselineCache::insert(const std::string& hash, std::shared_ptr<const Image> image) {
  const std::size_t size = image->pixels().size();
  if (size > capacity_) {
    return;
  }
  std::lock_guard lock(mutex_);
  if (index_.contains(hash)) {
    return;
  }
  while (bytes_ + size > capacity_) {
    bytes_ -= order_.back().bytes;
    index_.erase(order_.back().hash);
    order_.pop_back();
  }
  order_.push_front({hash, std::move(image), size});
  index_.emplace(hash, order_.begin());
  bytes_ += size;
}

std::size_t BaselineCache::bytes() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

std::uint64_t BaselineCache::hits() const {
  std::lock_guard lock(mutex_);
  return hits_;
}

std::uint64_t BaselineCache::misses() const {
  std::lock_guard lock(mutex_);
  return misses_;
}

}  // namespace lumo::server::detail
