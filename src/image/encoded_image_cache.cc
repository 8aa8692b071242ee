#include "image/encoded_image_cache.h"

#include <bit>
#include <cstring>

#include "image/rgba_rendering.h"

// Compiled in, so the library carries no link dependency of its own for it.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace verdalune::sessionreplay {
namespace {

constexpr std::uint64_t kPrime3 = 0x165667B19E3779F9ull;

// A 64-bit finaliser whose every output bit depends on every input bit.
constexpr std::uint64_t avalanche(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xFF51AFD7ED558CCDull;
  x ^= x >> 33;
  x *= 0xC4CEB9FE1A85EC53ull;
  x ^= x >> 33;
  return x;
}

// XXH3 at 128 bits, streamed row by row. It reads a label's bitmap several times faster than a scalar
// hash does, and a full snapshot reads the bitmap of every label on the screen before it knows which
// of them are already encoded.
class PixelHasher {
 public:
  PixelHasher() { XXH3_128bits_reset(&state_); }
  void add(std::uint64_t word) { add(reinterpret_cast<const std::uint8_t*>(&word), sizeof word); }
  void add(const std::uint8_t* bytes, std::size_t size) { XXH3_128bits_update(&state_, bytes, size); }
  ImageSource finish() {
    const XXH128_hash_t hash = XXH3_128bits_digest(&state_);
    return ImageSource{.kind = ImageSource::Kind::pixels, .first = hash.low64, .second = hash.high64};
  }

 private:
  XXH3_state_t state_;
};

std::uint64_t bitsOf(double value) {
  return value == 0 ? 0 : std::bit_cast<std::uint64_t>(value);  // -0 equals 0, so it hashes alike
}

void combine(std::size_t& seed, std::uint64_t value) {
  seed = avalanche(seed ^ (value + kPrime3 + (seed << 6)));
}

}  // namespace

ImageSource ImageSource::object(const void* address) {
  return {.kind = Kind::object, .first = reinterpret_cast<std::uintptr_t>(address), .second = 0};
}

ImageSource ImageSource::surfaceFrame(std::uint32_t surfaceId, std::uint32_t seed) {
  return {.kind = Kind::surfaceFrame, .first = surfaceId, .second = seed};
}

ImageSource ImageSource::pixels(const platform::Bitmap& bitmap) {
  PixelHasher hasher;
  hasher.add((std::uint64_t{bitmap.width} << 32) | bitmap.height);
  hasher.add((bitmap.hasAlpha ? 1u : 0u) | (bitmap.alphaPremultiplied ? 2u : 0u));
  hasher.add(bitsOf(bitmap.scale));
  if (!image::isWellFormed(bitmap)) {
    hasher.add(bitmap.pixels.data(), bitmap.pixels.size());
    return hasher.finish();
  }
  // Row by row, so that the same pixels hash alike whatever padding follows their rows.
  const std::size_t rowBytes = std::size_t{bitmap.width} * 4;
  for (std::uint32_t row = 0; row < bitmap.height; ++row) {
    hasher.add(bitmap.pixels.data() + row * bitmap.bytesPerRow, rowBytes);
  }
  return hasher.finish();
}

std::size_t EncodedImageCache::KeyHash::operator()(const Key& key) const noexcept {
  const ImageRecipe& recipe = key.recipe;
  std::size_t seed = static_cast<std::size_t>(key.source.kind);
  for (std::uint64_t value :
       {key.source.first, key.source.second, std::uint64_t{recipe.way}, std::uint64_t{recipe.hasAlpha},
        bitsOf(recipe.crop.origin.x), bitsOf(recipe.crop.origin.y), bitsOf(recipe.crop.size.width),
        bitsOf(recipe.crop.size.height), bitsOf(recipe.boundsSize.width), bitsOf(recipe.boundsSize.height),
        std::uint64_t{std::hash<std::string>{}(recipe.contentsGravity)}, bitsOf(recipe.scale),
        bitsOf(recipe.deviceScale)}) {
    combine(seed, value);
  }
  return seed;
}

std::shared_ptr<const EncodedImageData> EncodedImageCache::find(const Key& key) {
  const auto found = index_.find(key);
  if (found == index_.end()) return nullptr;
  const Entries::iterator entry = found->second;
  if (key.source.kind == ImageSource::Kind::object && entry->owner.expired()) {
    erase(entry);
    return nullptr;
  }
  entries_.splice(entries_.begin(), entries_, entry);
  return entry->image;
}

void EncodedImageCache::insert(const Key& key, std::shared_ptr<const EncodedImageData> image,
                               std::weak_ptr<const void> owner) {
  if (!image) return;
  if (const auto found = index_.find(key); found != index_.end()) erase(found->second);
  const std::size_t size = image->data.size();
  if (size > maxBytes_ || maxEntries_ == 0) return;
  while (!entries_.empty() && (entries_.size() >= maxEntries_ || bytes_ + size > maxBytes_)) {
    erase(std::prev(entries_.end()));
  }
  entries_.push_front(Entry{key, std::move(image), std::move(owner)});
  index_.emplace(key, entries_.begin());
  bytes_ += size;
}

void EncodedImageCache::erase(Entries::iterator entry) {
  bytes_ -= entry->image->data.size();
  index_.erase(entry->key);
  entries_.erase(entry);
}

}  // namespace verdalune::sessionreplay
