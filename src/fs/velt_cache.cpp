// Sector cache: copies of recently written sectors, found through chained hash buckets and
// replaced first-in first-out through a ring of entry pointers. Filled only by writes.
#include <cstdlib>
#include <cstring>

#include "fs/velt.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

int32_t bucketCountFor(int64_t size_bytes, int32_t previous) {
  int64_t wanted = size_bytes / 1024;
  int32_t buckets = previous;
  if (wanted > 0) {
    int64_t p = 1;
    while (p * 2 <= wanted) p *= 2;
    buckets = static_cast<int32_t>(p);
  }
  return buckets < 1024 ? 1024 : buckets;
}

}  // namespace

uint32_t VELT::cacheHash(uint32_t a) {
  a = (a + 0x7ED55D16u) + (a << 12);
  a = (a ^ 0xC761C23Cu) ^ (a >> 19);
  a = (a + 0x165667B1u) + (a << 5);
  a = (a + 0xD3A2646Cu) ^ (a << 9);
  a = (a + 0xFD7046C5u) + (a << 3);
  a = (a ^ 0xB55A4F09u) ^ (a >> 16);
  return a;
}

int VELT::__createCache(int64_t size_bytes) {
  if (cache_pool_ != nullptr) return -1;
  int64_t entries = size_bytes / VELT_SECTOR_SIZE;
  if (entries > INT32_MAX - 1) entries = INT32_MAX - 1;
  cache_size_ = static_cast<int32_t>(entries);
  cache_hash_size_ = bucketCountFor(size_bytes, cache_hash_size_);
  if (cache_size_ < 1) {
    cache_size_ = 0;
    cache_hash_size_ = 0;
    return -1;
  }
  cache_pool_ = static_cast<CacheEntry*>(calloc(cache_size_, sizeof(CacheEntry)));
  if (cache_pool_ == nullptr) NERIO_ASSERT_TEXT("cache_pool_ != nullptr");
  if (cache_pool_ != nullptr) {
    cache_lrus_ = static_cast<CacheEntry**>(calloc(cache_size_ + 1, sizeof(CacheEntry*)));
    if (cache_lrus_ == nullptr) NERIO_ASSERT_TEXT("cache_lrus_ != nullptr");
  }
  if (cache_lrus_ != nullptr) {
    cache_hash_table_ = static_cast<CacheEntry**>(calloc(cache_hash_size_, sizeof(CacheEntry*)));
    if (cache_hash_table_ == nullptr) NERIO_ASSERT_TEXT("cache_hash_table_ != nullptr");
  }
  if (cache_hash_table_ == nullptr) {
    free(cache_pool_);
    free(cache_lrus_);
    cache_pool_ = nullptr;
    cache_lrus_ = nullptr;
    cache_size_ = 0;
    cache_hash_size_ = 0;
    return -1;
  }
  next_cache_entry_ = cache_pool_;
  start_lru_index_ = 0;
  end_lru_index_ = 0;
  return 0;
}

int VELT::createCache(int64_t size_bytes) {
  std::lock_guard<std::mutex> lock(cache_mutex_);
  return __createCache(size_bytes);
}

void VELT::__destroyCache() {
  if (cache_pool_ == nullptr) return;
  free(cache_pool_);
  free(cache_lrus_);
  free(cache_hash_table_);
  cache_pool_ = nullptr;
  cache_lrus_ = nullptr;
  cache_hash_table_ = nullptr;
  next_cache_entry_ = nullptr;
  start_lru_index_ = 0;
  end_lru_index_ = 0;
}

void VELT::destroyCache() {
  std::lock_guard<std::mutex> lock(cache_mutex_);
  __destroyCache();
}

namespace {

bool inPool(const VELT::CacheEntry* e, const VELT::CacheEntry* pool, int32_t size) {
  return e >= pool && e < pool + size;
}

bool linksValid(const VELT::CacheEntry* e, const VELT::CacheEntry* pool, int32_t size) {
  return (e->prev == nullptr || inPool(e->prev, pool, size)) &&
         (e->next == nullptr || inPool(e->next, pool, size));
}

}  // namespace

// Walks the sector's bucket. Returns the entry holding the sector, null at the end of the
// chain; sets `corrupted` (after logging and resetting the cache) when a link is broken.
static VELT::CacheEntry* walkChain(VELT& v, uint32_t sector, bool& corrupted) {
  corrupted = false;
  uint32_t bucket = VELT::cacheHash(sector) & static_cast<uint32_t>(v.cache_hash_size_ - 1);
  VELT::CacheEntry* head = v.cache_hash_table_[bucket];
  for (VELT::CacheEntry* e = head; e != nullptr; e = e->next) {
    if (!inPool(e, v.cache_pool_, v.cache_size_)) {
      NERIO_ASSERT_MSG(e >= v.cache_pool_ && e < v.cache_pool_ + v.cache_size_,
                       ": %p >= %p && %p < %p, sector %d, hash %d\n", static_cast<void*>(e),
                       static_cast<void*>(v.cache_pool_), static_cast<void*>(e),
                       static_cast<void*>(v.cache_pool_ + v.cache_size_), static_cast<int>(sector),
                       static_cast<int>(bucket));
      LOGE("cache corrupted, hash %d, head %p, entry %p, prev %p, next %p!\n",
           static_cast<int>(bucket), static_cast<void*>(head), static_cast<void*>(e), nullptr,
           nullptr);
      corrupted = true;
    } else if (!linksValid(e, v.cache_pool_, v.cache_size_)) {
      LOGE("cache corrupted, hash %d, head %p, entry %p, prev %p, next %p!\n",
           static_cast<int>(bucket), static_cast<void*>(head), static_cast<void*>(e),
           static_cast<void*>(e->prev), static_cast<void*>(e->next));
      corrupted = true;
    }
    if (corrupted) {
      LOGW("reset cache...\n");
      int32_t entries = v.cache_size_;
      v.__destroyCache();
      v.__createCache(static_cast<int64_t>(entries) * VELT_SECTOR_SIZE);
      return nullptr;
    }
    if (e->sector == sector) return e;
  }
  return nullptr;
}

int VELT::lookupCache(uint32_t sector, void* dst) {
  std::lock_guard<std::mutex> lock(cache_mutex_);
  if (cache_pool_ == nullptr) return -1;
  bool corrupted = false;
  CacheEntry* e = walkChain(*this, sector, corrupted);
  if (e == nullptr) return -1;
  memcpy(dst, e->data, VELT_SECTOR_SIZE);
  return 0;
}

int VELT::updateCache(uint32_t sector, const void* src) {
  std::lock_guard<std::mutex> lock(cache_mutex_);
  return __updateCache(sector, src);
}

int VELT::__updateCache(uint32_t sector, const void* src) {
  if (cache_pool_ == nullptr) return -1;
  bool corrupted = false;
  CacheEntry* entry = walkChain(*this, sector, corrupted);
  if (entry != nullptr) {
    memcpy(entry->data, src, VELT_SECTOR_SIZE);
    return 0;
  }
  if (corrupted && cache_pool_ == nullptr) return -1;

  const int32_t ring = cache_size_ + 1;
  int32_t used_count = (end_lru_index_ + cache_size_ - start_lru_index_ + 1) % ring;
  if (used_count < cache_size_) {
    NERIO_ASSERT(next_cache_entry_ < cache_pool_ + cache_size_);
    entry = next_cache_entry_++;
    NERIO_ASSERT_MSG(end_lru_index_ <= cache_size_, ": %d <= %d\n", end_lru_index_, cache_size_);
    cache_lrus_[end_lru_index_] = entry;
    end_lru_index_ = (end_lru_index_ + 1) % ring;
  } else {
    NERIO_ASSERT(used_count == cache_size_);
    NERIO_ASSERT(((end_lru_index_ + 1) % (cache_size_ + 1)) == start_lru_index_);
    entry = cache_lrus_[start_lru_index_];
    NERIO_ASSERT(entry != nullptr);
    if (entry == nullptr || !inPool(entry, cache_pool_, cache_size_) ||
        !linksValid(entry, cache_pool_, cache_size_)) {
      if (entry != nullptr && !inPool(entry, cache_pool_, cache_size_)) {
        NERIO_ASSERT_MSG(entry >= cache_pool_ && entry < cache_pool_ + cache_size_,
                         ": %p >= %p && %p < %p, start_lru_index_ %d\n",
                         static_cast<void*>(entry), static_cast<void*>(cache_pool_),
                         static_cast<void*>(entry), static_cast<void*>(cache_pool_ + cache_size_),
                         start_lru_index_);
      }
      LOGW("reset cache...\n");
      int32_t entries = cache_size_;
      __destroyCache();
      __createCache(static_cast<int64_t>(entries) * VELT_SECTOR_SIZE);
      return -1;
    }
    start_lru_index_ = (start_lru_index_ + 1) % ring;
    cache_lrus_[end_lru_index_] = entry;
    end_lru_index_ = (end_lru_index_ + 1) % ring;

    if (entry->prev != nullptr) {
      entry->prev->next = entry->next;
      if (entry->next != nullptr) entry->next->prev = entry->prev;
    } else {
      uint32_t old_bucket = cacheHash(entry->sector) & static_cast<uint32_t>(cache_hash_size_ - 1);
      NERIO_ASSERT(cache_hash_table_[old_bucket] == entry);
      cache_hash_table_[old_bucket] = entry->next;
      if (entry->next != nullptr) entry->next->prev = nullptr;
    }
    entry->prev = nullptr;
    entry->next = nullptr;
  }

  NERIO_ASSERT(entry->prev == nullptr && entry->next == nullptr);
  uint32_t bucket = cacheHash(sector) & static_cast<uint32_t>(cache_hash_size_ - 1);
  entry->sector = sector;
  entry->next = cache_hash_table_[bucket];
  if (entry->next != nullptr) entry->next->prev = entry;
  cache_hash_table_[bucket] = entry;
  memcpy(entry->data, src, VELT_SECTOR_SIZE);
  NERIO_ASSERT(entry && entry->sector == sector);
  return 0;
}

void VELT::dropCache(uint32_t sector) {
  std::lock_guard<std::mutex> lock(cache_mutex_);
  __dropCache(sector);
}

void VELT::cacheSectors(int64_t first, int64_t count, const uint8_t* src, bool cache) {
  // One lock for the whole run: a megabyte is two thousand sectors.
  std::lock_guard<std::mutex> lock(cache_mutex_);
  for (int64_t i = 0; i < count && cache_pool_ != nullptr; ++i) {
    const uint32_t sector = static_cast<uint32_t>(first + i);
    if (cache && src != nullptr) {
      __updateCache(sector, src + i * VELT_SECTOR_SIZE);
    } else {
      __dropCache(sector);
    }
  }
}

void VELT::__dropCache(uint32_t sector) {
  if (cache_pool_ == nullptr) return;
  bool corrupted = false;
  CacheEntry* e = walkChain(*this, sector, corrupted);
  // The entry keeps its ring slot; a sector number no write can produce marks it unused.
  if (e == nullptr) return;
  if (e->prev != nullptr) {
    e->prev->next = e->next;
  } else {
    uint32_t bucket = cacheHash(sector) & static_cast<uint32_t>(cache_hash_size_ - 1);
    cache_hash_table_[bucket] = e->next;
  }
  if (e->next != nullptr) e->next->prev = e->prev;
  e->prev = nullptr;
  e->next = nullptr;
  // Park it alone at the head of the bucket of an unreachable sector so the replacement step
  // can still unlink it as the head of its (old) bucket.
  e->sector = 0xFFFFFFFFu;
  uint32_t parked = cacheHash(e->sector) & static_cast<uint32_t>(cache_hash_size_ - 1);
  e->next = cache_hash_table_[parked];
  if (e->next != nullptr) e->next->prev = e;
  cache_hash_table_[parked] = e;
}

void VELT::dumpCache(int line) {
  printf("dump cache from %d line\n", line);
  printf("cache pool: %p, end+1: %p\n", static_cast<void*>(cache_pool_),
         static_cast<void*>(cache_pool_ ? cache_pool_ + cache_size_ + 1 : nullptr));
  printf("lru range: %d ~ %d\n", start_lru_index_, end_lru_index_);
  printf("lru list:\n");
  if (cache_lrus_ != nullptr) {
    for (int i = 0; i <= cache_size_; ++i) {
      CacheEntry* e = cache_lrus_[i];
      if (inPool(e, cache_pool_, cache_size_)) {
        printf("lru[%5d] %p %p %p\n", i, static_cast<void*>(e), static_cast<void*>(e->next),
               static_cast<void*>(e->prev));
      } else {
        printf("lru[%5d] %p *** broken *** !!!\n", i, static_cast<void*>(e));
      }
    }
  }
  printf("hash table:\n");
  if (cache_hash_table_ != nullptr) {
    for (int b = 0; b < cache_hash_size_; ++b) {
      printf("hash[%5d]: \n", b);
      int k = 0;
      for (CacheEntry* e = cache_hash_table_[b]; e != nullptr; e = e->next, ++k) {
        if (!inPool(e, cache_pool_, cache_size_)) {
          printf("    [%d] %p *** broken *** !!!\n", k, static_cast<void*>(e));
          break;
        }
        printf("    [%d] %p %p %p #%d\n", k, static_cast<void*>(e), static_cast<void*>(e->next),
               static_cast<void*>(e->prev), static_cast<int>(e->sector));
      }
    }
  }
  fflush(stdout);
}

}  // namespace velt
