#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

#include "image/encoded_image_data.h"
#include "verdalune/platform/contents.h"
#include "verdalune/platform/geometry.h"

namespace verdalune::sessionreplay {

// What a picture is, known before it is encoded.
struct ImageSource {
  enum class Kind : std::uint8_t { object, surfaceFrame, pixels };
  Kind kind = Kind::pixels;
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  bool operator==(const ImageSource&) const = default;

  // An immutable object (an image, a bitmap) by its address. Another object may take the address once
  // this one is gone, so the cache holds the object weakly beside the key to tell them apart.
  static ImageSource object(const void* address);
  // One frame of a surface: the producer changes the seed with every change of the pixels.
  static ImageSource surfaceFrame(std::uint32_t surfaceId, std::uint32_t seed);
  // A 128-bit hash of the bitmap's size, alpha flags, scale and every pixel of its rows (the padding
  // after a row aside). Reads every pixel once, far cheaper than encoding them.
  static ImageSource pixels(const platform::Bitmap& bitmap);
};

// Everything besides the source that decides the encoded bytes: which way the converter makes the image
// (the contents kind, and whether it is drawn at the layer's size) and what it passes the encoder.
// Quality and codec settings are fixed for the whole library.
struct ImageRecipe {
  std::uint8_t way = 0;
  bool hasAlpha = false;
  platform::Rect crop = platform::kUnitRect;  // the part of the source shown, in unit coordinates
  platform::Size boundsSize;
  std::string contentsGravity;
  double scale = 0;
  double deviceScale = 0;
  bool operator==(const ImageRecipe&) const = default;
};

// Encoded images by source and recipe, so that a picture shown by many layers, or read again into new
// contents, is encoded once. The least recently used entries go first once the cache holds `maxEntries`
// entries or `maxBytes` bytes of encoded data, so a long recording of changing screens does not grow it.
// Not thread-safe: it lives with the converter on the serializer's queue, where images are encoded.
class EncodedImageCache {
 public:
  static constexpr std::size_t kDefaultMaxEntries = 512;
  static constexpr std::size_t kDefaultMaxBytes = 8 * 1024 * 1024;

  struct Key {
    ImageSource source;
    ImageRecipe recipe;
    bool operator==(const Key&) const = default;
  };

  explicit EncodedImageCache(std::size_t maxEntries = kDefaultMaxEntries,
                             std::size_t maxBytes = kDefaultMaxBytes)
      : maxEntries_(maxEntries), maxBytes_(maxBytes) {}
  // The index points into the list, so a copy would point into the original; a move takes both along.
  EncodedImageCache(const EncodedImageCache&) = delete;
  EncodedImageCache& operator=(const EncodedImageCache&) = delete;
  EncodedImageCache(EncodedImageCache&&) = default;

  // The image kept for `key`; null when there is none, or when the object an object source named is
  // gone (its entry goes with it).
  std::shared_ptr<const EncodedImageData> find(const Key& key);

  // Keeps `image` for `key`, replacing what was kept for it. `owner` is the object an object source
  // names; it is held weakly. An image larger than the whole byte budget is not kept.
  void insert(const Key& key, std::shared_ptr<const EncodedImageData> image,
              std::weak_ptr<const void> owner = {});

  std::size_t size() const { return entries_.size(); }
  std::size_t bytes() const { return bytes_; }

 private:
  struct KeyHash {
    std::size_t operator()(const Key& key) const noexcept;
  };
  struct Entry {
    Key key;
    std::shared_ptr<const EncodedImageData> image;
    std::weak_ptr<const void> owner;
  };
  using Entries = std::list<Entry>;  // most recently used first

  void erase(Entries::iterator entry);

  const std::size_t maxEntries_;
  const std::size_t maxBytes_;
  std::size_t bytes_ = 0;
  Entries entries_;
  std::unordered_map<Key, Entries::iterator, KeyHash> index_;
};

}  // namespace verdalune::sessionreplay
