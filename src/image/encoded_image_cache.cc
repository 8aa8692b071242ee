#include "image/encoded_image_cache.h"

#include <bit>
#include <cstring>

#include "image/rgba_rendering.h"

namespace verdalune::sessionreplay {
namespace {

constexpr std::uint64_t kPrime1 = 0x9E3779B185EBCA87ull;
constexpr std::uint64_t kPrime2 = 0xC2B2AE3D27D4EB4Full;
constexpr std::uint64_t kPrime3 = 0x165667B19E3779F9ull;
constexpr std::uint64_t kPrime4 = 0x85EBCA77C2B2AE63ull;

// A 64-bit finaliser whose every output bit depends on every input bit.
constexpr std::uint64_t avalanche(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xFF51AFD7ED558CCDull;
  x ^= x >> 33;
  x *= 0xC4CEB9FE1A85EC53ull;
  x ^= x >> 33;
  return x;
}

std::uint64_t load(const std::uint8_t* bytes) {
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// Four independent multiply-rotate lanes over eight-byte words, so a row costs about what reading it
// from memory does; the 256 bits of state fold into two 64-bit halves mixed differently.
class PixelHasher {
 public:
  void add(std::uint64_t word) { lanes_[0] = round(lanes_[0], word); }

  void add(const std::uint8_t* bytes, std::size_t size) {
    std::size_t at = 0;
    for (; at + 32 <= size; at += 32) {
      lanes_[0] = round(lanes_[0], load(bytes + at));
      lanes_[1] = round(lanes_[1], load(bytes + at + 8));
      lanes_[2] = round(lanes_[2], load(bytes + at + 16));
      lanes_[3] = round(lanes_[3], load(bytes + at + 24));
    }
    for (std::size_t lane = 0; at + 8 <= size; at += 8, ++lane)
      lanes_[lane] = round(lanes_[lane], load(bytes + at));
    if (at < size) {
      std::uint64_t tail = 0;
      std::memcpy(&tail, bytes + at, size - at);
      lanes_[3] = round(lanes_[3], tail ^ (size - at));
    }
  }

  ImageSource finish() const {
    const std::uint64_t first = avalanche(std::rotl(lanes_[0], 1) + std::rotl(lanes_[1], 7) +
                                          std::rotl(lanes_[2], 12) + std::rotl(lanes_[3], 18));
    const std::uint64_t second = avalanche((avalanche(lanes_[0] ^ kPrime3) + lanes_[1]) * kPrime4 ^
                                           avalanche(lanes_[2] + kPrime4) ^ std::rotl(lanes_[3], 29));
    return ImageSource{.kind = ImageSource::Kind::pixels, .first = first, .second = second};
  }

 private:
  static std::uint64_t round(std::uint64_t lane, std::uint64_t word) {
    return std::rotl(lane + word * kPrime2, 31) * kPrime1;
  }

  std::uint64_t lanes_[4] = {kPrime1 + kPrime2, kPrime2, 0, 0 - kPrime1};
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
